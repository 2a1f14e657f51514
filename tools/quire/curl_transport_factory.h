// Makes the HTTPS transport of the quire program from its global options: the service's two fixed
// hosts mapped to --server, the certificates of --cacert trusted, --insecure spelled out.
#pragma once

#include <memory>

#include "kestrel/net/curl_transport_config.h"
#include "kestrel/net/i_transport.h"
#include "tools/quire/client_options.h"

namespace quire_cli {

class CurlTransportFactory {
 public:
  // The transport configuration for `options`. Throws CliFailure (usage) for a --server that is
  // not an https address.
  static kestrel::net::CurlTransportConfig Config(const ClientOptions& options);
  // A new transport configured with Config(options). Throws CliFailure (usage) when the transport
  // refuses the configuration (a --cacert file without certificates).
  static std::shared_ptr<kestrel::net::ITransport> Make(const ClientOptions& options);
};

}  // namespace quire_cli
