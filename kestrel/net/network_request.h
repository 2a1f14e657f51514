/// @file
/// One request in the network layer: a counted object that owns its HTTP exchange and reports its
/// completion to a callback object.
#pragma once

#include <QByteArray>
#include <QString>
#include <atomic>
#include <cstdint>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/http_request.h"
#include "kestrel/net/request_header.h"
#include "kestrel/net/response_sink.h"

namespace kestrel {
namespace net {

/// How far the transfer of one request has got, in bytes. A total is -1 while it is not known
/// (a body to send is always known; an answer's length is known once its Content-Length arrived).
struct TransferProgress {
  /// Request body bytes handed to the connection so far.
  std::int64_t bytes_sent = 0;
  /// The request body's length.
  std::int64_t bytes_to_send = 0;
  /// Response body bytes received so far.
  std::int64_t bytes_received = 0;
  /// The response body's announced length, or -1.
  std::int64_t bytes_to_receive = -1;
};

/// One request in the network layer: a counted object that owns its HTTP exchange and reports its
/// completion to a callback object.
///
/// Reference counting: the count is a `long` right after the virtual table, changed only with
/// kestrel::TestThenAdd(). A new request starts with one reference, held by the transport until it
/// has reported completion. Whoever else keeps the pointer takes a reference (AddRef()) and drops
/// it (ReleaseRef()); when the count drops from 1 the virtual Release() destroys the request, its
/// response buffer included. Allocated through the default memory manager.
///
/// Threading: references may be taken and dropped from any thread; everything else happens on the
/// main loop's thread, except that the transport fills the response on its own thread before it
/// hands the request back.
class KESTREL_EXPORT NetworkRequest {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// Receives the completion of a request.
  class KESTREL_EXPORT Callback {
   public:
    /// The network layer never deletes a callback; its owner does (the quire library's adaptor
    /// deletes itself after its completion).
    virtual ~Callback();
    /// Called exactly once per request, when it has finished (successfully or not), on the thread
    /// that runs the main loop, and never before the connection manager's StartRequest returned.
    /// The request and its response (body buffer, header lines) stay valid during the call; a
    /// callback that needs them later takes a reference (AddRef()).
    virtual void OnRequestComplete(NetworkRequest* request) = 0;
    /// Called on the main loop's thread while the transfer moves, only for a request described with
    /// Info::report_progress set, and never after OnRequestComplete(); `request->progress()` holds
    /// the figures. Transports report at least whenever 256 KiB more have moved or 100 ms have
    /// passed with bytes moving, but never queue a second report of one request while the first
    /// waits in the main loop (the waiting one then carries the newest figures), so a slow main
    /// loop is never flooded. The default does nothing.
    virtual void OnRequestProgress(NetworkRequest* request);
  };

  /// The description of one request, as a caller hands it to ConnectionManager::StartRequest().
  class KESTREL_EXPORT Info {
   public:
    /// Which standard header lines the network layer adds of its own.
    enum DefaultHeaders {
      kNoDefaultHeaders = 0,  ///< only the caller's lines (and what HTTP itself requires)
      kUserAgent = 1,         ///< plus the User-Agent line
      kStandard = 2,          ///< plus User-Agent and the transport's usual lines (Accept, ...)
    };

    /// Copies each argument into the field of the same name: the body is shared, the header list
    /// taken over. `keep_response_headers`: keep the response header lines for
    /// HttpRequest::GetResponseHeader() (false drops them). `callback` is borrowed and must stay
    /// alive until it is called. `user_data` is opaque and handed back by
    /// NetworkRequest::user_data().
    Info(HttpRequest::MethodType method, const QByteArray& body, const QString& url,
         RequestHeaderList headers, bool keep_response_headers, Callback* callback, void* user_data,
         DefaultHeaders default_headers);
    /// Releases what the description still holds.
    ~Info();

    /// The HTTP method.
    HttpRequest::MethodType method;
    /// The body (an empty one for none); shared, never copied.
    QByteArray body;
    /// The absolute URL, percent-encoded.
    QString url;
    /// The header records in sending order.
    RequestHeaderList headers;
    /// Whether the response header lines are kept.
    bool keep_response_headers;
    /// Receives the completion; borrowed.
    Callback* callback;
    /// Opaque, handed back by NetworkRequest::user_data().
    void* user_data;
    /// Which standard lines the network layer adds.
    DefaultHeaders default_headers;
    /// Where the body of a 2xx answer goes as it arrives, instead of the response buffer; null
    /// (the default) collects it in the buffer. The request takes a reference of its own.
    ResponseSink* response_sink = nullptr;
    /// Whether the callback hears of the transfer's progress (Callback::OnRequestProgress()).
    /// False unless set after construction.
    bool report_progress = false;
  };

  /// Takes the request description from `info`: the body is shared, not copied, and the header
  /// list is moved out of it. The count starts at 1.
  explicit NetworkRequest(Info* info);
  NetworkRequest(const NetworkRequest&) = delete;
  NetworkRequest& operator=(const NetworkRequest&) = delete;

  /// The HTTP exchange; valid while the request lives.
  HttpRequest* GetHttpRequest() { return &http_request_; }
  /// The HTTP exchange; valid while the request lives.
  const HttpRequest* GetHttpRequest() const { return &http_request_; }
  /// The opaque pointer of the description.
  void* user_data() const { return user_data_; }
  /// Whether the transport keeps the response header lines.
  bool keep_response_headers() const { return keep_response_headers_; }
  /// Which standard lines the transport adds.
  Info::DefaultHeaders default_headers() const { return default_headers_; }
  /// The sink that takes the body of a 2xx answer, or null (see Info::response_sink).
  ResponseSink* response_sink() const { return response_sink_; }
  /// Whether Complete() has been called.
  bool completed() const { return completed_; }
  /// Whether the request was cancelled (MarkCancelled()).
  bool cancelled() const { return cancelled_; }
  /// Whether the callback hears of progress (Info::report_progress).
  bool report_progress() const { return report_progress_; }
  /// The latest figures of the transfer. Main loop's thread; valid during
  /// Callback::OnRequestProgress() and after completion.
  const TransferProgress& progress() const { return progress_; }

  /// Reports completion to the callback: once; later calls do nothing. Transports call it on the
  /// main loop's thread, after the response is in place. A cancelled request completes with
  /// status::kErrorCancelled and without any response (no body, no header lines), whatever the
  /// transport had received.
  void Complete();

  /// Marks the request cancelled, so that it completes with status::kErrorCancelled. Main loop's
  /// thread; ConnectionManager::CancelRequest() calls it before it tells the transport. Does
  /// nothing after completion.
  void MarkCancelled();
  /// For transports, any thread: stores the newest figures of the transfer. Returns true when the
  /// caller must queue a job on the main loop that calls DeliverProgress() (no delivery is waiting
  /// yet); false when one is already waiting, which will carry these figures.
  bool UpdateProgress(const TransferProgress& progress);
  /// For transports, on the main loop's thread: takes the newest figures into progress() and tells
  /// the callback (Callback::OnRequestProgress()), unless the request did not ask for progress, has
  /// completed or was cancelled.
  void DeliverProgress();

  /// Takes a reference (see the class description). Safe from any thread.
  static void AddRef(NetworkRequest* request);
  /// Drops a reference, destroying the request with Release() when it was the last one. Safe from
  /// any thread.
  static void ReleaseRef(NetworkRequest* request);

  /// Destroys the request; called when the last reference is dropped.
  virtual void Release();

 protected:
  /// Only Release() destroys a request.
  virtual ~NetworkRequest();

 private:
  volatile long ref_count_;
  HttpRequest http_request_;
  Callback* callback_;
  void* user_data_;
  bool keep_response_headers_;
  Info::DefaultHeaders default_headers_;
  bool completed_ = false;
  ResponseSink* response_sink_ = nullptr;
  bool cancelled_ = false;
  bool report_progress_ = false;
  TransferProgress progress_;
  std::atomic<bool> progress_queued_{false};
  std::atomic<std::int64_t> newest_sent_{0};
  std::atomic<std::int64_t> newest_to_send_{0};
  std::atomic<std::int64_t> newest_received_{0};
  std::atomic<std::int64_t> newest_to_receive_{-1};
};

}  // namespace net
}  // namespace kestrel
