/// @file
/// Where a ContentDownload writes the content: a file descriptor, a QIODevice or two functions.
#pragma once

#include <QString>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "quire/quire_export.h"

class QIODevice;

namespace kestrel {
namespace quire {

/// Where a ContentDownload writes the content: a file descriptor, a QIODevice or two functions.
/// A small value (copy it freely); it borrows the descriptor or device, which must stay open
/// until the download has called back. Every call happens on the main thread.
class QUIRE_EXPORT DownloadTarget {
 public:
  /// Writes `size` bytes at byte `offset` of the content; false on failure.
  using WriteFunction =
      std::function<bool(std::uint64_t offset, const char* data, std::size_t size)>;
  /// Cuts the destination to its first `size` bytes (0: empty, for a download that starts over);
  /// false when that is not possible.
  using TruncateFunction = std::function<bool(std::uint64_t size)>;

  /// A target that refuses every write.
  DownloadTarget();
  /// Writes with pwrite() at the content's offsets and cuts with ftruncate(): a regular file. An
  /// `fd` that cannot seek (a pipe, a terminal) is written in order with write() instead, and can
  /// neither resume nor start over.
  static DownloadTarget ForFileDescriptor(int fd);
  /// Writes at the content's offsets with seek() and write(); cuts a QFileDevice with resize(). A
  /// sequential device is written in order and can neither resume nor start over.
  static DownloadTarget ForDevice(QIODevice* device);
  /// The host's own functions.
  static DownloadTarget ForFunctions(WriteFunction write, TruncateFunction truncate);

  /// Writes bytes at `offset`; false (with error() set) on failure.
  bool Write(std::uint64_t offset, const char* data, std::size_t size);
  /// Cuts to `size` bytes; false (with error() set) when it cannot.
  bool Truncate(std::uint64_t size);
  /// What went wrong with the last failed call, in words (the system's message for a file).
  const QString& error() const { return error_; }
  /// The system error number of the last failed call on a file descriptor (ENOSPC for a full
  /// disk, say), else 0.
  int error_number() const { return error_number_; }

 private:
  WriteFunction write_;
  TruncateFunction truncate_;
  QString error_;
  int error_number_ = 0;
  int fd_ = -1;
  bool sequential_ = false;
  std::uint64_t sequential_position_ = 0;
};

}  // namespace quire
}  // namespace kestrel
