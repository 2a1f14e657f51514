#include "tests/hardening/library_client.h"

#include <chrono>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/transport_registry.h"
#include "quire/services/endpoints.h"

namespace quire_test::hardening {

kestrel::net::CurlTransportConfig LibraryClient::Config(const Options& options) {
  kestrel::net::CurlTransportConfig config;
  for (const std::string& file : options.trusted_files) {
    config.extra_ca_certificate_files.push_back(QString::fromStdString(file));
  }
  for (const char* host : {"docs.quire.example", "api.quire.example"}) {
    config.host_mappings.push_back(
        {QString::fromLatin1(host), QStringLiteral("127.0.0.1"), options.port});
  }
  config.insecure_skip_tls_verification = options.insecure;
  return config;
}

LibraryClient::LibraryClient(const Options& options)
    : transport_(new kestrel::net::CurlTransport()) {
  configured_ = transport_->Configure(Config(options));
  // Connection managers take the registry's transport when they are made (a connection makes its
  // manager in Init): the services and the upload connection made here keep this client's
  // transport for their whole life.
  std::vector<QString> lines = {
      QStringLiteral("Quire-Version: %1").arg(QLatin1String(kestrel::quire::kProtocolVersion))};
  if (!options.token.isEmpty()) {
    lines.push_back(QStringLiteral("Authorization: Bearer ") + options.token);
  }
  kestrel::net::TransportRegistry::SetDefault(transport_);
  // With a policy, each connection is wrapped in a retrying one (which the service then owns).
  auto make = [&]() -> kestrel::quire::IConnection* {
    if (options.retry_policy == nullptr) return nullptr;
    auto* retrying = new kestrel::quire::RetryingConnection(new kestrel::quire::Connection(),
                                                            *options.retry_policy);
    retrying_.push_back(retrying);
    return retrying;
  };
  docs_ = new kestrel::quire::DocsService(make());
  user_info_ = new kestrel::quire::UserInfoService(make());
  upload_connection_ = make();
  if (upload_connection_ == nullptr) upload_connection_ = new kestrel::quire::Connection();
  upload_connection_->Init(lines);
  kestrel::net::TransportRegistry::SetDefault(nullptr);

  docs_->SetOAuth2AuthToken(options.token);
  user_info_->SetOAuth2AuthToken(options.token);
  uploads_ = new kestrel::quire::ConnectionUtils(options.chunk_size, upload_connection_);
}

bool LibraryClient::WaitForIdle(double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  kestrel::MainLoop* loop = kestrel::MainLoop::Default();
  while (transport_->in_flight() > 0 && std::chrono::steady_clock::now() < deadline) {
    loop->RunUntil([this] { return transport_->in_flight() == 0; }, 0.01);
  }
  loop->RunUntilIdle();
  return transport_->in_flight() == 0;
}

std::uint64_t LibraryClient::retries() const {
  std::uint64_t total = 0;
  for (const kestrel::quire::RetryingConnection* retrying : retrying_) total += retrying->retries();
  return total;
}

LibraryClient::~LibraryClient() {
  delete uploads_;
  delete upload_connection_;
  delete user_info_;
  delete docs_;
  delete transport_;
}

}  // namespace quire_test::hardening
