#include "kestrel/net/transport_registry.h"

#include "kestrel/net/curl_transport.h"

namespace kestrel {
namespace net {
namespace {

ITransport* g_installed = nullptr;

}  // namespace

void TransportRegistry::SetDefault(ITransport* transport) { g_installed = transport; }

ITransport* TransportRegistry::Default() {
  return g_installed != nullptr ? g_installed : BuiltIn();
}

ITransport* TransportRegistry::BuiltIn() { return CurlTransport::Default(); }

}  // namespace net
}  // namespace kestrel
