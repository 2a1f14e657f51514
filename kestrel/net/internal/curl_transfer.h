/// @file
/// One request on its way through the libcurl transport, with libcurl's callbacks for it.
#pragma once

#include <curl/curl.h>

#include <QString>
#include <chrono>
#include <cstddef>
#include <memory>

#include "kestrel/base/memory_manager.h"
#include "kestrel/net/byte_buffer.h"
#include "kestrel/net/connection_options.h"
#include "kestrel/net/http_request.h"
#include "kestrel/net/internal/body_storage.h"
#include "kestrel/net/internal/curl_settings.h"
#include "kestrel/net/network_request.h"
#include "kestrel/net/response_sink.h"

namespace kestrel {
namespace net {
namespace internal {

/// One request on its way through the transport. Built by CurlTransport::Start() on the main
/// thread, then owned by the I/O thread until the completion is posted. Its libcurl callbacks
/// collect the response into the request (header lines, body buffer or response sink) and report
/// progress.
struct CurlTransfer {
  KESTREL_MANAGED_ALLOCATION

 public:
  CurlTransfer() = default;
  /// Frees the header list and the parsed URL (not the easy handle, which the transport recycles).
  ~CurlTransfer();
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;

  /// Sets the options of `easy` that come from the request: URL, header lines, callbacks, method
  /// and body, connection options and the settings it started with.
  void SetUpHandle(CURL* easy);
  /// Hands the latest header line of the response, if any, to the request.
  void FlushLastLine();
  /// Hands the newest figures to the request and, unless a report is already waiting, queues one
  /// on the main loop. The job holds a reference, so the request outlives it.
  void ReportProgress();
  /// Reads the final figures from libcurl and reports them unless they were already reported.
  void ReportFinalProgress();

  /// The request; the transport holds a reference until the completion has run.
  NetworkRequest* request = nullptr;
  /// The request's HTTP exchange.
  HttpRequest* http = nullptr;
  /// The configuration the request started with.
  std::shared_ptr<const CurlSettings> settings;
  /// The options the request started with.
  ConnectionOptions options;
  /// The server's host, for the connection cache's count of hosts.
  QString host;
  /// The server's port.
  int port = 0;
  /// The request's URL, parsed.
  CURLU* url = nullptr;
  /// The header lines libcurl sends.
  curl_slist* headers = nullptr;
  /// The HTTP method.
  HttpRequest::MethodType method = HttpRequest::kGet;
  /// Whether the User-Agent line goes out.
  bool send_user_agent = false;
  /// Whether the response header lines are kept.
  bool keep_headers = false;
  /// An https:// request, which takes the https proxy.
  bool secure = false;
  /// It goes through the proxy (one is set and the host is not exempt).
  bool proxied = false;
  /// The request body (POST and PUT), read straight out of the request's QByteArray.
  const char* body = nullptr;
  /// The body's length.
  std::size_t body_size = 0;
  /// How much of the body libcurl has read.
  std::size_t body_offset = 0;
  /// Whether the request hears of its progress.
  bool report_progress = false;

  // --- I/O thread only.
  /// The easy handle, once the transfer is on the wire.
  CURL* easy = nullptr;
  /// Whether the handle was added to the multi handle.
  bool in_multi = false;
  /// The transport's list of active transfers.
  CurlTransfer* prev = nullptr;
  /// The transport's list of active transfers.
  CurlTransfer* next = nullptr;
  /// The status number of the response whose header block is arriving (a 1xx interim response is
  /// replaced by the next).
  int response_code = 0;
  /// Its Content-Length, or -1.
  curl_off_t content_length = -1;
  /// Whether the blank line that ends its header block has arrived. libcurl reports a connection
  /// that closes in the middle of the header lines as a success; this tells the two apart.
  bool header_complete = false;
  /// The latest header line, which an obsolete continuation line may still extend; the ones before
  /// it are in the request already.
  QString last_line;
  /// The request's response buffer, once the body starts.
  ByteBuffer* buffer = nullptr;
  /// The transport's recycled body storage.
  BodyStorage* storage = nullptr;
  /// The request's response sink (null: the body goes to `buffer`).
  ResponseSink* sink = nullptr;
  /// Whether the current answer's head went to the sink.
  bool sink_head_sent = false;
  /// Whether libcurl holds the transfer paused because the sink was full.
  bool paused = false;
  /// Progress: the newest figures.
  curl_off_t sent = 0;
  /// Progress: the newest figures.
  curl_off_t received = 0;
  /// Progress: the newest figures.
  curl_off_t to_receive = -1;
  /// Progress: the bytes and time of the last report handed to the request.
  curl_off_t reported_bytes = 0;
  /// Progress: the bytes and time of the last report handed to the request.
  std::chrono::steady_clock::time_point reported_at;
};

/// Hands a finished request to the main loop, which reports it and drops the transport's
/// reference.
void PostCompletion(NetworkRequest* request);

}  // namespace internal
}  // namespace net
}  // namespace kestrel
