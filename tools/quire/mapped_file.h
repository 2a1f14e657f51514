// A file mapped into memory for upload: the library receives a QByteArray over the mapping, so the
// bytes are never copied into the heap and pages that the service has confirmed can be handed back.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <cstdint>

namespace quire_cli {

class MappedFile {
 public:
  // The largest file that can be uploaded: the upload protocol's byte positions and lengths are
  // unsigned 32-bit numbers, so the last position of a 4 GiB file cannot be written. Builds whose
  // QByteArray counts in a signed int (Qt 5) hold at most 2 GiB - 1 bytes in one array.
  static std::int64_t MaxSize();

  // Throws CliFailure (local failure) when a file of `size` bytes cannot be uploaded, with a
  // message that names `path` and says why. Called before anything is sent.
  static void CheckUploadable(const QString& path, std::int64_t size);

  // Opens `path` read-only, checks its size with CheckUploadable and maps it whole. Throws
  // CliFailure (local failure) when the file cannot be opened or mapped.
  explicit MappedFile(const QString& path);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  // The file's bytes: a QByteArray over the mapping (no copy; empty for an empty file). Copies of
  // it share the mapping and must not outlive this object.
  const QByteArray& data() const { return data_; }
  std::int64_t size() const { return size_; }
  // The absolute path, and the modification time in milliseconds since the epoch, as read when the
  // file was opened: together with the size they identify the file for a resumed upload.
  const QString& path() const { return path_; }
  std::int64_t modified_ms() const { return modified_ms_; }

  // Hands back to the system the whole pages that lie before `offset`: bytes that the service has
  // confirmed. They stay readable (they are read again from the file if touched), so this is only a
  // hint that keeps the resident memory of a large upload low.
  void ReleaseBefore(std::int64_t offset);

 private:
  QFile file_;
  QString path_;
  std::int64_t size_ = 0;
  std::int64_t modified_ms_ = 0;
  uchar* mapping_ = nullptr;
  std::int64_t released_ = 0;
  QByteArray data_;
};

}  // namespace quire_cli
