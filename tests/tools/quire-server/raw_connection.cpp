#include "tests/tools/quire-server/raw_connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

namespace quire_test::server {
namespace {

int Remaining(std::chrono::steady_clock::time_point deadline) {
  return static_cast<int>(std::max<long>(0, std::chrono::duration_cast<std::chrono::milliseconds>(
                                                deadline - std::chrono::steady_clock::now())
                                                .count()));
}

}  // namespace

RawConnection::RawConnection(int port) {
  fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

RawConnection::~RawConnection() {
  if (fd_ >= 0) ::close(fd_);
}

bool RawConnection::Send(const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

std::string RawConnection::ReadAnswer(int timeout_ms) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (true) {
    std::size_t end = pending_.find("\r\n\r\n");
    if (end != std::string::npos) {
      std::size_t length = 0;
      std::string head = pending_.substr(0, end);
      std::size_t pos = 0;
      while ((pos = head.find("\r\n", pos)) != std::string::npos) {
        pos += 2;
        if (::strncasecmp(head.c_str() + pos, "Content-Length:", 15) == 0) {
          length = std::strtoul(head.c_str() + pos + 15, nullptr, 10);
        }
      }
      if (pending_.size() >= end + 4 + length) {
        std::string answer = pending_.substr(0, end + 4 + length);
        pending_.erase(0, end + 4 + length);
        return answer;
      }
    }
    pollfd p{fd_, POLLIN, 0};
    int left = Remaining(deadline);
    if (left == 0 || ::poll(&p, 1, left) <= 0) return std::string();
    char buffer[65536];
    ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
    if (n <= 0) return std::string();
    pending_.append(buffer, static_cast<std::size_t>(n));
  }
}

bool RawConnection::ClosedWithin(int timeout_ms) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (true) {
    pollfd p{fd_, POLLIN, 0};
    int left = Remaining(deadline);
    if (left == 0 || ::poll(&p, 1, left) <= 0) return false;
    char buffer[4096];
    ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
    if (n <= 0) return true;
  }
}

int StatusOf(const std::string& answer) {
  if (answer.compare(0, 9, "HTTP/1.1 ") != 0 && answer.compare(0, 9, "HTTP/1.0 ") != 0) return 0;
  return std::atoi(answer.c_str() + 9);
}

std::string BodyOf(const std::string& answer) {
  std::size_t end = answer.find("\r\n\r\n");
  return end == std::string::npos ? std::string() : answer.substr(end + 4);
}

}  // namespace quire_test::server
