#include "kestrel/net/transport_registry.h"

#include "kestrel/base/main_loop.h"
#include "kestrel/net/network_status.h"
#ifdef KESTREL_HAVE_CURL_TRANSPORT
#include "kestrel/net/curl_transport.h"
#endif

namespace kestrel {
namespace net {
namespace {

ITransport* g_installed = nullptr;

#ifndef KESTREL_HAVE_CURL_TRANSPORT
// Completes every request with kErrorNoTransport, later, from the main loop.
class UnavailableTransport : public ITransport {
 public:
  void Start(NetworkRequest* request, const ServerInfo&, const ConnectionOptions&) override {
    MainLoop::Default()->Post([request] {
      request->GetHttpRequest()->SetResponseStatus(status::kErrorNoTransport);
      request->Complete();
      NetworkRequest::ReleaseRef(request);
    });
  }
};
#endif

}  // namespace

void TransportRegistry::SetDefault(ITransport* transport) { g_installed = transport; }

ITransport* TransportRegistry::Default() {
  return g_installed != nullptr ? g_installed : BuiltIn();
}

ITransport* TransportRegistry::BuiltIn() {
#ifdef KESTREL_HAVE_CURL_TRANSPORT
  return CurlTransport::Default();
#else
  static ITransport* const built_in = new UnavailableTransport();
  return built_in;
#endif
}

}  // namespace net
}  // namespace kestrel
