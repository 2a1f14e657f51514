// What the benchmark programs of bench/run that drive the library against the emulator set up
// alike: a transport configuration that sends the service's host names to the emulator, and the
// authorised connection that ConnectionUtils and ResumableUploader send through.
#pragma once

#include <string>

#include "kestrel/net/curl_transport_config.h"
#include "quire/connection/connection.h"

namespace quire_bench {

// Maps the service's host names (docs. and api.quire.example) to `address`:`port` and, when `ca`
// is not empty, trusts the authority in that file as well.
kestrel::net::CurlTransportConfig EmulatorTransportConfig(const std::string& address, int port,
                                                          const std::string& ca);

// A new connection (the caller deletes it) whose fixed header lines carry the protocol version
// and `token` as a bearer token. It takes the registry's default transport, as every connection.
kestrel::quire::Connection* NewAuthorizedConnection(const std::string& token);

}  // namespace quire_bench
