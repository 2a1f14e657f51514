#include "kestrel/net/http_request.h"

#include <utility>

namespace kestrel {
namespace net {

HttpRequest::HttpRequest() = default;

HttpRequest::~HttpRequest() { doDelete(response_buffer_); }

void HttpRequest::SetRequest(MethodType method, const QString& url, const QByteArray& body,
                             RequestHeaderList headers) {
  method_ = method;
  url_ = url;
  body_ = body;
  headers_ = std::move(headers);
}

const QString* HttpRequest::GetResponseHeader(int index) const {
  if (index < 0 || index >= GetResponseHeaderCount()) return nullptr;
  return &response_headers_[static_cast<std::size_t>(index)];
}

ByteBuffer* HttpRequest::MutableResponseBuffer() {
  if (response_buffer_ == nullptr) response_buffer_ = doNew<ByteBuffer>();
  return response_buffer_;
}

void HttpRequest::AddResponseHeader(const QString& line) {
  // A response has a handful of lines: room for them at once rather than growing one by one.
  if (response_headers_.capacity() == 0) response_headers_.reserve(12);
  response_headers_.push_back(line);
}

void HttpRequest::ClearResponse() {
  response_status_ = 0;
  if (response_buffer_ != nullptr) response_buffer_->Clear();
  response_headers_.clear();
}

}  // namespace net
}  // namespace kestrel
