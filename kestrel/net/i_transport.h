// The seam between the connection manager and whatever moves the bytes: libcurl for hosts, a
// scripted in-memory transport for tests.
#pragma once

#include "kestrel/base/kestrel_export.h"
#include "kestrel/net/connection_options.h"
#include "kestrel/net/network_request.h"
#include "kestrel/net/server_info.h"

namespace kestrel {
namespace net {

class KESTREL_EXPORT ITransport {
 public:
  virtual ~ITransport();

  // Starts `request`, whose HttpRequest holds the method, URL, header records and body. The
  // transport owns the request's initial reference. Contract:
  // * it never completes the request inside this call;
  // * later, on the thread that runs kestrel::MainLoop::Default(), it fills in the response (code,
  //   header lines, body buffer), calls request->Complete() exactly once, and then drops its
  //   reference with NetworkRequest::ReleaseRef;
  // * an invalid `server` (bad URL or scheme) completes with status::kErrorInvalidRequest without
  //   sending anything.
  // `options` is only valid during the call.
  virtual void Start(NetworkRequest* request, const ServerInfo& server,
                     const ConnectionOptions& options) = 0;
};

}  // namespace net
}  // namespace kestrel
