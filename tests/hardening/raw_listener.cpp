#include "tests/hardening/raw_listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace quire_hardening {
namespace {

// The Content-Length of a request head (any spelling of the name), or 0.
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

std::string RawListener::Answer(int status, const std::string& location) {
  std::string text = "HTTP/1.1 " + std::to_string(status) + " Answer\r\n";
  if (!location.empty()) text += "Location: " + location + "\r\n";
  return text + "Content-Length: 0\r\nConnection: close\r\n\r\n";
}

std::string RawListener::AnswerWithBody(const std::string& content_type, const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Type: " + content_type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
         body;
}

RawListener::RawListener(std::string reply, const std::string& certificate_file,
                         const std::string& key_file)
    : reply_(std::move(reply)) {
  // TLS writes go through write(2): a client that hangs up (as one that refuses the certificate
  // does) must not end the test process with SIGPIPE.
  ::signal(SIGPIPE, SIG_IGN);
  if (!certificate_file.empty()) {
    tls_ = SSL_CTX_new(TLS_server_method());
    if (tls_ == nullptr ||
        SSL_CTX_use_certificate_chain_file(tls_, certificate_file.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(tls_, key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
      return;
    }
  }
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return;
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Serve(); });
}

RawListener::~RawListener() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  if (thread_.joinable()) thread_.join();
  if (listener_ >= 0) ::close(listener_);
  if (tls_ != nullptr) SSL_CTX_free(tls_);
}

int RawListener::connections() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return connections_;
}

int RawListener::failed_handshakes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return failed_handshakes_;
}

int RawListener::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::string RawListener::received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

bool RawListener::WaitForConnectionsDone(int count, double seconds) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                           [&] { return done_ >= count; });
}

void RawListener::Serve() {
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) return;
    }
    pollfd p{listener_, POLLIN, 0};
    if (::poll(&p, 1, 50) <= 0) continue;
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++connections_;
    }
    ServeConnection(fd);
    ::close(fd);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++done_;
    }
    changed_.notify_all();
  }
}

void RawListener::ServeConnection(int fd) {
  // A client that stalls cannot hold the listener for long.
  timeval timeout{5, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
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
  std::string request;
  char buffer[16384];
  bool answered = false;
  while (!answered) {
    const long n = ssl != nullptr ? SSL_read(ssl, buffer, sizeof buffer)
                                  : ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    request.append(buffer, static_cast<std::size_t>(n));
    {
      std::lock_guard<std::mutex> lock(mutex_);
      received_.append(buffer, static_cast<std::size_t>(n));
    }
    const std::size_t head_end = request.find("\r\n\r\n");
    if (head_end == std::string::npos) continue;
    const std::size_t body = ContentLength(request.substr(0, head_end + 2));
    if (request.size() < head_end + 4 + body) continue;
    std::size_t sent = 0;
    while (sent < reply_.size()) {
      const int chunk = static_cast<int>(reply_.size() - sent);
      const long w = ssl != nullptr ? SSL_write(ssl, reply_.data() + sent, chunk)
                                    : ::send(fd, reply_.data() + sent,
                                             static_cast<std::size_t>(chunk), MSG_NOSIGNAL);
      if (w <= 0) break;
      sent += static_cast<std::size_t>(w);
    }
    answered = true;
    std::lock_guard<std::mutex> lock(mutex_);
    ++requests_;
  }
  if (ssl != nullptr) {
    if (answered) SSL_shutdown(ssl);
    SSL_free(ssl);
  }
}

}  // namespace quire_hardening
