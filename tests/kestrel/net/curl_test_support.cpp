#include "tests/kestrel/net/curl_test_support.h"

#include <chrono>
#include <csignal>

#include "kestrel/base/main_loop.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/transport_registry.h"

namespace quire_test::curl {

TestCertificates* CurlTest::certificates_ = nullptr;
TestCertificates::Server CurlTest::server_certificate_;

void Outcome::Record(const kestrel::quire::NetworkResponseInfo& info, const QByteArray& bytes) {
  ++calls;
  request_id = info.request_id;
  status = info.status;
  body = QByteArray(bytes.constData(), bytes.size());
  had_headers = info.headers != nullptr;
  headers = info.headers != nullptr ? *info.headers : std::vector<QString>();
}

void RecordingCallback::OnRequestComplete(kestrel::net::NetworkRequest* request) {
  ++calls;
  const kestrel::net::HttpRequest* http = request->GetHttpRequest();
  code = http->GetResponseStatus();
  const kestrel::net::ByteBuffer* buffer = http->GetResponseBuffer();
  had_buffer = buffer != nullptr;
  if (buffer != nullptr) {
    body = QByteArray(buffer->data(), static_cast<int>(buffer->size()));
    buffer_capacity = buffer->capacity();
  }
  for (int i = 0; i < http->GetResponseHeaderCount(); ++i) {
    headers.push_back(*http->GetResponseHeader(i));
  }
}

void CurlTest::SetUpTestSuite() {
  // The servers write to sockets that clients may have closed.
  std::signal(SIGPIPE, SIG_IGN);
  certificates_ = new TestCertificates();
  server_certificate_ = certificates_->MakeLocal();
}

void CurlTest::TearDownTestSuite() {
  delete certificates_;
  certificates_ = nullptr;
  server_certificate_ = TestCertificates::Server();
}

void CurlTest::SetUp() {
  ASSERT_TRUE(certificates_->ok() && !server_certificate_.certificate_file.empty())
      << "could not make the test certificates";
  kestrel::MainLoop::Default()->RunUntilIdle();
  live_at_start_ = kestrel::MemoryManager::Default()->live_allocations();
  server_ = std::make_unique<CurlTestServer>(server_certificate_.certificate_file,
                                             server_certificate_.key_file);
  ASSERT_TRUE(server_->ok()) << "the fixture server did not start";
  transport_ = new kestrel::net::CurlTransport();
  ASSERT_TRUE(transport_->Configure(TestConfig()));
  kestrel::net::TransportRegistry::SetDefault(transport_);
}

void CurlTest::TearDown() {
  kestrel::net::TransportRegistry::SetDefault(nullptr);
  if (transport_ != nullptr) {
    // The count drops on the I/O thread, which does not wake the main loop: poll it.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (transport_->in_flight() > 0 && std::chrono::steady_clock::now() < deadline) {
      kestrel::MainLoop::Default()->RunUntil([this] { return transport_->in_flight() == 0; }, 0.01);
    }
    EXPECT_EQ(transport_->in_flight(), 0u) << "requests still in flight at the end of the test";
    delete transport_;
    transport_ = nullptr;
  }
  kestrel::MainLoop::Default()->RunUntilIdle();
  server_.reset();
  EXPECT_EQ(kestrel::MemoryManager::Default()->live_allocations(), live_at_start_)
      << "the memory manager's live allocations did not come back to where they started";
}

kestrel::net::CurlTransportConfig CurlTest::TestConfig() const {
  kestrel::net::CurlTransportConfig config;
  config.extra_ca_certificate_files.push_back(
      QString::fromStdString(certificates_->authority_file()));
  for (const char* host : {"docs.quire.example", "api.quire.example"}) {
    config.host_mappings.push_back({QString::fromLatin1(host), QStringLiteral("127.0.0.1"),
                                    server_ != nullptr ? server_->port() : 1});
  }
  return config;
}

std::unique_ptr<kestrel::quire::Connection> CurlTest::MakeConnection() const {
  auto connection = std::make_unique<kestrel::quire::Connection>();
  connection->Init({QStringLiteral("Quire-Version: 3.0")});
  return connection;
}

unsigned int CurlTest::Issue(kestrel::quire::Connection* connection, std::uint32_t method,
                             const QString& url, Outcome* outcome, const QByteArray* body,
                             const std::vector<QString>* headers, bool collect_headers) {
  kestrel::quire::ConnectionParams params{method, url, body, headers, collect_headers, 0};
  const int calls_before = outcome->calls;
  const unsigned int id =
      connection->Request(params, [outcome](kestrel::quire::NetworkResponseInfo info,
                                            QByteArray bytes) { outcome->Record(info, bytes); });
  EXPECT_EQ(outcome->calls, calls_before) << "completed inside Request";
  return id;
}

void CurlTest::ManagerGet(ConnectionManager* manager, const QString& url,
                          RecordingCallback* recorder) {
  NetworkRequest::Info info(HttpRequest::kGet, QByteArray(), url, {}, true, recorder, nullptr,
                            NetworkRequest::Info::kStandard);
  ServerInfo server(url);
  manager->StartRequest(server, info);
  EXPECT_EQ(recorder->calls, 0) << "completed inside StartRequest";
  RunUntil([&] { return recorder->calls > 0; });
}

Outcome CurlTest::Fetch(std::uint32_t method, const QString& url, const QByteArray* body,
                        const std::vector<QString>* headers, double timeout_seconds) {
  auto connection = MakeConnection();
  // Shared with the callback, so that an answer arriving after a failed wait has somewhere to go.
  auto outcome = std::make_shared<Outcome>();
  kestrel::quire::ConnectionParams params{method, url, body, headers, true, 0};
  const unsigned int id =
      connection->Request(params, [outcome](kestrel::quire::NetworkResponseInfo info,
                                            QByteArray bytes) { outcome->Record(info, bytes); });
  EXPECT_EQ(outcome->calls, 0) << "completed inside Request";
  RunUntil([&] { return outcome->calls > 0; }, timeout_seconds);
  kestrel::MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(outcome->calls, 1);
  EXPECT_EQ(outcome->request_id, id);
  return *outcome;
}

void CurlTest::RunUntil(const std::function<bool()>& done, double timeout_seconds) {
  ASSERT_TRUE(kestrel::MainLoop::Default()->RunUntil(done, timeout_seconds))
      << "timed out waiting on the main loop";
}

void CurlTest::MapDocsTo(int port) {
  kestrel::net::CurlTransportConfig config = TestConfig();
  for (auto& mapping : config.host_mappings) mapping.port = port;
  ASSERT_TRUE(transport_->Configure(config));
}

std::unique_ptr<RawServer> CurlTest::ServeDocsFrom(std::vector<Reply> replies) {
  auto raw = std::make_unique<RawServer>(server_certificate_.certificate_file,
                                         server_certificate_.key_file, std::move(replies));
  EXPECT_TRUE(raw->ok()) << "the raw server did not start";
  if (!raw->ok()) return nullptr;
  MapDocsTo(raw->port());
  return raw;
}

QString CurlTest::DocsUrl(const QString& path) const {
  return QStringLiteral("https://docs.quire.example") + path;
}

QString CurlTest::LocalUrl(const QString& scheme, int port, const QString& path) const {
  return QStringLiteral("%1://127.0.0.1:%2%3").arg(scheme).arg(port).arg(path);
}

}  // namespace quire_test::curl
