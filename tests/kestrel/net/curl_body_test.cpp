// Bodies in both directions, byte-exact, from nothing to 200 MiB; the response buffer is sized from
// Content-Length in one piece.
#include <gtest/gtest.h>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/connection_manager.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/server_info.h"
#include "tests/kestrel/net/curl_test_support.h"
#include "tests/support/data_pattern.h"

namespace quire_test::curl {
namespace {

constexpr std::size_t kLarge = std::size_t{200} * 1024 * 1024;
// How long a download or upload may take: generous, because under ThreadSanitizer, with another
// test moving 200 MiB beside it, a 200 MiB body takes a while (the fixture's default is 20 s).
constexpr double kBigTimeout = 180.0;

class CurlBodyTest : public CurlTest {
 protected:
  void Download(std::size_t size) {
    const Outcome outcome =
        Fetch(kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/bytes/%1").arg(size)), nullptr,
              nullptr, kBigTimeout);
    EXPECT_EQ(outcome.status, 0);
    ASSERT_EQ(static_cast<std::size_t>(outcome.body.size()), size);
    EXPECT_EQ(FindPatternMismatch(outcome.body.constData(), 0, size), size);
  }

  void Upload(std::uint32_t method, std::size_t size) {
    QByteArray body(static_cast<int>(size), Qt::Uninitialized);
    FillPattern(body.data(), 0, size);
    const std::vector<QString> lines = {QStringLiteral("Content-Type: application/octet-stream")};
    const Outcome outcome =
        Fetch(method, DocsUrl(QStringLiteral("/upload")), &body, &lines, kBigTimeout);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.body,
              QByteArray("match ") + QByteArray::number(static_cast<qulonglong>(size)));
    EXPECT_EQ(server_->last_method(), method == kestrel::quire::kMethodPut ? "PUT" : "POST");
    const auto headers = server_->last_headers();
    const auto length = headers.find("content-length");
    ASSERT_NE(length, headers.end());
    EXPECT_EQ(length->second, std::to_string(size));
    const auto type = headers.equal_range("content-type");
    ASSERT_EQ(std::distance(type.first, type.second), 1);
    EXPECT_EQ(type.first->second, "application/octet-stream");
    EXPECT_EQ(headers.count("expect"), 0u);
    EXPECT_EQ(headers.count("transfer-encoding"), 0u);
  }
};

TEST_F(CurlBodyTest, DownloadEmpty) { Download(0); }
TEST_F(CurlBodyTest, DownloadOneByte) { Download(1); }
TEST_F(CurlBodyTest, Download200MiB) { Download(kLarge); }

TEST_F(CurlBodyTest, PutEmpty) { Upload(kestrel::quire::kMethodPut, 0); }
TEST_F(CurlBodyTest, PutOneByte) { Upload(kestrel::quire::kMethodPut, 1); }
TEST_F(CurlBodyTest, Put200MiB) { Upload(kestrel::quire::kMethodPut, kLarge); }
TEST_F(CurlBodyTest, PostEmpty) { Upload(kestrel::quire::kMethodPost, 0); }
TEST_F(CurlBodyTest, PostOneByte) { Upload(kestrel::quire::kMethodPost, 1); }
TEST_F(CurlBodyTest, Post200MiB) { Upload(kestrel::quire::kMethodPost, kLarge); }

TEST_F(CurlBodyTest, PostWithoutContentTypeSendsNone) {
  const QByteArray body("a=1");
  const Outcome outcome =
      Fetch(kestrel::quire::kMethodPost, DocsUrl(QStringLiteral("/upload")), &body);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(server_->last_headers().count("content-type"), 0u)
      << "only the caller's lines and what HTTP needs";
}

TEST_F(CurlBodyTest, ResponseBufferIsReservedFromContentLength) {
  // Not a power of two, so that a buffer grown by doubling would end up larger.
  const std::size_t size = 1000003;
  ConnectionManager manager(4, 2, true, 60.0, 60);
  RecordingCallback recorder;
  const QString url = DocsUrl(QStringLiteral("/bytes/%1").arg(size));
  ManagerGet(&manager, url, &recorder);
  EXPECT_EQ(recorder.code, kestrel::net::status::FromHttp(200));
  ASSERT_TRUE(recorder.had_buffer);
  EXPECT_EQ(static_cast<std::size_t>(recorder.body.size()), size);
  EXPECT_EQ(recorder.buffer_capacity, size);
}

TEST_F(CurlBodyTest, ResponseWithoutBodyHasNoBuffer) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  RecordingCallback recorder;
  const QString url = DocsUrl(QStringLiteral("/status/204"));
  ManagerGet(&manager, url, &recorder);
  EXPECT_EQ(recorder.code, kestrel::net::status::FromHttp(204));
  EXPECT_FALSE(recorder.had_buffer);
}

}  // namespace
}  // namespace quire_test::curl
