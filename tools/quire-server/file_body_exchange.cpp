#include "tools/quire-server/file_body_exchange.h"

#include <cerrno>
#include <cstring>

namespace quire_server {
namespace {

HttpResponse StorageError(int error) {
  if (error == ENOSPC || error == EDQUOT) {
    return HttpResponse::Error(507, "insufficientStorage", "no space left for the content");
  }
  return HttpResponse::Error(500, "storageError",
                             std::string("cannot store the content: ") + std::strerror(error));
}

}  // namespace

FileBodyExchange::FileBodyExchange(FileSink sink, std::uint64_t max_bytes, Commit commit)
    : sink_(std::move(sink)), max_bytes_(max_bytes), commit_(std::move(commit)) {}

bool FileBodyExchange::OnBody(const char* data, std::size_t size) {
  if (sink_.written() + size > max_bytes_) {
    too_large_ = true;
    return false;
  }
  return sink_.Write(data, size);
}

HttpResponse FileBodyExchange::Finish() {
  if (too_large_) {
    return HttpResponse::Error(413, "contentTooLarge",
                               "the content is larger than the server accepts");
  }
  if (!sink_.ok() || !sink_.Sync()) return StorageError(sink_.error());
  return commit_(sink_);
}

void FileBodyExchange::Abort() {}

}  // namespace quire_server
