#include "bench/suite/bench_service.h"

#include <QString>

#include "quire/services/endpoints.h"

namespace quire_bench {

kestrel::net::CurlTransportConfig EmulatorTransportConfig(const std::string& address, int port,
                                                          const std::string& ca) {
  kestrel::net::CurlTransportConfig config;
  for (const char* host : {"docs.quire.example", "api.quire.example"}) {
    config.host_mappings.push_back(
        {QString::fromLatin1(host), QString::fromStdString(address), port});
  }
  if (!ca.empty()) config.extra_ca_certificate_files.push_back(QString::fromStdString(ca));
  return config;
}

kestrel::quire::Connection* NewAuthorizedConnection(const std::string& token) {
  auto* connection = new kestrel::quire::Connection();
  connection->Init(
      {QStringLiteral("Quire-Version: %1").arg(QLatin1String(kestrel::quire::kProtocolVersion)),
       QStringLiteral("Authorization: Bearer %1").arg(QString::fromStdString(token))});
  return connection;
}

}  // namespace quire_bench
