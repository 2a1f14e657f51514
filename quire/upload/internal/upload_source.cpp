#include "quire/upload/internal/upload_source.h"

#include <QFile>
#include <QFileInfo>
#include <QIODevice>
#include <algorithm>
#include <vector>

namespace kestrel {
namespace quire {
namespace internal {
namespace {

// How long a sequential source may keep the uploader waiting for its next bytes.
constexpr int kStreamWaitMilliseconds = 30000;

// Reads up to `length` bytes of `device` into `out`; returns how many arrived. A sequential device
// is waited for.
std::int64_t ReadFully(QIODevice* device, char* out, std::int64_t length) {
  std::int64_t done = 0;
  while (done < length) {
    const qint64 n = device->read(out + done, length - done);
    if (n < 0) break;
    if (n == 0) {
      if (!device->isSequential() || device->atEnd()) {
        // A sequential device at its end may still be waiting for a writer.
        if (!device->isSequential() || !device->waitForReadyRead(kStreamWaitMilliseconds)) break;
      } else if (!device->waitForReadyRead(kStreamWaitMilliseconds)) {
        break;
      }
      continue;
    }
    done += n;
  }
  return done;
}

}  // namespace

UploadSource::~UploadSource() { Close(); }

bool UploadSource::OpenFile(const QString& file_path) {
  Close();
  auto* file = new QFile(file_path);
  const QFileInfo info(file_path);
  if (file_path.isEmpty() || !info.isFile() || !file->open(QIODevice::ReadOnly)) {
    delete file;
    return false;
  }
  file_ = file;
  device_ = file;
  file_size_ = info.size();
  file_modified_ = info.lastModified();
  return true;
}

ResumableUploader::Error UploadSource::OpenDevice(QIODevice* device, std::int64_t* total_bytes) {
  Close();
  if (!device->isOpen() || !device->isReadable()) return ResumableUploader::kSourceUnreadable;
  sequential_ = device->isSequential();
  if (*total_bytes < 0) {
    if (sequential_) {
      sequential_ = false;
      return ResumableUploader::kInvalidArgument;  // a stream's length must be given
    }
    *total_bytes = std::max<std::int64_t>(0, device->size() - device->pos());
  }
  device_ = device;
  base_ = sequential_ ? 0 : device->pos();
  if (auto* file = qobject_cast<QFile*>(device)) {
    const QFileInfo info(file->fileName());
    if (!sequential_ && info.isFile()) {
      file_size_ = info.size();
      file_modified_ = info.lastModified();
    }
  }
  return ResumableUploader::kNone;
}

void UploadSource::Close() {
  delete file_;
  file_ = nullptr;
  device_ = nullptr;
  sequential_ = false;
  base_ = 0;
  file_size_ = -1;
  read_position_ = 0;
}

bool UploadSource::Unchanged(std::int64_t total_bytes) const {
  if (file_size_ >= 0) {
    const QString path =
        file_ != nullptr ? file_->fileName() : qobject_cast<QFile*>(device_)->fileName();
    const QFileInfo info(path);
    return info.exists() && info.size() == file_size_ && info.lastModified() == file_modified_;
  }
  if (!sequential_) return device_->size() >= base_ + total_bytes;
  return true;
}

ResumableUploader::Error UploadSource::Read(std::int64_t position, std::int64_t length,
                                            const QByteArray& kept, std::int64_t kept_position,
                                            QByteArray* out) {
  if (!sequential_) {
    out->resize(static_cast<qsizetype>(length));
    if (!device_->seek(base_ + position) || ReadFully(device_, out->data(), length) != length) {
      return ResumableUploader::kSourceChanged;
    }
    return ResumableUploader::kNone;
  }
  // A stream is read once: what the server wants again must still be in the kept chunk.
  const std::int64_t kept_to = kept_position + kept.size();
  if (position < read_position_ && (position < kept_position || position > kept_to)) {
    return ResumableUploader::kSourceUnreadable;
  }
  out->resize(static_cast<qsizetype>(length));
  std::int64_t filled = 0;
  if (position < read_position_) {
    const std::int64_t reuse = std::min<std::int64_t>(length, read_position_ - position);
    std::copy(kept.constData() + (position - kept_position),
              kept.constData() + (position - kept_position) + reuse, out->data());
    filled = reuse;
  } else {
    // Bytes the server already holds (a resumed stream): read past them.
    std::vector<char> skip(64 * 1024);
    while (read_position_ < position) {
      const std::int64_t n =
          std::min<std::int64_t>(static_cast<std::int64_t>(skip.size()), position - read_position_);
      if (ReadFully(device_, skip.data(), n) != n) return ResumableUploader::kSourceChanged;
      read_position_ += n;
    }
  }
  const std::int64_t wanted = length - filled;
  if (wanted > 0) {
    if (ReadFully(device_, out->data() + filled, wanted) != wanted) {
      return ResumableUploader::kSourceChanged;
    }
    read_position_ += wanted;
  }
  return ResumableUploader::kNone;
}

}  // namespace internal
}  // namespace quire
}  // namespace kestrel
