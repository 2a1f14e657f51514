#include "bench/net/bench_http_server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/socket_stream.h"

namespace quire_bench::net {
namespace {

constexpr std::size_t kBufferBytes = 1024 * 1024;

bool HeaderIs(const std::string& head, const char* lower_name, std::string* value) {
  std::size_t at = 0;
  const std::size_t name_length = std::strlen(lower_name);
  while ((at = head.find("\r\n", at)) != std::string::npos) {
    at += 2;
    if (head.size() - at < name_length + 1) return false;
    bool match = head[at + name_length] == ':';
    for (std::size_t i = 0; i < name_length && match; ++i) {
      match = std::tolower(static_cast<unsigned char>(head[at + i])) == lower_name[i];
    }
    if (match) {
      std::size_t start = at + name_length + 1;
      while (start < head.size() && head[start] == ' ') ++start;
      *value = head.substr(start, head.find("\r\n", start) - start);
      return true;
    }
  }
  return false;
}

}  // namespace

BenchHttpServer::BenchHttpServer(SSL_CTX* tls) : tls_(tls) {
  if (listener_.ok()) acceptor_ = std::thread([this] { AcceptLoop(); });
}

BenchHttpServer::~BenchHttpServer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    for (int fd : open_fds_) ::shutdown(fd, SHUT_RDWR);
  }
  if (acceptor_.joinable()) acceptor_.join();
  for (std::thread& worker : workers_) worker.join();
}

void BenchHttpServer::AcceptLoop() {
  for (;;) {
    const int fd = listener_.AcceptUntil([this] {
      std::lock_guard<std::mutex> lock(mutex_);
      return stopping_;
    });
    if (fd < 0) return;
    int yes = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
    std::lock_guard<std::mutex> lock(mutex_);
    open_fds_.insert(fd);
    workers_.emplace_back([this, fd] { Serve(fd); });
  }
}

void BenchHttpServer::Serve(int fd) {
  SSL* ssl = nullptr;
  if (tls_ != nullptr) {
    ssl = SSL_new(tls_);
    SSL_set_fd(ssl, fd);
    if (SSL_accept(ssl) != 1) {
      SSL_free(ssl);
      ssl = nullptr;
    }
  }
  quire_test::SocketStream stream(fd, ssl);
  std::vector<char> buffer(kBufferBytes);
  static const std::vector<char> kPayload(kBufferBytes, 'x');
  std::string pending;
  const bool usable = tls_ == nullptr || ssl != nullptr;
  while (usable) {
    std::size_t end;
    bool closed = false;
    while ((end = pending.find("\r\n\r\n")) == std::string::npos) {
      const long n = stream.Read(buffer.data(), buffer.size());
      if (n <= 0) {
        closed = true;
        break;
      }
      pending.append(buffer.data(), static_cast<std::size_t>(n));
    }
    if (closed) break;
    const std::string head = pending.substr(0, end + 2);
    pending.erase(0, end + 4);
    const std::string method = head.substr(0, head.find(' '));
    const std::size_t path_start = head.find(' ') + 1;
    const std::string path = head.substr(path_start, head.find(' ', path_start) - path_start);
    std::string value;
    unsigned long long body = 0;
    if (HeaderIs(head, "content-length", &value)) body = std::strtoull(value.c_str(), nullptr, 10);
    if (HeaderIs(head, "expect", &value)) {
      const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
      if (!stream.Write(kContinue, sizeof(kContinue) - 1)) break;
    }
    // Discard the body.
    const std::size_t from_pending =
        static_cast<std::size_t>(std::min<unsigned long long>(body, pending.size()));
    pending.erase(0, from_pending);
    unsigned long long left = body - from_pending;
    while (left > 0) {
      const long n =
          stream.Read(buffer.data(),
                      static_cast<std::size_t>(std::min<unsigned long long>(left, buffer.size())));
      if (n <= 0) {
        closed = true;
        break;
      }
      left -= static_cast<unsigned long long>(n);
    }
    if (closed) break;

    std::string answer;
    unsigned long long payload = 0;
    if (method == "GET" && path.rfind("/bytes/", 0) == 0) {
      payload = std::strtoull(path.c_str() + 7, nullptr, 10);
      answer = "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
               std::to_string(payload) + "\r\n\r\n";
    } else if (method == "GET") {
      answer = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 2\r\n\r\nok";
    } else {
      const std::string text = "received " + std::to_string(body);
      answer = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
               std::to_string(text.size()) + "\r\n\r\n" + text;
    }
    if (!stream.Write(answer.data(), answer.size())) break;
    while (payload > 0) {
      const std::size_t n =
          static_cast<std::size_t>(std::min<unsigned long long>(payload, kPayload.size()));
      if (!stream.Write(kPayload.data(), n)) break;
      payload -= n;
    }
    if (payload > 0) break;
  }
  if (ssl != nullptr) SSL_free(ssl);
  std::lock_guard<std::mutex> lock(mutex_);
  open_fds_.erase(fd);
  ::close(fd);
}

}  // namespace quire_bench::net
