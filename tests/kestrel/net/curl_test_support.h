// The fixture of the HTTPS transport's tests: test certificates, a fixture server on 127.0.0.1, a
// fresh CurlTransport installed as the network layer's transport for the test (trusting the test
// authority and sending docs.quire.example and api.quire.example to the fixture server), and at the
// end a check that the memory manager's live allocations came back to where they started.
#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "kestrel/net/connection_manager.h"
#include "kestrel/net/curl_transport.h"
#include "kestrel/net/http_request.h"
#include "kestrel/net/network_request.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/server_info.h"
#include "quire/connection/connection.h"
#include "tests/kestrel/net/curl_test_server.h"
#include "tests/support/raw_server.h"
#include "tests/support/test_certificates.h"

namespace quire_test::curl {

// The network layer's names that the transport's tests use throughout.
using kestrel::net::ConnectionManager;
using kestrel::net::HttpRequest;
using kestrel::net::NetworkRequest;
using kestrel::net::ServerInfo;
namespace status = kestrel::net::status;
using Reply = RawServer::Reply;

// What a Connection callback received.
struct Outcome {
  int calls = 0;
  unsigned int request_id = 0;
  int status = -1;
  QByteArray body;  // a deep copy
  std::vector<QString> headers;
  bool had_headers = false;

  // Counts one call and keeps what it received.
  void Record(const kestrel::quire::NetworkResponseInfo& info, const QByteArray& bytes);
};

// Records the completion of a request issued straight through a ConnectionManager.
class RecordingCallback : public kestrel::net::NetworkRequest::Callback {
 public:
  void OnRequestComplete(kestrel::net::NetworkRequest* request) override;

  int calls = 0;
  std::uint32_t code = 0;
  QByteArray body;
  bool had_buffer = false;
  std::size_t buffer_capacity = 0;
  std::vector<QString> headers;
};

class CurlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;
  void TearDown() override;

  // The test authority, and the fixture server's certificate signed by it for localhost,
  // docs.quire.example, api.quire.example and 127.0.0.1.
  static const TestCertificates& certificates() { return *certificates_; }
  static const TestCertificates::Server& server_certificate() { return server_certificate_; }
  // The configuration the fixture's transport starts with.
  kestrel::net::CurlTransportConfig TestConfig() const;
  // Points the fixture's host mappings at a server of the test's own on 127.0.0.1:`port` (and
  // fails the test when the transport refuses the configuration).
  void MapDocsTo(int port);
  // A RawServer with the fixture server's certificate that answers with `replies`, with the host
  // mappings pointed at it; null (and the test failed) when it did not start.
  std::unique_ptr<RawServer> ServeDocsFrom(std::vector<Reply> replies);

  // A Connection made as the services make theirs (Init with the version line), over the
  // fixture's transport.
  std::unique_ptr<kestrel::quire::Connection> MakeConnection() const;

  // Issues a request through `connection` and records its outcome into `*outcome`; checks that the
  // callback did not run inside Request.
  unsigned int Issue(kestrel::quire::Connection* connection, std::uint32_t method,
                     const QString& url, Outcome* outcome, const QByteArray* body = nullptr,
                     const std::vector<QString>* headers = nullptr, bool collect_headers = true);
  // Issues one request and runs the main loop until it completed.
  Outcome Fetch(std::uint32_t method, const QString& url, const QByteArray* body = nullptr,
                const std::vector<QString>* headers = nullptr, double timeout_seconds = 20.0);

  // Issues a GET of `url` straight through `manager` (the standard header lines, response headers
  // kept) with `recorder` as its callback; checks that it did not complete inside StartRequest and
  // runs the main loop until it completed.
  void ManagerGet(ConnectionManager* manager, const QString& url, RecordingCallback* recorder);

  // Runs the main loop until `done` holds; fails the test on time-out.
  void RunUntil(const std::function<bool()>& done, double timeout_seconds = 20.0);

  // https://docs.quire.example<path>, which the fixture's mapping sends to the fixture server.
  QString DocsUrl(const QString& path) const;
  QString LocalUrl(const QString& scheme, int port, const QString& path) const;

  kestrel::net::CurlTransport* transport_ = nullptr;
  std::unique_ptr<CurlTestServer> server_;

 private:
  static TestCertificates* certificates_;
  static TestCertificates::Server server_certificate_;
  long live_at_start_ = 0;
};

}  // namespace quire_test::curl
