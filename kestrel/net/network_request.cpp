#include "kestrel/net/network_request.h"

#include <utility>

#include "kestrel/base/atomic.h"

namespace kestrel {
namespace net {

NetworkRequest::Callback::~Callback() = default;

NetworkRequest::Info::Info(HttpRequest::MethodType method_type, const QByteArray& body_bytes,
                           const QString& url_text, RequestHeaderList header_list,
                           bool keep_headers, Callback* completion, void* opaque,
                           DefaultHeaders defaults)
    : method(method_type),
      body(body_bytes),
      url(url_text),
      headers(std::move(header_list)),
      keep_response_headers(keep_headers),
      callback(completion),
      user_data(opaque),
      default_headers(defaults) {}

NetworkRequest::Info::~Info() = default;

NetworkRequest::NetworkRequest(Info* info)
    : ref_count_(1),
      callback_(info->callback),
      user_data_(info->user_data),
      keep_response_headers_(info->keep_response_headers),
      default_headers_(info->default_headers) {
  http_request_.SetRequest(info->method, info->url, info->body, std::move(info->headers));
  if (info->response_sink != nullptr) {
    response_sink_ = info->response_sink;
    response_sink_->AddRef();
  }
}

NetworkRequest::~NetworkRequest() {
  if (response_sink_ != nullptr) response_sink_->Release();
}

void NetworkRequest::Complete() {
  if (completed_) return;
  completed_ = true;
  Callback* callback = callback_;
  callback_ = nullptr;
  if (callback != nullptr) callback->OnRequestComplete(this);
}

void NetworkRequest::AddRef(NetworkRequest* request) { TestThenAdd(&request->ref_count_, 1); }

void NetworkRequest::ReleaseRef(NetworkRequest* request) {
  if (TestThenAdd(&request->ref_count_, -1) == 1) request->Release();
}

void NetworkRequest::Release() { delete this; }

}  // namespace net
}  // namespace kestrel
