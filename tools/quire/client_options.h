// The global options of the command: where the service is and how to trust it.
#pragma once

#include <QString>

#include "tools/quire/proxy_environment.h"

namespace quire_cli {

struct ClientOptions {
  // The address that the library's fixed hosts are mapped to ("https://127.0.0.1:8443"); empty to
  // reach the real hosts.
  QString server;
  // A PEM file of certificates to trust besides the system's.
  QString cacert;
  // Skip the certificate check (tests only).
  bool insecure = false;
  // Seconds that a connection attempt, or a transfer in which no byte moves, may take.
  double timeout_seconds = 60;
  // How many times a request that failed for a passing reason (no answer, or HTTP 408, 429, 500,
  // 502, 503, 504) is sent again, with growing waits in between; 0 turns retrying off.
  int retries = 5;
  // Where the token is read from instead of QUIRE_TOKEN.
  QString token_file;
  // The proxy: --proxy, else the environment's proxy variables.
  ProxyEnvironment proxy;
  // 0 quiet; 1 one line per request on the error stream (-v); 2 also the header lines (-vv).
  int verbosity = 0;
};

}  // namespace quire_cli
