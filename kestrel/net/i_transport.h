/// @file
/// The seam between the connection manager and whatever moves the bytes: libcurl for hosts, a
/// scripted in-memory transport for tests.
#pragma once

#include "kestrel/base/kestrel_export.h"
#include "kestrel/net/connection_options.h"
#include "kestrel/net/network_request.h"
#include "kestrel/net/server_info.h"

namespace kestrel {
namespace net {

/// The seam between the connection manager and whatever moves the bytes: CurlTransport for hosts,
/// ScriptedTransport for tests (in the testing library, Quire::testing), or a host's own
/// implementation installed with TransportRegistry::SetDefault().
class KESTREL_EXPORT ITransport {
 public:
  /// What becomes of requests in flight is the implementation's business, but each must still
  /// complete exactly once.
  virtual ~ITransport();

  /// Starts `request`, whose HttpRequest holds the method, URL, header records and body. The
  /// transport owns the request's initial reference. Contract:
  /// - it never completes the request inside this call;
  /// - later, on the thread that runs kestrel::MainLoop::Default(), it fills in the response
  ///   (code, header lines, body buffer), calls `request->Complete()` exactly once, and then drops
  ///   its reference with NetworkRequest::ReleaseRef();
  /// - a failure without an HTTP answer completes with one of the status::kError... codes (an
  ///   invalid `server`, a bad URL or scheme, with status::kErrorInvalidRequest, without sending
  ///   anything);
  /// - response header lines are kept only when NetworkRequest::keep_response_headers() is true.
  ///
  /// `server` and `options` are only valid during the call. Called on the main loop's thread.
  virtual void Start(NetworkRequest* request, const ServerInfo& server,
                     const ConnectionOptions& options) = 0;

  /// Stops `request`, which Start() received and which has been marked cancelled
  /// (NetworkRequest::MarkCancelled()) but has not completed. Called on the main loop's thread. An
  /// implementation stops the transfer (closing its connection if bytes were moving), frees what
  /// it holds for it, and completes it as Start() says, later, from the main loop, soon (within
  /// 100 ms); the completion then carries status::kErrorCancelled whatever the implementation
  /// sets. The default does nothing, so the transfer runs to its end and only then completes
  /// (still as cancelled): a host transport that cannot stop a transfer need not override it.
  virtual void Cancel(NetworkRequest* request);
};

}  // namespace net
}  // namespace kestrel
