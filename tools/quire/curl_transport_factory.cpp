#include "tools/quire/curl_transport_factory.h"

#include <QUrl>

#include "kestrel/net/curl_transport.h"
#include "quire/services/endpoints.h"
#include "tools/quire/cli_failure.h"
#include "tools/quire/command_line.h"

namespace quire_cli {

kestrel::net::CurlTransportConfig CurlTransportFactory::Config(const ClientOptions& options) {
  kestrel::net::CurlTransportConfig config;
  if (!options.cacert.isEmpty()) config.extra_ca_certificate_files.push_back(options.cacert);
  config.insecure_skip_tls_verification = options.insecure;
  config.proxy.https_proxy = options.proxy.https_proxy;
  config.proxy.http_proxy = options.proxy.http_proxy;
  for (const QString& host : options.proxy.no_proxy.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
    config.proxy.no_proxy.push_back(host.trimmed());
  }
  if (!options.server.isEmpty()) {
    CommandLine::CheckServer(options.server);
    const QUrl server(options.server);
    // The library's endpoints are fixed; their hosts are sent to the given address, and the
    // requests themselves (Host line, certificate name check) still name the service's hosts.
    for (const char* endpoint : {kestrel::quire::UserInfoUrl, kestrel::quire::DocsFeedUrl}) {
      kestrel::net::CurlTransportConfig::HostMapping mapping;
      mapping.host = QUrl(QString::fromLatin1(endpoint)).host();
      mapping.address = server.host();
      mapping.port = server.port(443);
      config.host_mappings.push_back(mapping);
    }
  }
  return config;
}

std::shared_ptr<kestrel::net::ITransport> CurlTransportFactory::Make(const ClientOptions& options) {
  const kestrel::net::CurlTransportConfig config = Config(options);
  std::shared_ptr<kestrel::net::CurlTransport> transport(new kestrel::net::CurlTransport());
  if (!transport->Configure(config)) {
    throw CliFailure(ExitCode::kUsage, "the certificate file " + options.cacert.toStdString() +
                                           " given with --cacert holds no readable certificate; "
                                           "give a PEM file");
  }
  return transport;
}

}  // namespace quire_cli
