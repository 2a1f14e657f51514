#include "tools/quire-server/memory_body_exchange.h"

namespace quire_server {

MemoryBodyExchange::MemoryBodyExchange(std::size_t max_bytes, Answer answer)
    : max_bytes_(max_bytes), answer_(std::move(answer)) {}

bool MemoryBodyExchange::OnBody(const char* data, std::size_t size) {
  if (body_.size() + size > max_bytes_) {
    too_large_ = true;
    return false;
  }
  body_.append(data, size);
  return true;
}

HttpResponse MemoryBodyExchange::Finish() {
  if (too_large_) return HttpResponse::Error(413, "metadataTooLarge", "the body is too large");
  return answer_(body_);
}

}  // namespace quire_server
