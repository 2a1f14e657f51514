// HTTP answers of a real server through Connection: each status number becomes the network layer's
// code and then the library's status; redirects are handed back, never followed.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/connection_manager.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/server_info.h"
#include "tests/kestrel/net/curl_test_support.h"

namespace quire_test::curl {
namespace {

class CurlStatusTest : public CurlTest {};

struct StatusCase {
  int http;
  int library_status;
};

// The library passes 300, 302, 308, 400..416 and 500..505 through; other 3xx and 417 are failures.
constexpr StatusCase kCases[] = {
    {200, 0},   {201, 0},   {204, 0},   {300, 300}, {302, 302}, {304, 2},
    {307, 2},   {308, 308}, {400, 400}, {401, 401}, {404, 404}, {412, 412},
    {416, 416}, {417, 2},   {500, 500}, {503, 503}, {505, 505},
};

TEST_F(CurlStatusTest, EveryAnswerReachesConnectionAsItsStatus) {
  auto connection = MakeConnection();
  for (const StatusCase& c : kCases) {
    SCOPED_TRACE(c.http);
    Outcome outcome;
    Issue(connection.get(), kestrel::quire::kMethodGet,
          DocsUrl(QStringLiteral("/status/%1").arg(c.http)), &outcome);
    RunUntil([&] { return outcome.calls > 0; });
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.status, c.library_status);
    const QByteArray expected_body = c.http == 204 || c.http == 304
                                         ? QByteArray()
                                         : QByteArray("status ") + QByteArray::number(c.http);
    EXPECT_EQ(outcome.body, expected_body) << "the server's body stays with its answer";
    EXPECT_NE(std::find(outcome.headers.begin(), outcome.headers.end(),
                        QStringLiteral("X-Status: %1").arg(c.http)),
              outcome.headers.end());
  }
  kestrel::MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(server_->requests(), static_cast<int>(std::size(kCases)))
      << "one request per answer: no redirect was followed, nothing was retried";
}

TEST_F(CurlStatusTest, NetworkCodesAreTheHttpNumbersInTheirRanges) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  for (const StatusCase& c : kCases) {
    SCOPED_TRACE(c.http);
    RecordingCallback recorder;
    const QString url = DocsUrl(QStringLiteral("/status/%1").arg(c.http));
    ManagerGet(&manager, url, &recorder);
    const std::uint32_t expected = c.http < 400 ? 0x000A0000u + static_cast<std::uint32_t>(c.http)
                                                : 0xC00A0000u + static_cast<std::uint32_t>(c.http);
    EXPECT_EQ(recorder.code, expected);
    EXPECT_EQ(recorder.code, kestrel::net::status::FromHttp(c.http));
  }
}

TEST_F(CurlStatusTest, RedirectIsHandedBackWithItsLocation) {
  const Outcome outcome = Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/status/302")));
  EXPECT_EQ(outcome.status, 302);
  EXPECT_NE(std::find(outcome.headers.begin(), outcome.headers.end(),
                      QStringLiteral("Location: /status/200")),
            outcome.headers.end());
  EXPECT_EQ(server_->requests(), 1);
  EXPECT_EQ(server_->last_path(), "/status/302");
}

}  // namespace
}  // namespace quire_test::curl
