#include "tests/kestrel/net/curl_raw_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

namespace curl_test {
namespace {

// Reads or writes through TLS or the plain socket.
struct Stream {
  int fd;
  SSL* ssl;

  long Read(char* out, int size) {
    if (ssl != nullptr) return SSL_read(ssl, out, size);
    return ::recv(fd, out, static_cast<std::size_t>(size), 0);
  }

  bool WriteAll(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const int chunk = static_cast<int>(bytes.size() - done);
      const long n = ssl != nullptr ? SSL_write(ssl, bytes.data() + done, chunk)
                                    : ::send(fd, bytes.data() + done,
                                             static_cast<std::size_t>(chunk), MSG_NOSIGNAL);
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  }
};

// The Content-Length of a request head, or 0.
std::size_t ContentLength(const std::string& head) {
  std::size_t at = 0;
  while ((at = head.find("\r\n", at)) != std::string::npos) {
    at += 2;
    const std::string name = "content-length:";
    if (head.size() - at < name.size()) break;
    bool match = true;
    for (std::size_t i = 0; i < name.size() && match; ++i) {
      match = static_cast<char>(std::tolower(static_cast<unsigned char>(head[at + i]))) == name[i];
    }
    if (match) return std::strtoull(head.c_str() + at + name.size(), nullptr, 10);
  }
  return 0;
}

}  // namespace

CurlRawServer::CurlRawServer(const std::string& certificate_file, const std::string& key_file,
                             std::vector<Reply> replies)
    : replies_(std::move(replies)) {
  if (!certificate_file.empty()) {
    tls_ = SSL_CTX_new(TLS_server_method());
    if (tls_ == nullptr ||
        SSL_CTX_use_certificate_file(tls_, certificate_file.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_PrivateKey_file(tls_, key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
      return;
    }
  }
  listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof(address);
  if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 16) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return;
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Serve(); });
}

CurlRawServer::~CurlRawServer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    if (current_fd_ >= 0) ::shutdown(current_fd_, SHUT_RDWR);
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
  if (listener_ >= 0) ::close(listener_);
  SSL_CTX_free(tls_);
}

int CurlRawServer::connections() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return connections_;
}

int CurlRawServer::closed_connections() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closed_;
}

std::vector<std::string> CurlRawServer::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

bool CurlRawServer::WaitForClosedConnections(int count, double seconds) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                           [&] { return closed_ >= count; });
}

void CurlRawServer::Serve() {
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) return;
    }
    pollfd waiting{listener_, POLLIN, 0};
    if (::poll(&waiting, 1, 20) <= 0) continue;
    const int fd = ::accept(listener_, nullptr, nullptr);
    if (fd < 0) continue;
    timeval timeout{10, 0};  // nothing blocks for long, whatever the client does
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++connections_;
      current_fd_ = fd;
      if (stopping_) ::shutdown(fd, SHUT_RDWR);
    }
    ServeConnection(fd);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      current_fd_ = -1;
      ++closed_;
    }
    ::close(fd);
    changed_.notify_all();
  }
}

void CurlRawServer::ServeConnection(int fd) {
  Stream stream{fd, nullptr};
  if (tls_ != nullptr) {
    stream.ssl = SSL_new(tls_);
    SSL_set_fd(stream.ssl, fd);
    if (SSL_accept(stream.ssl) != 1) {
      SSL_free(stream.ssl);
      return;
    }
  }
  std::string pending;
  char buffer[16384];
  for (;;) {
    // One request head, then its body if it announces one.
    std::size_t end;
    while ((end = pending.find("\r\n\r\n")) == std::string::npos) {
      const long n = stream.Read(buffer, sizeof(buffer));
      if (n <= 0) goto done;
      pending.append(buffer, static_cast<std::size_t>(n));
    }
    const std::string head = pending.substr(0, end + 2);
    pending.erase(0, end + 4);
    std::size_t body = ContentLength(head);
    while (pending.size() < body) {
      body -= pending.size();
      pending.clear();
      const long n = stream.Read(buffer, sizeof(buffer));
      if (n <= 0) goto done;
      pending.append(buffer, static_cast<std::size_t>(n));
    }
    pending.erase(0, body);

    Reply reply;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(head);
      if (next_reply_ >= replies_.size()) goto done;
      reply = replies_[next_reply_++];
    }
    changed_.notify_all();
    if (!stream.WriteAll(reply.bytes)) goto done;
    if (reply.after == Reply::kClose) goto done;
    if (reply.after == Reply::kDrain) {
      while (stream.Read(buffer, sizeof(buffer)) > 0) {
      }
      goto done;
    }
    if (reply.after == Reply::kHang) {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [this] { return stopping_; });
      goto done;
    }
  }
done:
  SSL_free(stream.ssl);
}

}  // namespace curl_test
