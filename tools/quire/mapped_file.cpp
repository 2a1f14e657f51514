#include "tools/quire/mapped_file.h"

#include <sys/mman.h>
#include <unistd.h>

#include <QDateTime>
#include <QFileInfo>
#include <limits>

#include "tools/quire/cli_failure.h"

namespace quire_cli {
namespace {

constexpr std::int64_t kProtocolLimit = std::int64_t{1} << 32;  // 4 GiB

std::int64_t ByteArrayLimit() {
  // QByteArray's size type: int on Qt 5, qsizetype (64 bits here) on Qt 6.
  using SizeType = decltype(QByteArray().size());
  return static_cast<std::int64_t>(std::numeric_limits<SizeType>::max());
}

}  // namespace

std::int64_t MappedFile::MaxSize() {
  const std::int64_t protocol = kProtocolLimit - 1;
  const std::int64_t array = ByteArrayLimit();
  return array < protocol ? array : protocol;
}

void MappedFile::CheckUploadable(const QString& path, std::int64_t size) {
  if (size >= kProtocolLimit) {
    throw CliFailure(
        ExitCode::kLocal,
        path.toStdString() + " is " + std::to_string(size) +
            " bytes, 4 GiB or more, and cannot be uploaded: the upload protocol counts "
            "byte positions in unsigned 32 bits (at most 4294967295 bytes); split the "
            "file into parts below 4 GiB");
  }
  if (size > MaxSize()) {
    throw CliFailure(ExitCode::kLocal,
                     path.toStdString() + " is " + std::to_string(size) +
                         " bytes; this build (Qt 5) holds at most " + std::to_string(MaxSize()) +
                         " bytes in one byte array; use a build on Qt 6 or a smaller file");
  }
}

MappedFile::MappedFile(const QString& path) : file_(path) {
  const QFileInfo info(path);
  path_ = info.absoluteFilePath();
  if (info.isDir()) {
    throw CliFailure(ExitCode::kLocal,
                     path.toStdString() + " is a folder, not a file; give the path of a file");
  }
  if (!file_.open(QIODevice::ReadOnly)) {
    throw CliFailure(ExitCode::kLocal, "cannot open " + path.toStdString() + " (" +
                                           file_.errorString().toStdString() +
                                           "); check the path and its permissions");
  }
  size_ = file_.size();
  modified_ms_ = info.lastModified().toMSecsSinceEpoch();
  CheckUploadable(path, size_);
  if (size_ == 0) return;
  mapping_ = file_.map(0, size_);
  if (mapping_ == nullptr) {
    throw CliFailure(ExitCode::kLocal, "cannot map " + path.toStdString() + " into memory (" +
                                           file_.errorString().toStdString() +
                                           "); check that it is a regular file");
  }
  // The upload reads the file once, front to back.
  ::madvise(mapping_, static_cast<std::size_t>(size_), MADV_SEQUENTIAL);
  data_ = QByteArray::fromRawData(reinterpret_cast<const char*>(mapping_),
                                  static_cast<decltype(data_.size())>(size_));
}

MappedFile::~MappedFile() {
  data_ = QByteArray();
  if (mapping_ != nullptr) file_.unmap(mapping_);
}

void MappedFile::ReleaseBefore(std::int64_t offset) {
  if (mapping_ == nullptr || offset <= released_) return;
  if (offset > size_) offset = size_;
  const std::int64_t page = ::sysconf(_SC_PAGESIZE);
  const std::int64_t end = offset / page * page;
  if (end <= released_) return;
  // A shared read-only file mapping: dropping its pages loses nothing; a later read faults them in
  // again from the file.
  ::madvise(mapping_ + released_, static_cast<std::size_t>(end - released_), MADV_DONTNEED);
  released_ = end;
}

}  // namespace quire_cli
