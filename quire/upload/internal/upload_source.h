// Where the bytes of a resumable upload come from: a file the uploader opens, or a device the host
// lends.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <cstdint>

#include "kestrel/base/memory_manager.h"
#include "quire/upload/resumable_uploader.h"

class QFile;
class QIODevice;

namespace kestrel {
namespace quire {
namespace internal {

/// The source of a ResumableUploader: a file it opens itself or a device the host lends, read
/// chunk by chunk, and checked for changes before and after each chunk is read.
///
/// A random-access source is read again wherever the server wants; a sequential one (a pipe, a
/// socket) is read once, so what the server wants again must still be in the chunk the uploader
/// keeps. Allocated through the default memory manager.
class UploadSource {
  KESTREL_MANAGED_ALLOCATION

 public:
  UploadSource() = default;
  /// Closes the file it opened.
  ~UploadSource();
  UploadSource(const UploadSource&) = delete;
  UploadSource& operator=(const UploadSource&) = delete;

  /// Opens the file at `file_path`, remembering its size and modification time. False when it is
  /// not a readable regular file.
  bool OpenFile(const QString& file_path);
  /// Reads from `device` (borrowed), from its current position on: `*total_bytes` bytes of it, or,
  /// when that is negative, the rest of a random-access device (then set in `*total_bytes`).
  /// Returns kSourceUnreadable for a device not open for reading, kInvalidArgument for a
  /// sequential one without its length, kNone when it can be read.
  ResumableUploader::Error OpenDevice(QIODevice* device, std::int64_t* total_bytes);
  /// Forgets the source (closing the file it opened) and any reading done.
  void Close();

  /// The size of an opened file.
  std::int64_t file_size() const { return file_size_; }
  /// True when the source can be read only once, in order.
  bool sequential() const { return sequential_; }

  /// True when the source still holds the upload's `total_bytes` unchanged: a file's size and
  /// modification time are those of the start, a random-access device is still long enough.
  bool Unchanged(std::int64_t total_bytes) const;

  /// Reads the `length` bytes of the upload at `position` into `out`. A sequential source reuses
  /// what of them `kept` (the chunk read before, which starts at `kept_position`) holds and reads
  /// the rest onwards. Returns kNone, kSourceChanged when the bytes are no longer there, or
  /// kSourceUnreadable when a sequential source would have to go back further than `kept`.
  ResumableUploader::Error Read(std::int64_t position, std::int64_t length, const QByteArray& kept,
                                std::int64_t kept_position, QByteArray* out);

 private:
  QFile* file_ = nullptr;        // owned, when the source is a file
  QIODevice* device_ = nullptr;  // the source: file_ or the host's device
  bool sequential_ = false;
  std::int64_t base_ = 0;  // the device's position of the upload's first byte
  std::int64_t file_size_ = -1;
  QDateTime file_modified_;
  // A sequential device: how far it has been read.
  std::int64_t read_position_ = 0;
};

}  // namespace internal
}  // namespace quire
}  // namespace kestrel
