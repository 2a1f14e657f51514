// The retry and cancellation columns of the fault matrix: every operation through connections that
// retry under a RetryPolicy (the services' and the upload's), against the emulator's faults. A
// transient fault ends in success, a permanent one in its status after the policy's attempts (a
// POST, which may have changed something on the server, after one), a cancelled operation in
// status 3; always in exactly one callback, with the live allocations back at their start value.
#include <QFile>
#include <QTemporaryDir>

#include "kestrel/base/main_loop.h"
#include "quire/connection/network_response_info.h"
#include "quire/upload/resumable_uploader.h"
#include "tests/hardening/fault_matrix_test.h"

namespace quire_test::hardening {
namespace {

using kestrel::quire::kStatusCancelled;
using kestrel::quire::RetryPolicy;

constexpr double kSeconds = 120.0;
constexpr int kAttempts = 3;

// Short waits: the emulator's Retry-After of 1 s is cut to 50 ms.
RetryPolicy QuickPolicy() {
  RetryPolicy policy;
  policy.set_max_attempts(kAttempts);
  policy.set_base_backoff_seconds(0.01);
  policy.set_max_backoff_seconds(0.02);
  policy.set_retry_after_cap_seconds(0.05);
  policy.set_total_deadline_seconds(60);
  return policy;
}

bool IsPost(Operation operation) {
  return operation == Operation::kCreateEntryWithContent ||
         operation == Operation::kResumableUpload;
}

std::vector<Operation> All() {
  return std::vector<Operation>(std::begin(kAllOperations), std::end(kAllOperations));
}

void CheckOnce(const Outcome& outcome) {
  EXPECT_EQ(outcome.calls, 1) << "callbacks";
  EXPECT_FALSE(outcome.called_during_issue) << "the callback ran inside the call that issued it";
  EXPECT_NE(outcome.issued_id, 0u);
}

// Every second request answered 503: whatever is idempotent gets through; a POST that met the 503
// is not sent again.
TEST_F(FaultMatrixTest, RetryColumnEverySecondRequestUnavailable) {
  const RetryPolicy policy = QuickPolicy();
  std::vector<std::uint64_t> retries;
  const std::vector<Operation> operations = All();
  const std::vector<Outcome> outcomes =
      Run(operations, {"--fault-fail-every", "2"}, false, kSeconds, &policy, &retries);
  ASSERT_EQ(outcomes.size(), operations.size());
  ASSERT_EQ(retries.size(), operations.size());
  for (std::size_t i = 0; i < operations.size(); ++i) {
    SCOPED_TRACE(OperationRunner::Name(operations[i]));
    const Outcome& outcome = outcomes[i];
    CheckOnce(outcome);
    if (IsPost(operations[i]) && outcome.status == 503) {
      EXPECT_EQ(retries[i], 0u) << "a POST that reached the server is not sent again";
      continue;
    }
    EXPECT_EQ(outcome.status, 0);
    switch (operations[i]) {
      case Operation::kGetUserEmail:
        EXPECT_EQ(outcome.email, QString::fromLatin1(kAccount));
        break;
      case Operation::kGetFeed:
        EXPECT_GE(outcome.entries, 2u);
        break;
      case Operation::kGetEntryContent:
        EXPECT_EQ(outcome.body_size, targets().content.size());
        EXPECT_EQ(outcome.body_hash,
                  OperationRunner::Hash(targets().content.constData(),
                                        static_cast<std::size_t>(targets().content.size())));
        break;
      case Operation::kCreateEntryWithContent:
      case Operation::kModifyEntryContent:
        EXPECT_FALSE(outcome.entry_id.isEmpty());
        break;
      case Operation::kResumableUpload:
        EXPECT_TRUE(outcome.body_start.contains("entry"));
        break;
      case Operation::kDeleteEntry:
        break;
    }
  }
}

// Checks a run of `operations` under the quick policy in which every attempt failed: each ended
// once with `status`, a POST after one attempt, everything else after the policy's attempts.
void CheckRetriedToTheEnd(const std::vector<Operation>& operations,
                          const std::vector<Outcome>& outcomes,
                          const std::vector<std::uint64_t>& retries, int status) {
  ASSERT_EQ(retries.size(), operations.size());
  for (std::size_t i = 0; i < operations.size(); ++i) {
    SCOPED_TRACE(OperationRunner::Name(operations[i]));
    CheckOnce(outcomes[i]);
    EXPECT_EQ(outcomes[i].status, status);
    EXPECT_EQ(retries[i], IsPost(operations[i]) ? 0u : static_cast<std::uint64_t>(kAttempts - 1));
  }
}

// 503 to every request: the policy's attempts, then the 503; a POST after one attempt.
TEST_F(FaultMatrixTest, RetryColumnAlwaysUnavailable) {
  const RetryPolicy policy = QuickPolicy();
  std::vector<std::uint64_t> retries;
  const std::vector<Outcome> outcomes =
      Run(All(), {"--fault-fail-every", "1"}, true, kSeconds, &policy, &retries);
  CheckRetriedToTheEnd(All(), outcomes, retries, 503);
}

// Every answer cut inside its header lines: no usable answer, status 2 after the attempts.
TEST_F(FaultMatrixTest, RetryColumnAnswerCutInItsHeader) {
  const RetryPolicy policy = QuickPolicy();
  std::vector<std::uint64_t> retries;
  const std::vector<Outcome> outcomes =
      Run(All(), {"--fault-close-response-after", "64"}, true, kSeconds, &policy, &retries);
  CheckRetriedToTheEnd(All(), outcomes, retries, 2);
}

// Cancelled right after it was issued, before any answer: status 3, once.
TEST_F(FaultMatrixTest, CancelColumnBeforeTheFirstAnswer) {
  const RetryPolicy policy = QuickPolicy();
  const std::vector<Operation> operations = All();
  const std::vector<Outcome> outcomes = Run(operations, {}, true, kSeconds, &policy, nullptr, 0);
  for (std::size_t i = 0; i < operations.size(); ++i) {
    SCOPED_TRACE(OperationRunner::Name(operations[i]));
    CheckOnce(outcomes[i]);
    EXPECT_EQ(outcomes[i].status, kStatusCancelled);
    EXPECT_EQ(outcomes[i].request_id, outcomes[i].issued_id);
  }
}

// Cancelled while waiting to send again (after a 503, a wait of 1 s, cancelled after 0.4 s); a
// POST has ended with its 503 by then, unless its answer was that slow.
TEST_F(FaultMatrixTest, CancelColumnWhileWaitingToRetry) {
  RetryPolicy policy = QuickPolicy();
  policy.set_base_backoff_seconds(2);
  policy.set_max_backoff_seconds(2);
  policy.set_retry_after_cap_seconds(1);
  policy.set_random_source([] { return 0.5; });
  std::vector<std::uint64_t> retries;
  const std::vector<Operation> operations = All();
  const std::vector<Outcome> outcomes =
      Run(operations, {"--fault-fail-every", "1"}, true, kSeconds, &policy, &retries, 0.4);
  ASSERT_EQ(retries.size(), operations.size());
  for (std::size_t i = 0; i < operations.size(); ++i) {
    SCOPED_TRACE(OperationRunner::Name(operations[i]));
    CheckOnce(outcomes[i]);
    if (IsPost(operations[i])) {
      EXPECT_TRUE(outcomes[i].status == 503 || outcomes[i].status == kStatusCancelled)
          << outcomes[i].status;
      EXPECT_EQ(retries[i], 0u);
    } else {
      EXPECT_EQ(outcomes[i].status, kStatusCancelled);
      EXPECT_LE(retries[i], 1u) << "cancelled during the first wait (or before the first answer)";
    }
  }
}

// A file uploaded with ResumableUploader over the real transport: every third request answered 503
// (chunks, status queries and the POST alike) ends in the exact bytes on the server; connections
// cut inside every request head end, after the policy's attempts, in status 2.
TEST_F(FaultMatrixTest, UploaderColumn) {
  QTemporaryDir dir;
  ASSERT_TRUE(dir.isValid());
  const QString path = dir.filePath(QStringLiteral("upload.bin"));
  QByteArray bytes(1024 * 1024 + 17, '\0');
  for (int i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * 131) ^ (i >> 9));
  {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_EQ(file.write(bytes), bytes.size());
  }
  RetryPolicy policy = QuickPolicy();
  policy.set_max_attempts(6);

  struct Case {
    std::vector<std::string> args;
    bool succeeds;
  };
  for (const Case& column : {Case{{"--fault-fail-every", "3"}, true},
                             Case{{"--fault-close-request-after", "64"}, false}}) {
    SCOPED_TRACE(column.args[0]);
    WithEmulator(column.args, [&](const LibraryClient::Options& base) {
      LibraryClient::Options options = base;
      LibraryClient client(options);
      ASSERT_TRUE(client.configured());
      auto* uploader =
          new kestrel::quire::ResumableUploader(&client.upload_connection(), 64 * 1024, policy);
      int calls = 0;
      int status = -1;
      QByteArray entry;
      uploader->Start(targets().upload_url.toString(QUrl::FullyEncoded),
                      QStringLiteral("<entry xmlns=\"http://www.w3.org/2005/Atom\">"
                                     "<title>by the uploader</title></entry>"),
                      QStringLiteral("application/octet-stream"), path,
                      [&](kestrel::quire::NetworkResponseInfo info, QByteArray body) {
                        ++calls;
                        status = info.status;
                        entry = QByteArray(body.constData(), body.size());
                      });
      ASSERT_TRUE(kestrel::MainLoop::Default()->RunUntil([&] { return calls > 0; }, kSeconds));
      const int retries = uploader->progress().retries;
      const auto error = uploader->error();
      delete uploader;
      ASSERT_TRUE(client.WaitForIdle(kSeconds));
      EXPECT_EQ(calls, 1);
      if (!column.succeeds) {
        EXPECT_EQ(status, 2);
        EXPECT_EQ(error, kestrel::quire::ResumableUploader::kRetriesExhausted);
        return;
      }
      EXPECT_EQ(status, 0);
      EXPECT_GT(retries, 0) << "the faults were met and absorbed";
      EXPECT_TRUE(entry.contains("by the uploader"));
      // Read the document back through a client that retries, and compare every byte.
      LibraryClient::Options reading = base;
      reading.retry_policy = &policy;
      LibraryClient reader(reading);
      QUrl content;
      int feed_calls = 0;
      reader.docs().GetFeed(
          [&](kestrel::quire::NetworkResponseInfo info, const kestrel::quire::DocsFeed& feed) {
            ++feed_calls;
            EXPECT_EQ(info.status, 0);
            for (const kestrel::quire::DocsEntry* item : feed.entries) {
              if (item->title == QStringLiteral("by the uploader")) content = item->content_src;
            }
          });
      ASSERT_TRUE(kestrel::MainLoop::Default()->RunUntil([&] { return feed_calls > 0; }, kSeconds));
      ASSERT_FALSE(content.isEmpty());
      QByteArray stored;
      int content_calls = 0;
      reader.docs().GetEntryContent(content,
                                    [&](kestrel::quire::NetworkResponseInfo info, QByteArray body) {
                                      ++content_calls;
                                      EXPECT_EQ(info.status, 0);
                                      stored = QByteArray(body.constData(), body.size());
                                    });
      ASSERT_TRUE(
          kestrel::MainLoop::Default()->RunUntil([&] { return content_calls > 0; }, kSeconds));
      EXPECT_TRUE(stored == bytes) << "the server holds " << stored.size() << " bytes";
      ASSERT_TRUE(reader.WaitForIdle(kSeconds));
    });
  }
}

}  // namespace
}  // namespace quire_test::hardening
