#include "quire/services/download_target.h"

#include <unistd.h>

#include <QFileDevice>
#include <QIODevice>
#include <cerrno>
#include <cstring>
#include <utility>

namespace kestrel {
namespace quire {

DownloadTarget::DownloadTarget() = default;

DownloadTarget DownloadTarget::ForFileDescriptor(int fd) {
  DownloadTarget target;
  target.fd_ = fd;
  target.sequential_ = ::lseek(fd, 0, SEEK_CUR) < 0;
  return target;
}

DownloadTarget DownloadTarget::ForDevice(QIODevice* device) {
  DownloadTarget target;
  target.sequential_ = device == nullptr || device->isSequential();
  target.write_ = [device](std::uint64_t offset, const char* data, std::size_t size) {
    if (device == nullptr || !device->isWritable()) return false;
    if (!device->isSequential() && static_cast<std::uint64_t>(device->pos()) != offset &&
        !device->seek(static_cast<qint64>(offset))) {
      return false;
    }
    std::size_t done = 0;
    while (done < size) {
      const qint64 n = device->write(data + done, static_cast<qint64>(size - done));
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  };
  target.truncate_ = [device](std::uint64_t size) {
    auto* file = qobject_cast<QFileDevice*>(device);
    if (file == nullptr) return false;
    return file->resize(static_cast<qint64>(size)) && file->seek(static_cast<qint64>(size));
  };
  return target;
}

DownloadTarget DownloadTarget::ForFunctions(WriteFunction write, TruncateFunction truncate) {
  DownloadTarget target;
  target.write_ = std::move(write);
  target.truncate_ = std::move(truncate);
  return target;
}

bool DownloadTarget::Write(std::uint64_t offset, const char* data, std::size_t size) {
  if (sequential_) {
    // Only the next byte in order can be written to a stream.
    if (offset != sequential_position_) {
      error_ = QStringLiteral("the destination cannot seek");
      error_number_ = 0;
      return false;
    }
  }
  if (fd_ >= 0) {
    std::size_t done = 0;
    while (done < size) {
      const ssize_t n =
          sequential_ ? ::write(fd_, data + done, size - done)
                      : ::pwrite(fd_, data + done, size - done, static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        error_number_ = n < 0 ? errno : ENOSPC;
        error_ = QString::fromLocal8Bit(std::strerror(error_number_));
        return false;
      }
      done += static_cast<std::size_t>(n);
    }
  } else if (!write_ || !write_(offset, data, size)) {
    error_ = QStringLiteral("the destination refused the bytes");
    error_number_ = 0;
    return false;
  }
  sequential_position_ = offset + size;
  return true;
}

bool DownloadTarget::Truncate(std::uint64_t size) {
  if (sequential_) {
    if (size == sequential_position_) return true;
    error_ = QStringLiteral("the destination cannot seek");
    error_number_ = 0;
    return false;
  }
  if (fd_ >= 0) {
    if (::ftruncate(fd_, static_cast<off_t>(size)) != 0) {
      error_number_ = errno;
      error_ = QString::fromLocal8Bit(std::strerror(error_number_));
      return false;
    }
    return true;
  }
  if (!truncate_ || !truncate_(size)) {
    error_ = QStringLiteral("the destination cannot be cut");
    error_number_ = 0;
    return false;
  }
  return true;
}

}  // namespace quire
}  // namespace kestrel
