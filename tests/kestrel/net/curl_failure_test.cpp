// Failures without a complete HTTP answer: each ends in exactly one completion with a network-layer
// error code, which Connection reports as status 2, keeping whatever had arrived.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/connection_manager.h"
#include "kestrel/net/curl_transport_config.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/server_info.h"
#include "kestrel/net/transport_registry.h"
#include "tests/kestrel/net/curl_test_support.h"
#include "tests/support/data_pattern.h"

namespace quire_test::curl {
namespace {

// A TCP socket on 127.0.0.1 that is bound (and, when `listen` is set, listening) but never accepts.
class Socket {
 public:
  explicit Socket(bool listen) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
        (!listen || ::listen(fd_, 4) == 0) &&
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
      port_ = ntohs(address.sin_port);
    }
  }
  ~Socket() {
    if (fd_ >= 0) ::close(fd_);
  }
  int port() const { return port_; }

 private:
  int fd_ = -1;
  int port_ = -1;
};

// A plain-TCP peer on 127.0.0.1 that answers whatever a connection sends first with an HTTP error
// line and closes it: a TLS client's handshake breaks before any certificate is seen.
class PlainPeer {
 public:
  PlainPeer() {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(fd_, 4) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      return;
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] {
      // Ends when the destructor shuts the listener down.
      for (int client; (client = ::accept(fd_, nullptr, nullptr)) >= 0;) {
        char hello[4096];
        if (::recv(client, hello, sizeof(hello), 0) > 0) {
          static const char kAnswer[] = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";
          (void)::send(client, kAnswer, sizeof(kAnswer) - 1, MSG_NOSIGNAL);
        }
        ::close(client);
      }
    });
  }
  ~PlainPeer() {
    if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) ::close(fd_);
  }
  PlainPeer(const PlainPeer&) = delete;
  PlainPeer& operator=(const PlainPeer&) = delete;
  int port() const { return port_; }

 private:
  int fd_ = -1;
  int port_ = -1;
  std::thread thread_;
};

class CurlFailureTest : public CurlTest {
 protected:
  // Issues a GET through a manager with a one-second stall time-out and returns its recorder.
  RecordingCallback ManagerFetch(const QString& url, double stall_seconds = 1.0) {
    ConnectionManager manager(4, 2, true, stall_seconds, 60);
    RecordingCallback recorder;
    ManagerGet(&manager, url, &recorder);
    kestrel::MainLoop::Default()->RunUntilIdle();
    EXPECT_EQ(recorder.calls, 1);
    return recorder;
  }
};

TEST_F(CurlFailureTest, ConnectionRefused) {
  Socket closed(false);
  ASSERT_GT(closed.port(), 0);
  MapDocsTo(closed.port());
  const Outcome outcome = Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/x")));
  EXPECT_EQ(outcome.status, 2);
  EXPECT_TRUE(outcome.body.isEmpty());
  EXPECT_TRUE(outcome.headers.empty());
  EXPECT_EQ(ManagerFetch(DocsUrl(QStringLiteral("/x"))).code, status::kErrorConnectionRefused);
}

TEST_F(CurlFailureTest, UntrustedCertificate) {
  kestrel::net::CurlTransportConfig config = TestConfig();
  config.extra_ca_certificate_files.clear();
  ASSERT_TRUE(transport_->Configure(config));
  const Outcome outcome = Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/status/200")));
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(ManagerFetch(DocsUrl(QStringLiteral("/status/200"))).code, status::kErrorCertificate);
  EXPECT_EQ(server_->requests(), 0);
}

TEST_F(CurlFailureTest, UntrustedCertificateIsAcceptedOnlyWhenVerificationIsTurnedOff) {
  kestrel::net::CurlTransportConfig config = TestConfig();
  config.extra_ca_certificate_files.clear();
  config.insecure_skip_tls_verification = true;
  ASSERT_TRUE(transport_->Configure(config));
  EXPECT_EQ(Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/status/200"))).status, 0);
}

TEST_F(CurlFailureTest, WrongHostName) {
  kestrel::net::CurlTransportConfig config = TestConfig();
  config.host_mappings.push_back(
      {QStringLiteral("elsewhere.quire.example"), QStringLiteral("127.0.0.1"), server_->port()});
  ASSERT_TRUE(transport_->Configure(config));
  const QString url = QStringLiteral("https://elsewhere.quire.example/status/200");
  EXPECT_EQ(Fetch(kestrel::quire::kMethodGet, url).status, 2);
  EXPECT_EQ(ManagerFetch(url).code, status::kErrorCertificate);
  EXPECT_EQ(server_->requests(), 0);
}

TEST_F(CurlFailureTest, ABrokenHandshakeIsATlsFailureNotARefusedCertificate) {
  PlainPeer peer;
  ASSERT_GT(peer.port(), 0);
  MapDocsTo(peer.port());
  EXPECT_EQ(Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/x"))).status, 2);
  EXPECT_EQ(ManagerFetch(DocsUrl(QStringLiteral("/x"))).code, status::kErrorTls)
      << "no certificate was refused: another attempt may succeed";
}

TEST_F(CurlFailureTest, NoAnswerTimesOut) {
  const auto raw = ServeDocsFrom({{"", Reply::kHang}});
  ASSERT_NE(raw, nullptr);
  const auto started = std::chrono::steady_clock::now();
  const RecordingCallback recorder = ManagerFetch(DocsUrl(QStringLiteral("/slow")), 1.0);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  EXPECT_EQ(recorder.code, status::kErrorTimedOut);
  EXPECT_GE(seconds, 0.9);
  EXPECT_EQ(raw->requests().size(), 1u);
}

TEST_F(CurlFailureTest, ConnectingTimesOut) {
  // The kernel completes the TCP handshake for the backlog, but no TLS answer ever comes.
  Socket silent(true);
  ASSERT_GT(silent.port(), 0);
  MapDocsTo(silent.port());
  EXPECT_EQ(ManagerFetch(DocsUrl(QStringLiteral("/x")), 1.0).code, status::kErrorTimedOut);
}

TEST_F(CurlFailureTest, ServerClosingMidBody) {
  const Outcome outcome = Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/truncated")));
  EXPECT_EQ(outcome.status, 2);
  const RecordingCallback recorder = ManagerFetch(DocsUrl(QStringLiteral("/truncated")));
  EXPECT_EQ(recorder.code, status::kErrorResponseTruncated);
  EXPECT_GT(recorder.body.size(), 0) << "what arrived is kept";
  EXPECT_LT(recorder.body.size(), 1024 * 1024);
  EXPECT_EQ(FindPatternMismatch(recorder.body.constData(), 0,
                                static_cast<std::size_t>(recorder.body.size())),
            static_cast<std::size_t>(recorder.body.size()));
}

TEST_F(CurlFailureTest, RawServerClosingMidBodyKeepsHeadersAndBytes) {
  const auto raw =
      ServeDocsFrom({{"HTTP/1.1 200 OK\r\nX-Part: 1\r\nContent-Length: 100000\r\n\r\nfirst bytes",
                      Reply::kClose}});
  ASSERT_NE(raw, nullptr);
  const Outcome outcome = Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/x")));
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.body, QByteArray("first bytes"));
  EXPECT_EQ(outcome.headers, (std::vector<QString>{QStringLiteral("X-Part: 1"),
                                                   QStringLiteral("Content-Length: 100000")}));
}

TEST_F(CurlFailureTest, UrlsThatDoNotParseOrUseOtherSchemesAreNotSent) {
  const QString port = QString::number(server_->port());
  const std::vector<QString> urls = {
      QStringLiteral("ftp://127.0.0.1:") + port + QStringLiteral("/x"),
      QStringLiteral("file:///etc/passwd"),
      QStringLiteral("https://docs.quire.example/a b"),
      QStringLiteral("https://docs.quire.example/a\r\nX-Injected: 1"),
      QStringLiteral("not a url"),
      QString(),
      QStringLiteral("https://"),
  };
  auto connection = MakeConnection();
  for (const QString& url : urls) {
    SCOPED_TRACE(url.toStdString());
    Outcome outcome;
    Issue(connection.get(), kestrel::quire::kMethodGet, url, &outcome);
    RunUntil([&] { return outcome.calls > 0; });
    kestrel::MainLoop::Default()->RunUntilIdle();
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(ManagerFetch(url).code, status::kErrorInvalidRequest);
  }
  EXPECT_EQ(server_->requests(), 0);
}

TEST_F(CurlFailureTest, DestroyingTheTransportFailsEveryRequestInFlightOnce) {
  const auto raw = ServeDocsFrom({{"", Reply::kHang}});
  ASSERT_NE(raw, nullptr);
  auto connection = MakeConnection();
  std::vector<Outcome> outcomes(64);
  for (Outcome& outcome : outcomes) {
    Issue(connection.get(), kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/x")), &outcome);
  }
  kestrel::net::TransportRegistry::SetDefault(nullptr);
  delete transport_;
  transport_ = nullptr;
  for (const Outcome& outcome : outcomes) EXPECT_EQ(outcome.calls, 0);
  RunUntil([&] {
    return std::all_of(outcomes.begin(), outcomes.end(),
                       [](const Outcome& o) { return o.calls > 0; });
  });
  kestrel::MainLoop::Default()->RunUntilIdle();
  for (const Outcome& outcome : outcomes) {
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.status, 2);
  }
}

}  // namespace
}  // namespace quire_test::curl
