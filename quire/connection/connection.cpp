#include "quire/connection/connection.h"

#include <cstdint>
#include <cstdlib>
#include <utility>

#include "kestrel/base/main_thread_job_executor.h"
#include "kestrel/net/network_request.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/server_info.h"

namespace kestrel {
namespace quire {
namespace {

using kestrel::net::NetworkRequest;

namespace net_status = kestrel::net::status;

// The library's method numbers are handed to the network layer as they are.
constexpr bool SameNumber(ConnectionMethod method, kestrel::net::HttpRequest::MethodType type) {
  return static_cast<int>(method) == static_cast<int>(type);
}
static_assert(SameNumber(kMethodGet, kestrel::net::HttpRequest::kGet) &&
                  SameNumber(kMethodPost, kestrel::net::HttpRequest::kPost) &&
                  SameNumber(kMethodPut, kestrel::net::HttpRequest::kPut) &&
                  SameNumber(kMethodDelete, kestrel::net::HttpRequest::kDelete),
              "ConnectionMethod and HttpRequest::MethodType must number the methods alike");

// Network-layer completion code -> NetworkResponseInfo::status. The table is deliberately partial:
// the HTTP answers 300, 302, 308, 400 to 416 and 500 to 505 keep their number; 301, 303, 304, 305,
// 307 and every other code from FromHttp(300) on are failures (2), and every code below it, a
// plain 0 included, is success.
std::int32_t ConvertStatus(std::uint32_t code) {
  const int http = net_status::ToHttp(code);
  const bool kept = http == 300 || http == 302 || http == 308 || (http >= 400 && http <= 416) ||
                    (http >= 500 && http <= 505);
  if (net_status::IsHttp(code) && code == net_status::FromHttp(http) && kept) return http;
  return code < net_status::FromHttp(300) ? kStatusSuccess : kStatusFailure;
}

class ConnectionCallback;

}  // namespace

// The requests of a connection that have not completed, linked through their adaptors, so that
// Abort() finds them. Shared by the connection and its adaptors (main thread only): whichever goes
// last frees it, since adaptors may outlive their connection.
struct Connection::InFlight {
  long references = 1;
  ConnectionCallback* first = nullptr;
  kestrel::net::ConnectionManager* manager = nullptr;  // the connection's, null once it is gone

  static void Drop(InFlight* list) {
    if (--list->references == 0) doDelete(list);
  }
};

namespace {

// Travels with one request through the network layer; calls the caller's callback once on
// completion and then deletes itself.
class ConnectionCallback : public NetworkRequest::Callback {
  KESTREL_MANAGED_ALLOCATION

 public:
  ConnectionCallback(ResponseCallback callback, std::uint32_t request_id,
                     bool collect_response_headers, IJobExecutor* job_executor)
      : callback_(std::move(callback)),
        request_id_(request_id),
        collect_response_headers_(collect_response_headers),
        response_headers_(nullptr),
        request_handle_(nullptr),
        job_executor_(job_executor) {}

  ~ConnectionCallback() override {
    Unlink();
    if (request_handle_ != nullptr) NetworkRequest::ReleaseRef(request_handle_);
    doDelete(response_headers_);
  }

  // The completion also receives the network layer's code; and progress is passed on.
  void SetTransferCallbacks(TransferCallback callback, ProgressCallback progress) {
    transfer_callback_ = std::move(callback);
    progress_ = std::move(progress);
  }

  // Joins the connection's list of requests in flight.
  void Link(Connection::InFlight* list) {
    list_ = list;
    ++list->references;
    next_ = list->first;
    if (next_ != nullptr) next_->prev_ = this;
    list->first = this;
  }

  std::uint32_t request_id() const { return request_id_; }
  ConnectionCallback* next() const { return next_; }
  NetworkRequest* request_handle() const { return request_handle_; }

  // Holds a reference on `request` (the manager's result) in place of any earlier one.
  void SetRequestHandle(NetworkRequest* request) {
    if (request == request_handle_) return;
    if (request != nullptr) NetworkRequest::AddRef(request);
    if (request_handle_ != nullptr) NetworkRequest::ReleaseRef(request_handle_);
    request_handle_ = request;
  }

  IJobExecutor* job_executor() const { return job_executor_; }

  void OnRequestProgress(NetworkRequest* request) override {
    if (progress_) progress_(request_id_, request->progress());
  }

  void OnRequestComplete(NetworkRequest* request) override {
    // Completed requests are no longer Abort()'s business.
    Unlink();
    const kestrel::net::HttpRequest* http = request->GetHttpRequest();
    const std::int32_t status = ConvertStatus(http->GetResponseStatus());

    // The body is a view of the network layer's buffer, valid until our reference is dropped.
    QByteArray body;
    if (const kestrel::net::ByteBuffer* buffer = http->GetResponseBuffer()) {
      body = QByteArray::fromRawData(buffer->data(), static_cast<qsizetype>(buffer->size()));
    }

    if (collect_response_headers_) {
      doDelete(response_headers_);
      response_headers_ = doNew<std::vector<QString>>();
      const int count = http->GetResponseHeaderCount();
      response_headers_->reserve(static_cast<std::size_t>(count));
      for (int i = 0; i < count; ++i) response_headers_->push_back(*http->GetResponseHeader(i));
    }

    const NetworkResponseInfo info{request_id_, status, response_headers_};
    if (transfer_callback_) {
      transfer_callback_(info, body, http->GetResponseStatus());
    } else {
      if (!callback_) std::abort();  // an empty callback is a programming error
      callback_(info, body);
    }
    delete this;
  }

 private:
  void Unlink() {
    if (list_ == nullptr) return;
    if (prev_ != nullptr) prev_->next_ = next_;
    if (next_ != nullptr) next_->prev_ = prev_;
    if (list_->first == this) list_->first = next_;
    prev_ = next_ = nullptr;
    Connection::InFlight::Drop(list_);
    list_ = nullptr;
  }

  TransferCallback transfer_callback_;
  ProgressCallback progress_;
  Connection::InFlight* list_ = nullptr;
  ConnectionCallback* prev_ = nullptr;
  ConnectionCallback* next_ = nullptr;
  ResponseCallback callback_;
  std::uint32_t request_id_;
  bool collect_response_headers_;
  std::vector<QString>* response_headers_;
  NetworkRequest* request_handle_;
  IJobExecutor* job_executor_;  // borrowed from the connection; kept for the adaptor's owner
};

}  // namespace

Connection::Connection()
    : connection_manager_(nullptr),
      fixed_headers_(MMAlloc<kestrel::net::RequestHeader>(nullptr)),
      next_request_id_(1),
      job_executor_(doNew<MainThreadJobExecutor>()),
      in_flight_(nullptr) {}

Connection::~Connection() {
  if (in_flight_ != nullptr) {
    in_flight_->manager = nullptr;
    InFlight::Drop(in_flight_);
  }
  doDelete(job_executor_);
  kestrel::net::RequestHeaderList().swap(fixed_headers_);
  doDelete(connection_manager_);
}

void Connection::Init(const std::vector<QString>& headers) {
  // The manager's arguments are fixed: 4 connections per host, 2 idle ones kept, keep-alive, a
  // 60-second stall time-out, idle connections reused for 60 seconds. Init again replaces the
  // manager.
  auto* manager = doNew<kestrel::net::ConnectionManager>(4, 2, true, 60.0, 60);
  doDelete(connection_manager_);
  connection_manager_ = manager;
  if (in_flight_ != nullptr) in_flight_->manager = connection_manager_;
  fixed_headers_.reserve(fixed_headers_.size() + headers.size());
  for (const QString& line : headers) fixed_headers_.push_back(GetNetHeaderFromString(line));
}

kestrel::net::RequestHeader Connection::GetNetHeaderFromString(const QString& line) {
  kestrel::net::RequestHeader header;
  header.type = 0;
  header.name = line;
  return header;
}

void Connection::SetUpHeaders(const std::vector<QString>* extra,
                              kestrel::net::RequestHeaderList* out) {
  out->clear();
  out->reserve(fixed_headers_.size() + (extra != nullptr ? extra->size() : 0));
  out->insert(out->end(), fixed_headers_.begin(), fixed_headers_.end());
  if (extra != nullptr) {
    for (const QString& line : *extra) out->push_back(GetNetHeaderFromString(line));
  }
}

unsigned int Connection::ComputeRequestId(unsigned int requested) {
  if (requested != 0) return requested;
  const unsigned int id = next_request_id_;
  ++next_request_id_;
  if (next_request_id_ == 0) next_request_id_ = 1;
  return id;
}

unsigned int Connection::Request(const ConnectionParams& params, ResponseCallback callback) {
  return Issue(params, std::move(callback), TransferCallback(), ProgressCallback());
}

unsigned int Connection::StartTransfer(const ConnectionParams& params, TransferCallback callback,
                                       ProgressCallback progress) {
  if (!callback) std::abort();  // an empty callback is a programming error
  return Issue(params, ResponseCallback(), std::move(callback), std::move(progress));
}

void Connection::Abort(unsigned int request_id) {
  if (in_flight_ == nullptr || in_flight_->manager == nullptr) return;
  // Cancelling never completes a request inside the call, so the list stays as it is meanwhile.
  for (ConnectionCallback* adaptor = in_flight_->first; adaptor != nullptr;
       adaptor = adaptor->next()) {
    if (adaptor->request_id() == request_id) {
      in_flight_->manager->CancelRequest(adaptor->request_handle());
    }
  }
}

unsigned int Connection::Issue(const ConnectionParams& params, ResponseCallback callback,
                               TransferCallback transfer_callback, ProgressCallback progress) {
  using kestrel::net::HttpRequest;
  const auto method = params.method <= kMethodDelete
                          ? static_cast<HttpRequest::MethodType>(params.method)
                          : HttpRequest::kGet;
  const unsigned int id = ComputeRequestId(params.request_id);

  kestrel::net::RequestHeaderList headers;
  SetUpHeaders(params.headers, &headers);

  QByteArray body;
  if (params.body != nullptr) body = *params.body;

  auto* adaptor = new ConnectionCallback(std::move(callback), id, params.collect_response_headers,
                                         job_executor_);
  const bool report_progress = static_cast<bool>(progress);
  if (transfer_callback)
    adaptor->SetTransferCallbacks(std::move(transfer_callback), std::move(progress));
  if (in_flight_ == nullptr) {
    in_flight_ = doNew<InFlight>();
    in_flight_->manager = connection_manager_;
  }
  adaptor->Link(in_flight_);
  NetworkRequest::Info info(method, body, params.url, std::move(headers), true, adaptor, nullptr,
                            NetworkRequest::Info::kStandard);
  info.report_progress = report_progress;
  NetworkRequest* request;
  {
    kestrel::net::ServerInfo server(params.url);
    request = connection_manager_->StartRequest(server, info);
  }
  // The network layer never completes a request inside StartRequest, so the adaptor is still alive.
  adaptor->SetRequestHandle(request);
  return id;
}

void Connection::Cancel(unsigned int /*request_id*/) {
  // Deliberately empty: an issued request always runs to completion and reaches its callback.
}

}  // namespace quire
}  // namespace kestrel
