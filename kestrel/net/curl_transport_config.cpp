#include "kestrel/net/curl_transport_config.h"

namespace kestrel {
namespace net {

CurlTransportConfig::CurlTransportConfig() : user_agent(DefaultUserAgent()) {}

QString CurlTransportConfig::DefaultUserAgent() {
  return QStringLiteral("quire/") + QStringLiteral(KESTREL_QUIRE_VERSION);
}

}  // namespace net
}  // namespace kestrel
