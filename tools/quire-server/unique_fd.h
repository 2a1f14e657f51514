// An owned POSIX file descriptor, closed when the owner goes away.
#pragma once

namespace quire_server {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd();

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Gives up ownership and returns the descriptor.
  int Release();
  // Closes the descriptor now (if any).
  void Reset(int fd = -1);

 private:
  int fd_ = -1;
};

}  // namespace quire_server
