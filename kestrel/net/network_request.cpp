#include "kestrel/net/network_request.h"

#include <utility>

#include "kestrel/base/atomic.h"
#include "kestrel/net/network_status.h"

namespace kestrel {
namespace net {

NetworkRequest::Callback::~Callback() = default;

void NetworkRequest::Callback::OnRequestProgress(NetworkRequest* /*request*/) {}

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
      default_headers_(info->default_headers),
      report_progress_(info->report_progress) {
  http_request_.SetRequest(info->method, info->url, info->body, std::move(info->headers));
}

NetworkRequest::~NetworkRequest() = default;

void NetworkRequest::Complete() {
  if (completed_) return;
  completed_ = true;
  if (cancelled_) {
    // Whatever arrived before the cancel took effect is not handed out.
    http_request_.ClearResponse();
    http_request_.SetResponseStatus(status::kErrorCancelled);
  }
  Callback* callback = callback_;
  callback_ = nullptr;
  if (callback != nullptr) callback->OnRequestComplete(this);
}

void NetworkRequest::MarkCancelled() {
  if (!completed_) cancelled_ = true;
}

bool NetworkRequest::UpdateProgress(const TransferProgress& progress) {
  newest_sent_.store(progress.bytes_sent, std::memory_order_relaxed);
  newest_to_send_.store(progress.bytes_to_send, std::memory_order_relaxed);
  newest_received_.store(progress.bytes_received, std::memory_order_relaxed);
  newest_to_receive_.store(progress.bytes_to_receive, std::memory_order_relaxed);
  return !progress_queued_.exchange(true, std::memory_order_acq_rel);
}

void NetworkRequest::DeliverProgress() {
  progress_queued_.exchange(false, std::memory_order_acq_rel);
  if (completed_ || cancelled_ || !report_progress_) return;
  progress_.bytes_sent = newest_sent_.load(std::memory_order_relaxed);
  progress_.bytes_to_send = newest_to_send_.load(std::memory_order_relaxed);
  progress_.bytes_received = newest_received_.load(std::memory_order_relaxed);
  progress_.bytes_to_receive = newest_to_receive_.load(std::memory_order_relaxed);
  if (callback_ != nullptr) callback_->OnRequestProgress(this);
}

void NetworkRequest::AddRef(NetworkRequest* request) { TestThenAdd(&request->ref_count_, 1); }

void NetworkRequest::ReleaseRef(NetworkRequest* request) {
  if (TestThenAdd(&request->ref_count_, -1) == 1) request->Release();
}

void NetworkRequest::Release() { delete this; }

}  // namespace net
}  // namespace kestrel
