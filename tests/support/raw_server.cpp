#include "tests/support/raw_server.h"

#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "tests/support/socket_stream.h"

namespace quire_test {
namespace {

// The Content-Length of a request head (any spelling of the name, at the start of a line), or 0.
std::size_t ContentLength(const std::string& head) {
  std::size_t at = 0;
  const std::string name = "content-length:";
  while ((at = head.find("\r\n", at)) != std::string::npos) {
    at += 2;
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

std::string RawServer::Answer(int status, const std::string& location) {
  std::string text = "HTTP/1.1 " + std::to_string(status) + " Answer\r\n";
  if (!location.empty()) text += "Location: " + location + "\r\n";
  return text + "Content-Length: 0\r\nConnection: close\r\n\r\n";
}

std::string RawServer::AnswerWithBody(const std::string& content_type, const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Type: " + content_type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
         body;
}

RawServer::RawServer(const std::string& certificate_file, const std::string& key_file,
                     std::vector<Reply> replies)
    : RawServer(certificate_file, key_file, std::move(replies), false) {}

RawServer::RawServer(const std::string& reply, const std::string& certificate_file,
                     const std::string& key_file)
    : RawServer(certificate_file, key_file, {Reply{reply, Reply::kCloseNotify}}, true) {}

RawServer::RawServer(const std::string& certificate_file, const std::string& key_file,
                     std::vector<Reply> replies, bool repeat_last)
    : replies_(std::move(replies)), repeat_last_(repeat_last) {
  IgnoreSigpipe();
  if (!certificate_file.empty()) {
    tls_ = SSL_CTX_new(TLS_server_method());
    certificate_ok_ = tls_ != nullptr &&
                      SSL_CTX_use_certificate_chain_file(tls_, certificate_file.c_str()) == 1 &&
                      SSL_CTX_use_PrivateKey_file(tls_, key_file.c_str(), SSL_FILETYPE_PEM) == 1;
    if (!certificate_ok_) return;
  }
  if (listener_.ok()) thread_ = std::thread([this] { Serve(); });
}

RawServer::~RawServer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    if (current_fd_ >= 0) ::shutdown(current_fd_, SHUT_RDWR);
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
  SSL_CTX_free(tls_);
}

int RawServer::connections() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return connections_;
}

int RawServer::closed_connections() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closed_;
}

int RawServer::failed_handshakes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return failed_handshakes_;
}

std::vector<std::string> RawServer::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

int RawServer::answered() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return answered_;
}

std::string RawServer::received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

bool RawServer::WaitForClosedConnections(int count, double seconds) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                           [&] { return closed_ >= count; });
}

void RawServer::Serve() {
  for (;;) {
    const int fd = listener_.AcceptUntil([this] {
      std::lock_guard<std::mutex> lock(mutex_);
      return stopping_;
    });
    if (fd < 0) return;
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

void RawServer::ServeConnection(int fd) {
  SSL* ssl = nullptr;
  if (tls_ != nullptr) {
    ssl = SSL_new(tls_);
    SSL_set_fd(ssl, fd);
    if (SSL_accept(ssl) != 1) {
      SSL_free(ssl);
      std::lock_guard<std::mutex> lock(mutex_);
      ++failed_handshakes_;
      return;
    }
  }
  SocketStream stream(fd, ssl);
  ServeRequests(&stream);
  SSL_free(ssl);
}

long RawServer::Read(SocketStream* stream, char* out, std::size_t size) {
  const long n = stream->Read(out, size);
  if (n > 0) {
    std::lock_guard<std::mutex> lock(mutex_);
    received_.append(out, static_cast<std::size_t>(n));
  }
  return n;
}

void RawServer::ServeRequests(SocketStream* stream) {
  std::string pending;
  char buffer[16384];
  for (;;) {
    // One request head, then its body if it announces one.
    std::size_t end;
    while ((end = pending.find("\r\n\r\n")) == std::string::npos) {
      const long n = Read(stream, buffer, sizeof(buffer));
      if (n <= 0) return;
      pending.append(buffer, static_cast<std::size_t>(n));
    }
    const std::string head = pending.substr(0, end + 2);
    pending.erase(0, end + 4);
    std::size_t body = ContentLength(head);
    while (pending.size() < body) {
      body -= pending.size();
      pending.clear();
      const long n = Read(stream, buffer, sizeof(buffer));
      if (n <= 0) return;
      pending.append(buffer, static_cast<std::size_t>(n));
    }
    pending.erase(0, body);

    Reply reply;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(head);
      if (next_reply_ >= replies_.size()) return;
      reply = replies_[next_reply_];
      if (!repeat_last_ || next_reply_ + 1 < replies_.size()) ++next_reply_;
    }
    changed_.notify_all();
    if (!stream->Write(reply.bytes)) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++answered_;
    }
    switch (reply.after) {
      case Reply::kKeepOpen:
        break;
      case Reply::kClose:
        return;
      case Reply::kCloseNotify:
        stream->CloseNotify();
        return;
      case Reply::kDrain:
        while (stream->Read(buffer, sizeof(buffer)) > 0) {
        }
        return;
      case Reply::kHang: {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return stopping_; });
        return;
      }
    }
  }
}

}  // namespace quire_test
