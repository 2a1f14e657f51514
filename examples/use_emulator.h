// Shared by the command-line examples: sends the library's two host names to a local quire-server
// (the emulator of the service) instead of the real service.
#pragma once

#include <QString>

#include <kestrel/net/curl_transport.h>

namespace quire_examples {

// Sends the library's fixed host names to a local emulator at `address` ("127.0.0.1:8443",
// "[::1]:8443") and trusts the certificate in `ca_file` (the emulator's data folder's
// tls/cert.pem; empty: the system's authorities only). Must run before the first service or
// connection is created. False when the address has no port or the transport refused the
// settings (e.g. an unreadable CA file).
inline bool UseEmulator(const QString& address, const QString& ca_file) {
  const int colon = address.lastIndexOf(QLatin1Char(':'));
  bool port_ok = false;
  const int port = address.mid(colon + 1).toInt(&port_ok);
  if (colon <= 0 || !port_ok) return false;
  QString host = address.left(colon);
  if (host.startsWith(QLatin1Char('[')) && host.endsWith(QLatin1Char(']'))) {
    host = host.mid(1, host.size() - 2);  // an IPv6 address goes without brackets
  }
  kestrel::net::CurlTransportConfig config;
  config.host_mappings = {{QStringLiteral("docs.quire.example"), host, port},
                          {QStringLiteral("api.quire.example"), host, port}};
  if (!ca_file.isEmpty()) config.extra_ca_certificate_files = {ca_file};
  return kestrel::net::CurlTransport::Default()->Configure(config);
}

}  // namespace quire_examples
