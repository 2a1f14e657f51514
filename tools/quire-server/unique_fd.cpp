#include "tools/quire-server/unique_fd.h"

#include <unistd.h>

namespace quire_server {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) Reset(other.Release());
  return *this;
}

UniqueFd::~UniqueFd() { Reset(); }

int UniqueFd::Release() {
  int fd = fd_;
  fd_ = -1;
  return fd;
}

void UniqueFd::Reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

}  // namespace quire_server
