// ContentDownload over the scripted transport: every answer a server can give to a download or a
// resumed download, retries, cancellation, the destination's failures, and the memory bound with
// a slow destination.
#include "quire/services/content_download.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QByteArray>
#include <algorithm>
#include <string>

#include "kestrel/net/response_sink.h"
#include "quire/services/docs_service.h"
#include "tests/support/data_pattern.h"
#include "tests/support/test_support.h"

namespace {

using namespace quire_test;  // NOLINT(build/namespaces): the test support

using kestrel::net::ScriptedTransport;
using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses

const char kUrl[] = "https://docs.quire.example/feeds/default/private/full/abc/content";

// Options that continue a part of `have` bytes of the version tagged "v1".
DownloadOptions ResumeV1(std::uint64_t have) {
  DownloadOptions options;
  options.resume_from = have;
  options.etag = QStringLiteral("\"v1\"");
  return options;
}

// A destination in memory that records every write, and can be told to fail.
struct MemoryTarget {
  QByteArray bytes;
  int writes = 0;
  int truncates = 0;
  std::uint64_t fail_at = ~std::uint64_t{0};  // a write reaching this offset fails
  std::uint64_t highest_end = 0;

  DownloadTarget Target() {
    return DownloadTarget::ForFunctions(
        [this](std::uint64_t offset, const char* data, std::size_t size) {
          if (offset + size > fail_at) return false;
          ++writes;
          if (bytes.size() < static_cast<int>(offset + size))
            bytes.resize(static_cast<int>(offset + size));
          std::copy(data, data + size, bytes.data() + offset);
          highest_end = std::max<std::uint64_t>(highest_end, offset + size);
          return true;
        },
        [this](std::uint64_t size) {
          ++truncates;
          bytes.truncate(static_cast<int>(size));
          return true;
        });
  }
};

class ContentDownloadTest : public quire_test::ScriptedTest {
 protected:
  void SetUp() override {
    ScriptedTest::SetUp();
    service_ = new DocsService;
    service_->SetOAuth2AuthToken(QStringLiteral("tok"));
  }
  void TearDown() override {
    delete service_;
    ScriptedTest::TearDown();
  }

  // Runs a download into an empty memory target and checks that it ends as a protocol error
  // without writing anything.
  void ExpectProtocolErrorWithoutWrites(const DownloadOptions& options = {}) {
    MemoryTarget memory;
    const DownloadResult result = Run(memory.Target(), options);
    EXPECT_EQ(result.outcome, DownloadOutcome::kProtocolError);
    EXPECT_EQ(memory.writes, 0);
  }

  DownloadResult Run(DownloadTarget target, DownloadOptions options = {}) {
    options.retry_policy.set_base_backoff_seconds(0.001);
    options.retry_policy.set_max_backoff_seconds(0.01);
    auto* download = new ContentDownload(service_);
    bool done = false;
    DownloadResult result;
    int calls = 0;
    download->Start(QUrl(QString::fromLatin1(kUrl)), target, options, [&](const DownloadResult& r) {
      result = r;
      ++calls;
      done = true;
    });
    EXPECT_FALSE(done) << "the callback ran inside Start";
    RunUntil([&] { return done; });
    RunUntilIdle();
    EXPECT_EQ(calls, 1);
    delete download;
    return result;
  }

  static ScriptedTransport::Answer Whole(const QByteArray& body, const QString& etag,
                                         std::size_t piece = 0) {
    ScriptedTransport::Answer answer;
    answer.code = Http(200);
    answer.body = body;
    answer.piece_size = piece;
    answer.headers = {QStringLiteral("Content-Length: %1").arg(body.size()),
                      QStringLiteral("ETag: ") + etag};
    return answer;
  }
  static ScriptedTransport::Answer Part(const QByteArray& content, int from, const QString& etag) {
    ScriptedTransport::Answer answer;
    answer.code = Http(206);
    answer.body = content.mid(from);
    answer.headers = {QStringLiteral("Content-Length: %1").arg(content.size() - from),
                      QStringLiteral("Content-Range: bytes %1-%2/%3")
                          .arg(from)
                          .arg(content.size() - 1)
                          .arg(content.size()),
                      QStringLiteral("ETag: ") + etag};
    return answer;
  }
  QString Header(std::size_t request, const QString& name) {
    for (const auto& header : transport_.requests()[request].headers) {
      if (header.name.startsWith(name + QLatin1Char(':'))) return header.name.mid(name.size() + 2);
    }
    return QString();
  }

  DocsService* service_ = nullptr;
};

TEST_F(ContentDownloadTest, WholeContentArrivesInPiecesWithProgress) {
  const QByteArray content = PatternBytes(100000);
  transport_.Enqueue(Whole(content, QStringLiteral("\"v1\""), 7000));
  MemoryTarget memory;
  DownloadOptions options;
  std::vector<std::pair<std::uint64_t, std::int64_t>> progress;
  options.progress = [&](std::uint64_t written, std::int64_t total) {
    progress.emplace_back(written, total);
  };
  DownloadResult result = Run(memory.Target(), options);
  EXPECT_EQ(result.outcome, DownloadOutcome::kComplete);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(memory.bytes, content);
  EXPECT_EQ(result.bytes_written, 100000u);
  EXPECT_EQ(result.bytes_reused, 0u);
  EXPECT_EQ(result.total, 100000);
  EXPECT_EQ(result.etag, QStringLiteral("\"v1\""));
  EXPECT_EQ(result.attempts, 1);
  ASSERT_FALSE(progress.empty());
  EXPECT_EQ(progress.back().first, 100000u);
  EXPECT_EQ(progress.back().second, 100000);
  for (std::size_t i = 1; i < progress.size(); ++i)
    EXPECT_GE(progress[i].first, progress[i - 1].first);
  ASSERT_EQ(transport_.requests().size(), 1u);
  EXPECT_TRUE(Header(0, QStringLiteral("Range")).isNull());
  EXPECT_EQ(Header(0, QStringLiteral("Authorization")), QStringLiteral("Bearer tok"));
  EXPECT_EQ(Header(0, QStringLiteral("Quire-Version")), QStringLiteral("3.0"));
}

TEST_F(ContentDownloadTest, ResumeSendsRangeWithIfRangeAndKeepsThePart) {
  const QByteArray content = PatternBytes(50000);
  transport_.Enqueue(Part(content, 20000, QStringLiteral("\"v1\"")));
  MemoryTarget memory;
  memory.bytes = content.left(20000);
  DownloadOptions options = ResumeV1(/*have=*/20000);
  DownloadResult result = Run(memory.Target(), options);
  EXPECT_EQ(result.outcome, DownloadOutcome::kComplete);
  EXPECT_EQ(memory.bytes, content);
  EXPECT_EQ(result.bytes_reused, 20000u);
  EXPECT_EQ(result.bytes_transferred, 30000u);
  EXPECT_EQ(result.total, 50000);
  EXPECT_EQ(Header(0, QStringLiteral("Range")), QStringLiteral("bytes=20000-"));
  EXPECT_EQ(Header(0, QStringLiteral("If-Range")), QStringLiteral("\"v1\""));
  EXPECT_EQ(memory.truncates, 0);
}

TEST_F(ContentDownloadTest, WholeAnswerToARangeStartsOverFromByteZero) {
  const QByteArray content = PatternBytes(30000, 2);
  transport_.Enqueue(Whole(content, QStringLiteral("\"v2\"")));
  MemoryTarget memory;
  memory.bytes = QByteArray(25000, 'x');  // a part of an older version
  DownloadOptions options = ResumeV1(/*have=*/25000);
  DownloadResult result = Run(memory.Target(), options);
  EXPECT_EQ(result.outcome, DownloadOutcome::kComplete);
  EXPECT_EQ(memory.bytes, content);
  EXPECT_TRUE(result.restarted);
  EXPECT_EQ(result.bytes_reused, 0u);
  EXPECT_EQ(result.etag, QStringLiteral("\"v2\""));
  EXPECT_EQ(memory.truncates, 1);
}

TEST_F(ContentDownloadTest, PartWithoutEntityTagIsNeverExtended) {
  const QByteArray content = PatternBytes(1000);
  transport_.Enqueue(Whole(content, QStringLiteral("\"v1\"")));
  MemoryTarget memory;
  memory.bytes = QByteArray(600, 'x');
  DownloadOptions options;
  options.resume_from = 600;
  DownloadResult result = Run(memory.Target(), options);
  EXPECT_EQ(result.outcome, DownloadOutcome::kComplete);
  EXPECT_EQ(memory.bytes, content);
  EXPECT_TRUE(Header(0, QStringLiteral("Range")).isNull());
}

TEST_F(ContentDownloadTest, RangeNotSatisfiableForACompletePartEndsWell) {
  ScriptedTransport::Answer answer;
  answer.code = Http(416);
  answer.body = "<error/>";
  answer.headers = {QStringLiteral("Content-Range: bytes */4000"), QStringLiteral("ETag: \"v1\"")};
  transport_.Enqueue(answer);
  MemoryTarget memory;
  memory.bytes = PatternBytes(4000);
  DownloadOptions options = ResumeV1(/*have=*/4000);
  DownloadResult result = Run(memory.Target(), options);
  EXPECT_EQ(result.outcome, DownloadOutcome::kComplete);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.bytes_written, 4000u);
  EXPECT_EQ(result.bytes_reused, 4000u);
  EXPECT_EQ(result.bytes_transferred, 0u);
  EXPECT_EQ(result.total, 4000);
  EXPECT_EQ(memory.bytes, PatternBytes(4000));
}

TEST_F(ContentDownloadTest, RangeNotSatisfiableForALongerPartStartsOver) {
  const QByteArray content = PatternBytes(3000, 3);
  ScriptedTransport::Answer refused;
  refused.code = Http(416);
  refused.headers = {QStringLiteral("Content-Range: bytes */3000")};
  transport_.Enqueue(refused);
  transport_.Enqueue(Whole(content, QStringLiteral("\"v1\"")));
  MemoryTarget memory;
  memory.bytes = QByteArray(5000, 'x');
  DownloadOptions options = ResumeV1(/*have=*/5000);
  DownloadResult result = Run(memory.Target(), options);
  EXPECT_EQ(result.outcome, DownloadOutcome::kComplete);
  EXPECT_EQ(memory.bytes, content);
  EXPECT_TRUE(result.restarted);
  EXPECT_EQ(result.attempts, 2);
  EXPECT_TRUE(Header(1, QStringLiteral("Range")).isNull());
}

TEST_F(ContentDownloadTest, ConnectionCutMidBodyResumesFromWhatWasWritten) {
  const QByteArray content = PatternBytes(90000, 4);
  ScriptedTransport::Answer cut = Whole(content.left(35000), QStringLiteral("\"v1\""), 5000);
  cut.code = kestrel::net::status::kErrorConnectionReset;
  cut.head_status = 200;
  cut.headers = {QStringLiteral("Content-Length: 90000"), QStringLiteral("ETag: \"v1\"")};
  transport_.Enqueue(cut);
  transport_.Enqueue(kestrel::net::status::kErrorConnectionRefused);
  transport_.Enqueue(Http(503), "busy", {QStringLiteral("Retry-After: 0")});
  transport_.Enqueue(Part(content, 35000, QStringLiteral("\"v1\"")));
  MemoryTarget memory;
  DownloadResult result = Run(memory.Target());
  EXPECT_EQ(result.outcome, DownloadOutcome::kComplete);
  EXPECT_EQ(memory.bytes, content);
  EXPECT_EQ(result.attempts, 4);
  EXPECT_EQ(result.bytes_transferred, 90000u);
  for (std::size_t i = 1; i < 4; ++i) {
    EXPECT_EQ(Header(i, QStringLiteral("Range")), QStringLiteral("bytes=35000-"));
    EXPECT_EQ(Header(i, QStringLiteral("If-Range")), QStringLiteral("\"v1\""));
  }
}

TEST_F(ContentDownloadTest, ChangedEntityTagDuringRetryStartsOver) {
  const QByteArray old_content = PatternBytes(20000, 5);
  const QByteArray new_content = PatternBytes(12000, 6);
  ScriptedTransport::Answer cut = Whole(old_content.left(8000), QStringLiteral("\"v1\""));
  cut.code = kestrel::net::status::kErrorConnectionReset;
  cut.head_status = 200;
  cut.headers = {QStringLiteral("Content-Length: 20000"), QStringLiteral("ETag: \"v1\"")};
  transport_.Enqueue(cut);
  // If-Range no longer matches: the whole new content.
  transport_.Enqueue(Whole(new_content, QStringLiteral("\"v2\"")));
  MemoryTarget memory;
  DownloadResult result = Run(memory.Target());
  EXPECT_EQ(result.outcome, DownloadOutcome::kComplete);
  EXPECT_EQ(memory.bytes, new_content);
  EXPECT_EQ(result.etag, QStringLiteral("\"v2\""));
  EXPECT_TRUE(result.restarted);
}

TEST_F(ContentDownloadTest, TransientFailuresWithoutProgressGiveUpAfterTheAllowedAttempts) {
  for (int i = 0; i < 3; ++i) transport_.Enqueue(Http(503), "busy");
  MemoryTarget memory;
  DownloadOptions options;
  options.retry_policy.set_max_attempts(3);
  DownloadResult result = Run(memory.Target(), options);
  EXPECT_EQ(result.outcome, DownloadOutcome::kHttpError);
  EXPECT_EQ(result.status, 503);
  EXPECT_EQ(result.attempts, 3);
  EXPECT_EQ(memory.writes, 0);
}

TEST_F(ContentDownloadTest, NetworkFailuresGiveUpAsNetworkFailure) {
  for (int i = 0; i < 2; ++i) transport_.Enqueue(kestrel::net::status::kErrorTimedOut);
  MemoryTarget memory;
  DownloadOptions options;
  options.retry_policy.set_max_attempts(2);
  DownloadResult result = Run(memory.Target(), options);
  EXPECT_EQ(result.outcome, DownloadOutcome::kNetworkFailure);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.attempts, 2);
}

TEST_F(ContentDownloadTest, PermanentErrorsAreNotRetriedAndWriteNothing) {
  transport_.Enqueue(Http(404), "<error>no such document</error>");
  MemoryTarget memory;
  DownloadResult result = Run(memory.Target());
  EXPECT_EQ(result.outcome, DownloadOutcome::kHttpError);
  EXPECT_EQ(result.status, 404);
  EXPECT_EQ(result.attempts, 1);
  EXPECT_EQ(memory.writes, 0);
}

TEST_F(ContentDownloadTest, EmptyContentCompletes) {
  transport_.Enqueue(Whole(QByteArray(), QStringLiteral("\"e\"")));
  MemoryTarget memory;
  DownloadResult result = Run(memory.Target());
  EXPECT_EQ(result.outcome, DownloadOutcome::kComplete);
  EXPECT_EQ(result.total, 0);
  EXPECT_EQ(result.etag, QStringLiteral("\"e\""));
}

// --- Answers that contradict the request: a clear failure, nothing outside the destination.

TEST_F(ContentDownloadTest, MoreBytesThanAnnouncedFail) {
  ScriptedTransport::Answer answer = Whole(PatternBytes(5000), QStringLiteral("\"v1\""), 1000);
  answer.headers[0] = QStringLiteral("Content-Length: 3000");
  transport_.Enqueue(answer);
  MemoryTarget memory;
  DownloadResult result = Run(memory.Target());
  EXPECT_EQ(result.outcome, DownloadOutcome::kProtocolError);
  EXPECT_TRUE(result.error.contains(QStringLiteral("more bytes"))) << result.error.toStdString();
  EXPECT_LE(memory.highest_end, 3000u);
}

TEST_F(ContentDownloadTest, ContentRangeThatDoesNotMatchTheRequestFails) {
  const QByteArray content = PatternBytes(10000);
  for (const QString& range :
       {QStringLiteral("bytes 0-9999/10000"), QStringLiteral("bytes 4000-8999/10000"),
        QStringLiteral("bytes 5000-9999/20000"), QStringLiteral("bytes 5000-9999"),
        QStringLiteral("bytes 6000-5000/10000"), QStringLiteral("items 5000-9999/10000")}) {
    SCOPED_TRACE(range.toStdString());
    ScriptedTransport::Answer answer = Part(content, 5000, QStringLiteral("\"v1\""));
    answer.headers[1] = QStringLiteral("Content-Range: ") + range;
    transport_.Enqueue(answer);
    MemoryTarget memory;
    memory.bytes = content.left(5000);
    DownloadOptions options = ResumeV1(/*have=*/5000);
    DownloadResult result = Run(memory.Target(), options);
    EXPECT_EQ(result.outcome, DownloadOutcome::kProtocolError);
    EXPECT_EQ(memory.writes, 0);
    EXPECT_EQ(memory.bytes, content.left(5000));
  }
}

TEST_F(ContentDownloadTest, NegativeOrOverflowingLengthsFail) {
  for (const QString& line : {QStringLiteral("Content-Length: -5"),
                              QStringLiteral("Content-Length: 99999999999999999999"),
                              QStringLiteral("Content-Length: 9223372036854775808"),
                              QStringLiteral("Content-Length: 1e3")}) {
    SCOPED_TRACE(line.toStdString());
    ScriptedTransport::Answer answer = Whole(PatternBytes(100), QStringLiteral("\"v1\""));
    answer.headers[0] = line;
    transport_.Enqueue(answer);
    ExpectProtocolErrorWithoutWrites();
  }
  ScriptedTransport::Answer huge = Part(PatternBytes(100), 50, QStringLiteral("\"v1\""));
  huge.headers[0] = QStringLiteral("Content-Length: 50");
  huge.headers[1] =
      QStringLiteral("Content-Range: bytes 50-18446744073709551615/18446744073709551616");
  transport_.Enqueue(huge);
  ExpectProtocolErrorWithoutWrites(ResumeV1(/*have=*/50));
}

TEST_F(ContentDownloadTest, PartialAnswerOfAnotherVersionFails) {
  const QByteArray content = PatternBytes(10000);
  transport_.Enqueue(Part(content, 5000, QStringLiteral("\"v9\"")));
  ExpectProtocolErrorWithoutWrites(ResumeV1(/*have=*/5000));
}

TEST_F(ContentDownloadTest, PartialAnswerToAWholeRequestFails) {
  transport_.Enqueue(Part(PatternBytes(1000), 0, QStringLiteral("\"v1\"")));
  ExpectProtocolErrorWithoutWrites();
}

TEST_F(ContentDownloadTest, FailingDestinationStopsTheTransfer) {
  transport_.Enqueue(Whole(PatternBytes(3 << 20), QStringLiteral("\"v1\""), 64 * 1024));
  MemoryTarget memory;
  memory.fail_at = 3 << 19;  // the disk fills up half-way
  DownloadOptions options;
  options.buffer_bytes = 1 << 20;
  DownloadResult result = Run(memory.Target(), options);
  EXPECT_EQ(result.outcome, DownloadOutcome::kWriteFailed);
  EXPECT_EQ(result.attempts, 1) << "a failing destination is not retried";
  EXPECT_GT(result.bytes_written, 0u);
  EXPECT_LE(result.bytes_written, memory.fail_at);
  EXPECT_EQ(static_cast<std::uint64_t>(memory.bytes.size()), result.bytes_written);
  EXPECT_FALSE(result.error.isEmpty());
}

TEST_F(ContentDownloadTest, DeviceTargetWritesAndStartsOver) {
  const QByteArray content = PatternBytes(40000, 8);
  transport_.Enqueue(Whole(content, QStringLiteral("\"v2\""), 4096));
  QBuffer buffer;
  buffer.open(QIODevice::ReadWrite);
  buffer.write(QByteArray(1000, 'x'));
  DownloadOptions options = ResumeV1(/*have=*/1000);
  DownloadResult result = Run(DownloadTarget::ForDevice(&buffer), options);
  // A QBuffer cannot be cut, so the changed content cannot start over in it.
  EXPECT_EQ(result.outcome, DownloadOutcome::kCannotRestart);
  QBuffer fresh;
  fresh.open(QIODevice::ReadWrite);
  transport_.Enqueue(Whole(content, QStringLiteral("\"v2\""), 4096));
  result = Run(DownloadTarget::ForDevice(&fresh));
  EXPECT_EQ(result.outcome, DownloadOutcome::kComplete);
  EXPECT_EQ(fresh.data(), content);
}

TEST_F(ContentDownloadTest, CancelStopsTheTransferAndReportsOnce) {
  transport_.Enqueue(Whole(PatternBytes(4 << 20), QStringLiteral("\"v1\""), 4096));
  MemoryTarget memory;
  auto* download = new ContentDownload(service_);
  int calls = 0;
  DownloadResult result;
  DownloadOptions options;
  options.buffer_bytes = 1 << 20;
  options.progress = [&](std::uint64_t written, std::int64_t) {
    if (written >= 40000) download->Cancel();
  };
  download->Start(QUrl(QString::fromLatin1(kUrl)), memory.Target(), options,
                  [&](const DownloadResult& r) {
                    result = r;
                    ++calls;
                  });
  RunUntil([&] { return calls > 0; });
  RunUntilIdle();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(result.outcome, DownloadOutcome::kCancelled);
  EXPECT_LT(result.bytes_written, 4u << 20);
  EXPECT_EQ(static_cast<std::uint64_t>(memory.bytes.size()), result.bytes_written);
  download->Cancel();  // after the callback: nothing
  RunUntilIdle();
  EXPECT_EQ(calls, 1);
  delete download;
}

TEST_F(ContentDownloadTest, CancelBeforeTheAnswerTakesTheRequestOffTheWire) {
  ScriptedTransport::Answer slow = Whole(PatternBytes(1000), QStringLiteral("\"v1\""));
  slow.delay_seconds = 30;
  transport_.Enqueue(slow);
  MemoryTarget memory;
  auto* download = new ContentDownload(service_);
  int calls = 0;
  DownloadResult result;
  download->Start(QUrl(QString::fromLatin1(kUrl)), memory.Target(), {},
                  [&](const DownloadResult& r) {
                    result = r;
                    ++calls;
                  });
  download->Cancel();
  download->Cancel();  // twice: one callback all the same
  EXPECT_EQ(calls, 0) << "the callback ran inside Cancel";
  RunUntil([&] { return calls > 0; }, 2.0);
  RunUntilIdle();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(result.outcome, DownloadOutcome::kCancelled);
  EXPECT_EQ(transport_.cancelled(), 1u);
  EXPECT_EQ(memory.writes, 0);
  delete download;
}

TEST_F(ContentDownloadTest, CancelBeforeStartReportsLaterAndSendsNothing) {
  MemoryTarget memory;
  auto* download = new ContentDownload(service_);
  int calls = 0;
  DownloadResult result;
  download->Cancel();
  download->Start(QUrl(QString::fromLatin1(kUrl)), memory.Target(), {},
                  [&](const DownloadResult& r) {
                    result = r;
                    ++calls;
                  });
  EXPECT_EQ(calls, 0) << "the callback ran inside Start";
  RunUntil([&] { return calls > 0; });
  RunUntilIdle();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(result.outcome, DownloadOutcome::kCancelled);
  EXPECT_EQ(transport_.started(), 0u);
  delete download;
}

TEST_F(ContentDownloadTest, CancelDuringTheBackOffEndsWithoutAnotherRequest) {
  transport_.Enqueue(Http(503), "busy", {QStringLiteral("Retry-After: 20")});
  MemoryTarget memory;
  auto* download = new ContentDownload(service_);
  int calls = 0;
  DownloadResult result;
  DownloadOptions options;
  options.retry_policy.set_retry_after_cap_seconds(30);
  download->Start(QUrl(QString::fromLatin1(kUrl)), memory.Target(), options,
                  [&](const DownloadResult& r) {
                    result = r;
                    ++calls;
                  });
  RunUntil([&] { return transport_.completed() == 1; });
  download->Cancel();
  RunUntil([&] { return calls > 0; }, 2.0);
  EXPECT_EQ(result.outcome, DownloadOutcome::kCancelled);
  EXPECT_EQ(transport_.started(), 1u);
  delete download;  // the back-off timer must not fire into a deleted download
  kestrel::MainLoop::Default()->RunUntil([] { return false; }, 0.05);
}

TEST_F(ContentDownloadTest, DownloadMayBeDeletedInsideItsCallback) {
  transport_.Enqueue(Whole(PatternBytes(100), QStringLiteral("\"v1\"")));
  MemoryTarget memory;
  auto* download = new ContentDownload(service_);
  bool done = false;
  download->Start(QUrl(QString::fromLatin1(kUrl)), memory.Target(), {}, [&](const DownloadResult&) {
    delete download;
    done = true;
  });
  RunUntil([&] { return done; });
}

// A network that offers 16 MiB back to back to a destination that takes them only when the main
// loop comes round: the transfer waits for it, and never more than the sink's ring is held.
TEST_F(ContentDownloadTest, SlowDestinationKeepsMemoryBounded) {
  const QByteArray content = PatternBytes(16 << 20, 9);
  transport_.Enqueue(Whole(content, QStringLiteral("\"v1\""), 256 * 1024));
  MemoryTarget memory;
  DownloadOptions options;
  options.buffer_bytes = 1 << 20;
  long long peak_live_bytes = 0;
  const long long bytes_at_start = kestrel::MemoryManager::Default()->live_bytes();
  options.progress = [&](std::uint64_t, std::int64_t) {
    peak_live_bytes =
        std::max(peak_live_bytes, kestrel::MemoryManager::Default()->live_bytes() - bytes_at_start);
  };
  DownloadResult result = Run(memory.Target(), options);
  EXPECT_EQ(result.outcome, DownloadOutcome::kComplete);
  EXPECT_EQ(memory.bytes, content);
  EXPECT_GT(transport_.sink_pauses(), 0u);
  // The ring (1 MiB) and bookkeeping; the 16 MiB body is never held by the library.
  EXPECT_LT(peak_live_bytes, 2LL << 20);
}

}  // namespace
