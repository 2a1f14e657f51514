// Header lines in both directions: what the server wrote reaches the caller in order and spelling;
// what the caller gives goes out as whole lines, with the network layer's own lines as asked for;
// a line that could split the request is refused before anything is sent.
#include <gtest/gtest.h>

#include <QStringList>
#include <algorithm>
#include <string>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/connection_manager.h"
#include "kestrel/net/curl_transport_config.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/server_info.h"
#include "tests/kestrel/net/curl_test_support.h"

namespace quire_test::curl {
namespace {

using kestrel::net::RequestHeaderList;

class CurlHeadersTest : public CurlTest {
 protected:
  // A raw TLS server with `replies`, reachable as https://docs.quire.example.
  std::unique_ptr<RawServer> StartRaw(std::vector<Reply> replies) {
    auto raw = std::make_unique<RawServer>(server_certificate().certificate_file,
                                           server_certificate().key_file, std::move(replies));
    EXPECT_TRUE(raw->ok());
    MapDocsTo(raw->port());
    return raw;
  }
};

// The lines of a request head after the request line.
std::vector<std::string> RequestLines(const std::string& head) {
  std::vector<std::string> lines;
  std::size_t start = head.find("\r\n");
  while (start != std::string::npos && start + 2 < head.size()) {
    const std::size_t end = head.find("\r\n", start + 2);
    lines.push_back(head.substr(start + 2, end - start - 2));
    start = end;
  }
  return lines;
}

TEST_F(CurlHeadersTest, ResponseLinesArriveInOrderAsWrittenWithDuplicates) {
  auto raw =
      StartRaw({{"HTTP/1.1 200 OK\r\n"
                 "X-B: 1\r\n"
                 "location: /lower\r\n"
                 "Location: /upper\r\n"
                 "X-B: 2\r\n"
                 "Set-Cookie: a=1\r\n"
                 "Set-Cookie: b=2\r\n"
                 "x-MiXeD:   padded value  \r\n"
                 "X-Tight:tight\r\n"
                 "X-Folded: first\r\n"
                 "  second\r\n"
                 "Content-Length: 2\r\n"
                 "\r\n"
                 "ok",
                 Reply::kKeepOpen}});
  const Outcome outcome =
      Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/feeds/default/private/full")));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.body, QByteArray("ok"));
  const std::vector<QString> expected = {
      QStringLiteral("X-B: 1"),
      QStringLiteral("location: /lower"),
      QStringLiteral("Location: /upper"),
      QStringLiteral("X-B: 2"),
      QStringLiteral("Set-Cookie: a=1"),
      QStringLiteral("Set-Cookie: b=2"),
      QStringLiteral("x-MiXeD: padded value"),
      QStringLiteral("X-Tight: tight"),
      QStringLiteral("X-Folded: first second"),
      QStringLiteral("Content-Length: 2"),
  };
  EXPECT_EQ(outcome.headers, expected);
}

TEST_F(CurlHeadersTest, InterimResponsesLeaveOnlyTheFinalLines) {
  auto raw =
      StartRaw({{"HTTP/1.1 103 Early Hints\r\n"
                 "Link: </style.css>; rel=preload\r\n"
                 "\r\n"
                 "HTTP/1.1 100 Continue\r\n"
                 "X-Interim: yes\r\n"
                 "\r\n"
                 "HTTP/1.1 201 Created\r\n"
                 "Location: /made\r\n"
                 "Content-Length: 4\r\n"
                 "\r\n"
                 "made",
                 Reply::kKeepOpen}});
  const Outcome outcome = Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/make")));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.body, QByteArray("made"));
  const std::vector<QString> expected = {QStringLiteral("Location: /made"),
                                         QStringLiteral("Content-Length: 4")};
  EXPECT_EQ(outcome.headers, expected);
}

TEST_F(CurlHeadersTest, ConnectionLinesGoOutWholeAndInOrder) {
  auto raw = StartRaw({{"HTTP/1.1 204 No Content\r\n\r\n", Reply::kKeepOpen}});
  const std::vector<QString> lines = {QStringLiteral("Authorization: Bearer token-1"),
                                      QStringLiteral("If-Match: \"etag-7\""),
                                      QStringLiteral("X-Empty:"), QStringLiteral("Slug: a;b:c")};
  const Outcome outcome =
      Fetch(kestrel::quire::kMethodDelete, DocsUrl(QStringLiteral("/entry/1")), nullptr, &lines);
  EXPECT_EQ(outcome.status, 0);
  const std::vector<std::string> heads = raw->requests();
  ASSERT_EQ(heads.size(), 1u);
  EXPECT_EQ(heads[0].substr(0, heads[0].find("\r\n")), "DELETE /entry/1 HTTP/1.1");
  const std::vector<std::string> sent = RequestLines(heads[0]);
  const std::string agent =
      "User-Agent: " + kestrel::net::CurlTransportConfig::DefaultUserAgent().toStdString();
  EXPECT_EQ(agent, "User-Agent: quire/" KESTREL_TEST_PROJECT_VERSION);
  const std::vector<std::string> expected = {"Host: docs.quire.example",
                                             agent,
                                             "Accept: */*",
                                             "Quire-Version: 3.0",
                                             "Authorization: Bearer token-1",
                                             "If-Match: \"etag-7\"",
                                             "X-Empty:",
                                             "Slug: a;b:c"};
  EXPECT_EQ(sent, expected);
}

// Issues a GET straight through a manager with the given default-header choice and returns the
// lines the server received.
std::vector<std::string> SentWithDefaults(CurlHeadersTest* test, RawServer* raw,
                                          NetworkRequest::Info::DefaultHeaders defaults,
                                          const QString& url) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  RecordingCallback recorder;
  RequestHeaderList headers;
  headers.push_back({0, QStringLiteral("X-Named"), QStringLiteral("split form")});
  NetworkRequest::Info info(HttpRequest::kGet, QByteArray(), url, std::move(headers), true,
                            &recorder, nullptr, defaults);
  ServerInfo server(url);
  manager.StartRequest(server, info);
  EXPECT_TRUE(kestrel::MainLoop::Default()->RunUntil([&] { return recorder.calls > 0; }, 10.0));
  EXPECT_EQ(recorder.code, kestrel::net::status::FromHttp(204));
  (void)test;
  const std::vector<std::string> heads = raw->requests();
  return heads.empty() ? std::vector<std::string>() : RequestLines(heads.back());
}

TEST_F(CurlHeadersTest, DefaultHeaderChoiceDecidesUserAgentAndAccept) {
  auto raw = StartRaw({{"HTTP/1.1 204 No Content\r\n\r\n", Reply::kKeepOpen},
                       {"HTTP/1.1 204 No Content\r\n\r\n", Reply::kKeepOpen},
                       {"HTTP/1.1 204 No Content\r\n\r\n", Reply::kKeepOpen}});
  const QString url = DocsUrl(QStringLiteral("/x"));
  const std::string agent = "User-Agent: quire/" KESTREL_TEST_PROJECT_VERSION;
  EXPECT_EQ(SentWithDefaults(this, raw.get(), NetworkRequest::Info::kNoDefaultHeaders, url),
            (std::vector<std::string>{"Host: docs.quire.example", "X-Named: split form"}));
  EXPECT_EQ(SentWithDefaults(this, raw.get(), NetworkRequest::Info::kUserAgent, url),
            (std::vector<std::string>{"Host: docs.quire.example", agent, "X-Named: split form"}));
  EXPECT_EQ(SentWithDefaults(this, raw.get(), NetworkRequest::Info::kStandard, url),
            (std::vector<std::string>{"Host: docs.quire.example", agent, "Accept: */*",
                                      "X-Named: split form"}));
}

TEST_F(CurlHeadersTest, HostChosenUserAgentIsSent) {
  auto raw = StartRaw({{"HTTP/1.1 204 No Content\r\n\r\n", Reply::kKeepOpen}});
  kestrel::net::CurlTransportConfig config = TestConfig();
  for (auto& mapping : config.host_mappings) mapping.port = raw->port();
  config.user_agent = QStringLiteral("host-app/2.5 quire/x");
  ASSERT_TRUE(transport_->Configure(config));
  Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/x")));
  const std::vector<std::string> heads = raw->requests();
  ASSERT_EQ(heads.size(), 1u);
  const std::vector<std::string> sent = RequestLines(heads[0]);
  EXPECT_NE(std::find(sent.begin(), sent.end(), "User-Agent: host-app/2.5 quire/x"), sent.end());
}

TEST_F(CurlHeadersTest, LineThatWouldSplitTheRequestIsRefusedAndNothingIsSent) {
  auto raw = StartRaw({{"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", Reply::kKeepOpen}});
  const std::vector<std::vector<QString>> bad = {
      {QStringLiteral("X-Evil: a\r\nX-Injected: b")},
      {QStringLiteral("X-Evil: a\nX-Injected: b")},
      {QStringLiteral("X-Evil: a\rb")},
      {QStringLiteral("X-Evil: a") + QChar(0) + QStringLiteral("b")},
      {QStringLiteral("Authorization: Bearer t"), QStringLiteral("\r\nGET /other HTTP/1.1")},
      {QStringLiteral("no colon here")},
      {QStringLiteral(" X-Continued: line")},
  };
  auto connection = MakeConnection();
  for (const auto& lines : bad) {
    Outcome outcome;
    Issue(connection.get(), kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/x")), &outcome,
          nullptr, &lines);
    EXPECT_EQ(outcome.calls, 0) << "completed inside Request";
    RunUntil([&] { return outcome.calls > 0; });
    kestrel::MainLoop::Default()->RunUntilIdle();
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.status, 2);
  }
  // Give a request that slipped through time to arrive.
  kestrel::MainLoop::Default()->RunUntil([] { return false; }, 0.2);
  EXPECT_EQ(raw->connections(), 0) << "something was sent";
  EXPECT_TRUE(raw->requests().empty());

  // The same connection still sends good requests.
  Outcome good;
  Issue(connection.get(), kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/x")), &good);
  RunUntil([&] { return good.calls > 0; });
  EXPECT_EQ(good.status, 0);
  EXPECT_EQ(raw->requests().size(), 1u);
}

TEST_F(CurlHeadersTest, RefusedLineGivesTheInvalidRequestCode) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  RecordingCallback recorder;
  RequestHeaderList headers;
  headers.push_back({0, QStringLiteral("X-Evil: a\r\nX-Injected: b"), QString()});
  const QString url = DocsUrl(QStringLiteral("/x"));
  NetworkRequest::Info info(HttpRequest::kGet, QByteArray(), url, std::move(headers), true,
                            &recorder, nullptr, NetworkRequest::Info::kStandard);
  ServerInfo server(url);
  manager.StartRequest(server, info);
  EXPECT_EQ(recorder.calls, 0);
  RunUntil([&] { return recorder.calls > 0; });
  EXPECT_EQ(recorder.code, kestrel::net::status::kErrorInvalidRequest);
  EXPECT_EQ(server_->requests(), 0);
}

}  // namespace
}  // namespace quire_test::curl
