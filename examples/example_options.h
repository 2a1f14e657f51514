// Shared by the command-line examples: the bearer token from the environment, and the options
// --emulator ADDR:PORT and --ca-file FILE that send the library's two host names to a local
// quire-server (the emulator of the service) instead of the real service.
#pragma once

#include <QString>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

// The options --emulator ADDR:PORT and --ca-file FILE.
struct EmulatorOptions {
  QString address;  // empty: the real service
  QString ca_file;

  // Takes argv[*i] and its value (moving *i past it) when it is one of the two options with a
  // value after it; false, leaving *i alone, otherwise.
  bool Take(int argc, char** argv, int* i) {
    if (*i + 1 >= argc) return false;
    QString* value = std::strcmp(argv[*i], "--emulator") == 0  ? &address
                     : std::strcmp(argv[*i], "--ca-file") == 0 ? &ca_file
                                                               : nullptr;
    if (value == nullptr) return false;
    *value = QString::fromLocal8Bit(argv[++*i]);
    return true;
  }

  // Sends the requests to the emulator when --emulator was given. False, after saying so on the
  // standard error under the name `program`, when it cannot be used.
  bool Apply(const char* program) const {
    if (address.isEmpty() || UseEmulator(address, ca_file)) return true;
    std::fprintf(stderr, "%s: cannot use the emulator at %s (with CA file \"%s\")\n", program,
                 qPrintable(address), qPrintable(ca_file));
    return false;
  }
};

// The bearer token from the environment variable QUIRE_TOKEN (a real host obtains it with its own
// OAuth 2.0 flow). Empty, after saying so on the standard error under the name `program`, when it
// is not set.
inline QString TokenFromEnvironment(const char* program) {
  const char* token = std::getenv("QUIRE_TOKEN");
  if (token == nullptr || *token == '\0') {
    std::fprintf(stderr, "%s: set QUIRE_TOKEN to a bearer token\n", program);
    return QString();
  }
  return QString::fromUtf8(token);
}

}  // namespace quire_examples
