#include "tests/support/tcp_listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace quire_test {

TcpListener::TcpListener() {
  fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return;
  int yes = 1;
  ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof(address);
  if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd_, 64) != 0 ||
      ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return;
  }
  port_ = ntohs(address.sin_port);
}

TcpListener::~TcpListener() {
  if (fd_ >= 0) ::close(fd_);
}

int TcpListener::Accept(int wait_ms) const {
  if (!ok()) return -1;
  pollfd waiting{fd_, POLLIN, 0};
  if (::poll(&waiting, 1, wait_ms) <= 0) return -1;
  return ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
}

int TcpListener::AcceptUntil(const std::function<bool()>& stopping) const {
  while (!stopping()) {
    const int fd = Accept(20);
    if (fd >= 0) return fd;
  }
  return -1;
}

}  // namespace quire_test
