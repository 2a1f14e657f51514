#include "tools/quire-server/file_sink.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace quire_server {
namespace {

// Write-back is started for every this many bytes, so that dirty pages do not pile up for the
// final fsync.
constexpr std::uint64_t kWritebackStep = 8u << 20;

}  // namespace

FileSink FileSink::CreateNew(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  int error = fd.valid() ? 0 : errno;
  FileSink sink(path, std::move(fd), 0, error == 0);
  sink.error_ = error;
  return sink;
}

FileSink FileSink::OpenAt(const std::string& path, std::uint64_t offset) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  int error = fd.valid() ? 0 : errno;
  FileSink sink(path, std::move(fd), offset, false);
  sink.error_ = error;
  return sink;
}

FileSink::FileSink(std::string path, UniqueFd fd, std::uint64_t offset, bool remove)
    : path_(std::move(path)),
      fd_(std::move(fd)),
      position_(offset),
      writeback_from_(offset),
      remove_(remove) {}

FileSink::FileSink(FileSink&& other) noexcept
    : path_(std::move(other.path_)),
      fd_(std::move(other.fd_)),
      position_(other.position_),
      written_(other.written_),
      writeback_from_(other.writeback_from_),
      remove_(other.remove_),
      error_(other.error_) {
  other.remove_ = false;
}

FileSink::~FileSink() {
  fd_.Reset();
  if (remove_) ::unlink(path_.c_str());
}

bool FileSink::Write(const char* data, std::size_t size) {
  if (error_ != 0) return false;
  while (size > 0) {
    ssize_t n = ::pwrite(fd_.get(), data, size, static_cast<off_t>(position_));
    if (n < 0) {
      if (errno == EINTR) continue;
      error_ = errno;
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
    position_ += static_cast<std::uint64_t>(n);
    written_ += static_cast<std::uint64_t>(n);
  }
  if (position_ >= writeback_from_ + kWritebackStep) {
    // A hint only: its failure is caught by the final Sync().
    ::sync_file_range(fd_.get(), static_cast<off_t>(writeback_from_),
                      static_cast<off_t>(position_ - writeback_from_), SYNC_FILE_RANGE_WRITE);
    writeback_from_ = position_;
  }
  return true;
}

bool FileSink::Sync() {
  if (error_ != 0) return false;
  if (::fsync(fd_.get()) != 0) {
    error_ = errno;
    return false;
  }
  return true;
}

}  // namespace quire_server
