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
/// ScriptedTransport for tests, or a host's own implementation installed with
/// TransportRegistry::SetDefault().
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
};

}  // namespace net
}  // namespace kestrel
