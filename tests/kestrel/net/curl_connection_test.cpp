// Connections: keep-alive reuse, a server closing an idle connection, many requests in a row and at
// once (each completed exactly once), and the host's name mappings.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/connection_manager.h"
#include "kestrel/net/curl_transport_config.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/server_info.h"
#include "kestrel/net/transport_registry.h"
#include "tests/kestrel/net/curl_test_support.h"

namespace quire_test::curl {
namespace {

class CurlConnectionTest : public CurlTest {};

TEST_F(CurlConnectionTest, SequentialRequestsShareOneConnection) {
  auto connection = MakeConnection();
  for (int i = 0; i < 20; ++i) {
    Outcome outcome;
    Issue(connection.get(), kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/status/200")),
          &outcome);
    RunUntil([&] { return outcome.calls > 0; });
    EXPECT_EQ(outcome.status, 0);
  }
  EXPECT_EQ(server_->requests(), 20);
  EXPECT_EQ(server_->client_ports().size(), 1u) << "each request opened a connection of its own";
}

TEST_F(CurlConnectionTest, WithoutKeepAliveEveryRequestHasItsConnection) {
  ConnectionManager manager(4, 2, false, 60.0, 60);
  for (int i = 0; i < 3; ++i) {
    RecordingCallback recorder;
    const QString url = DocsUrl(QStringLiteral("/status/200"));
    ManagerGet(&manager, url, &recorder);
    EXPECT_EQ(recorder.code, kestrel::net::status::FromHttp(200));
  }
  EXPECT_EQ(server_->client_ports().size(), 3u);
  const auto headers = server_->last_headers();
  const auto connection = headers.find("connection");
  ASSERT_NE(connection, headers.end());
  EXPECT_EQ(connection->second, "close");
}

TEST_F(CurlConnectionTest, IdleConnectionClosedByTheServerDoesNotFailTheNextRequest) {
  // The server answers on a keep-alive connection and then drops it while it is idle, as servers
  // do after a few idle seconds.
  const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
  const auto raw =
      ServeDocsFrom({{ok, Reply::kClose}, {ok, Reply::kClose}, {ok, Reply::kKeepOpen}});
  ASSERT_NE(raw, nullptr);

  auto connection = MakeConnection();
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    Outcome outcome;
    Issue(connection.get(), kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/x")), &outcome);
    RunUntil([&] { return outcome.calls > 0; });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.body, QByteArray("ok"));
    if (i < 2) {
      ASSERT_TRUE(raw->WaitForClosedConnections(i + 1, 5.0));
    }
  }
  EXPECT_EQ(raw->connections(), 3);
  EXPECT_EQ(raw->requests().size(), 3u);
}

TEST_F(CurlConnectionTest, ThousandSequentialRequestsCompleteOnceEach) {
  constexpr int kCount = 1000;
  auto connection = MakeConnection();
  std::vector<int> calls(kCount + 1, 0);
  int failures = 0;
  int done = 0;
  // Each request is issued from the completion of the one before, as chained operations do.
  std::function<void()> next = [&] {
    kestrel::quire::ConnectionParams params{kestrel::quire::kMethodGet,
                                            DocsUrl(QStringLiteral("/status/200")),
                                            nullptr,
                                            nullptr,
                                            false,
                                            0};
    connection->Request(params, [&](kestrel::quire::NetworkResponseInfo info, QByteArray) {
      if (info.request_id < calls.size()) ++calls[info.request_id];
      if (info.status != 0) ++failures;
      if (++done < kCount) next();
    });
  };
  next();
  RunUntil([&] { return done == kCount; }, 60.0);
  kestrel::MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(done, kCount);
  EXPECT_EQ(failures, 0);
  for (int id = 1; id <= kCount; ++id) EXPECT_EQ(calls[id], 1) << "request " << id;
  EXPECT_EQ(server_->requests(), kCount);
  EXPECT_EQ(server_->client_ports().size(), 1u);
}

TEST_F(CurlConnectionTest, SixtyFourConcurrentRequestsCompleteOnceEach) {
  constexpr int kCount = 64;
  auto connection = MakeConnection();
  std::vector<Outcome> outcomes(kCount);
  std::vector<unsigned int> ids;
  for (int i = 0; i < kCount; ++i) {
    ids.push_back(Issue(connection.get(), kestrel::quire::kMethodGet,
                        DocsUrl(QStringLiteral("/bytes/%1").arg(1000 + i)), &outcomes[i]));
  }
  RunUntil([&] {
    return std::all_of(outcomes.begin(), outcomes.end(),
                       [](const Outcome& o) { return o.calls > 0; });
  });
  kestrel::MainLoop::Default()->RunUntilIdle();
  for (int i = 0; i < kCount; ++i) {
    EXPECT_EQ(outcomes[i].calls, 1);
    EXPECT_EQ(outcomes[i].status, 0);
    EXPECT_EQ(outcomes[i].request_id, ids[i]);
    EXPECT_EQ(outcomes[i].body.size(), 1000 + i) << "answers went to the wrong callbacks";
  }
  EXPECT_EQ(server_->requests(), kCount);
  EXPECT_LE(server_->client_ports().size(), 4u) << "more than 4 connections to one host";
}

TEST_F(CurlConnectionTest, BothServiceEndpointsReachTheMappedServer) {
  EXPECT_EQ(
      Fetch(kestrel::quire::kMethodGet, QStringLiteral("https://docs.quire.example/status/200"))
          .status,
      0);
  EXPECT_EQ(server_->last_headers().find("host")->second, "docs.quire.example");
  EXPECT_EQ(
      Fetch(kestrel::quire::kMethodGet, QStringLiteral("https://api.quire.example/status/201"))
          .status,
      0);
  EXPECT_EQ(server_->last_headers().find("host")->second, "api.quire.example");
  EXPECT_EQ(server_->requests(), 2);
}

TEST_F(CurlConnectionTest, ConfigurationIsCheckedBeforeItIsTaken) {
  kestrel::net::CurlTransportConfig missing_file = TestConfig();
  missing_file.extra_ca_certificate_files.push_back(QStringLiteral("/nonexistent/ca.pem"));
  EXPECT_FALSE(transport_->Configure(missing_file));
  kestrel::net::CurlTransportConfig not_pem = TestConfig();
  not_pem.extra_ca_certificate_files = {QString::fromStdString(server_certificate().key_file)};
  EXPECT_FALSE(transport_->Configure(not_pem));
  kestrel::net::CurlTransportConfig bad_port = TestConfig();
  bad_port.host_mappings.push_back({QStringLiteral("x.example"), QStringLiteral("127.0.0.1"), 0});
  EXPECT_FALSE(transport_->Configure(bad_port));
  // The configuration in place is still the fixture's.
  EXPECT_EQ(Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/status/200"))).status, 0);
}

// Outside the fixture: the process-wide transport lives on, so its memory is not given back.
TEST(CurlBuiltInTest, BuiltInTransportIsTheCurlTransport) {
  kestrel::net::TransportRegistry::SetDefault(nullptr);
  EXPECT_EQ(kestrel::net::TransportRegistry::BuiltIn(), kestrel::net::CurlTransport::Default());
  EXPECT_EQ(kestrel::net::TransportRegistry::Default(), kestrel::net::CurlTransport::Default());
}

}  // namespace
}  // namespace quire_test::curl
