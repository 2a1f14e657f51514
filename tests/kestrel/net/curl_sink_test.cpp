// The HTTPS transport handing bodies to a response sink: in order and whole, with the ring never
// holding more than its size while the destination is slow (the transfer pauses and resumes), and
// the transfer stopped when the sink refuses or stops.
#include <gtest/gtest.h>

#include <QByteArray>
#include <chrono>
#include <thread>

#include "kestrel/net/connection_manager.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/response_sink.h"
#include "kestrel/net/server_info.h"
#include "tests/kestrel/net/curl_test_support.h"
#include "tests/support/data_pattern.h"

namespace quire_test::curl {
namespace {

using kestrel::net::ResponseSink;

class CurlSinkTest : public CurlTest {
 protected:
  // Starts a GET of `path` whose body goes to `sink`, and runs the main loop until it completed.
  void Get(const QString& path, ResponseSink* sink, RecordingCallback* recorder) {
    ConnectionManager manager(4, 2, true, 60.0, 60);
    const QString url = DocsUrl(path);
    NetworkRequest::Info info(HttpRequest::kGet, QByteArray(), url, {}, true, recorder, nullptr,
                              NetworkRequest::Info::kStandard);
    info.response_sink = sink;
    ServerInfo server(url);
    manager.StartRequest(server, info);
    RunUntil([&] { return recorder->calls > 0; }, 120.0);
  }
};

TEST_F(CurlSinkTest, SlowDestinationGetsTheWholeBodyWithinTheRing) {
  const std::size_t size = std::size_t{48} << 20;
  std::size_t offset = 0;
  std::size_t mismatch = size;
  int heads = 0;
  int status = 0;
  auto* sink = new ResponseSink(
      ResponseSink::kMinCapacity,
      [&](int http_status, const std::vector<QString>& headers) {
        ++heads;
        status = http_status;
        EXPECT_FALSE(headers.empty());
        return true;
      },
      [&](const char* data, std::size_t length) {
        EXPECT_EQ(heads, 1);
        if (mismatch == size) {
          const std::size_t at = FindPatternMismatch(data, offset, length);
          if (at != length) mismatch = offset + at;
        }
        offset += length;
        // A destination far slower than the loopback network.
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return true;
      });
  RecordingCallback recorder;
  Get(QStringLiteral("/bytes/%1").arg(size), sink, &recorder);
  EXPECT_EQ(recorder.code, kestrel::net::status::FromHttp(200));
  EXPECT_EQ(status, 200);
  EXPECT_EQ(offset, size);
  EXPECT_EQ(mismatch, size);
  EXPECT_EQ(sink->delivered(), size);
  EXPECT_LE(sink->peak_queued(), sink->capacity());
  // The body went to the sink, not to the request's buffer.
  EXPECT_TRUE(recorder.body.isEmpty());
  sink->Release();
}

TEST_F(CurlSinkTest, ErrorAnswersKeepTheirBodyInTheBuffer) {
  int calls = 0;
  auto* sink = new ResponseSink(
      0, [&](int, const std::vector<QString>&) { return ++calls > 0; },
      [&](const char*, std::size_t) { return ++calls > 0; });
  RecordingCallback recorder;
  Get(QStringLiteral("/status/404"), sink, &recorder);
  EXPECT_EQ(recorder.code, kestrel::net::status::FromHttp(404));
  EXPECT_EQ(recorder.body, QByteArray("status 404"));
  EXPECT_EQ(calls, 0);
  sink->Release();
}

TEST_F(CurlSinkTest, RefusedHeadStopsTheTransfer) {
  int pieces = 0;
  auto* sink = new ResponseSink(
      0, [](int, const std::vector<QString>&) { return false; },
      [&](const char*, std::size_t) { return ++pieces > 0; });
  RecordingCallback recorder;
  const auto start = std::chrono::steady_clock::now();
  Get(QStringLiteral("/bytes/%1").arg(std::size_t{200} << 20), sink, &recorder);
  EXPECT_EQ(recorder.code, kestrel::net::status::kErrorUnknown);
  EXPECT_EQ(pieces, 0);
  EXPECT_TRUE(sink->stopped());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  sink->Release();
}

TEST_F(CurlSinkTest, StopWhileThePausedTransferWaitsEndsIt) {
  ResponseSink* sink = nullptr;
  std::size_t seen = 0;
  sink =
      new ResponseSink(ResponseSink::kMinCapacity, nullptr, [&](const char*, std::size_t length) {
        seen += length;
        // Let the ring fill and the transfer pause, then give up on it.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        sink->Stop();
        return true;
      });
  RecordingCallback recorder;
  Get(QStringLiteral("/bytes/%1").arg(std::size_t{200} << 20), sink, &recorder);
  EXPECT_EQ(recorder.code, kestrel::net::status::kErrorUnknown);
  EXPECT_LT(seen, std::size_t{200} << 20);
  EXPECT_EQ(sink->delivered(), 0u);
  sink->Release();
}

}  // namespace
}  // namespace quire_test::curl
