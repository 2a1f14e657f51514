#include "quire/upload/resumable_uploader.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>
#include <memory>
#include <vector>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/network_status.h"
#include "quire/connection/connection.h"
#include "tests/support/data_pattern.h"
#include "tests/support/quick_retry_policy.h"
#include "tests/support/scripted_upload_session.h"
#include "tests/support/test_support.h"

namespace {

using namespace quire_test;  // NOLINT(build/namespaces): the test support

using kestrel::MainLoop;
namespace net = kestrel::net::status;
using namespace kestrel::quire;  // NOLINT: status constants

constexpr char kPostUrl[] = "https://docs.quire.example/feeds/upload/create-session/default";
constexpr std::uint32_t kChunk = 256 * 1024;

// What the upload's callback received.
struct Outcome {
  int calls = 0;
  NetworkResponseInfo info{0, -1, nullptr};
  bool had_headers = false;
  QByteArray body;
};

// A sequential source over bytes in memory: read once, front to back.
class Stream : public QIODevice {
 public:
  explicit Stream(QByteArray bytes) : bytes_(std::move(bytes)) { open(QIODevice::ReadOnly); }
  bool isSequential() const override { return true; }
  qint64 bytesAvailable() const override {
    return bytes_.size() - offset_ + QIODevice::bytesAvailable();
  }

 protected:
  qint64 readData(char* data, qint64 max) override {
    const qint64 n = std::min<qint64>(max, bytes_.size() - offset_);
    std::copy(bytes_.constData() + offset_, bytes_.constData() + offset_ + n, data);
    offset_ += n;
    return n;
  }
  qint64 writeData(const char*, qint64) override { return -1; }

 private:
  QByteArray bytes_;
  qint64 offset_ = 0;
};

RetryPolicy QuickPolicy(int attempts = 5) { return quire_test::QuickRetryPolicy(attempts); }

class ResumableUploaderTest : public quire_test::ScriptedTest {
 protected:
  void SetUp() override {
    ScriptedTest::SetUp();
    ASSERT_TRUE(dir_.isValid());
    connection_ = new Connection;
    connection_->Init(
        {QStringLiteral("Quire-Version: 3.0"), QStringLiteral("Authorization: Bearer token")});
    uploader_ = new ResumableUploader(connection_, kChunk, QuickPolicy());
    session_.Install(&transport_);
  }
  void TearDown() override {
    delete uploader_;
    delete connection_;
    ScriptedTest::TearDown();
  }

  QString WriteFile(const QByteArray& bytes, const QString& name = QStringLiteral("source")) {
    const QString path = dir_.filePath(name);
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    EXPECT_EQ(file.write(bytes), bytes.size());
    return path;
  }

  ResponseCallback Record(Outcome* outcome) {
    return [this, outcome](NetworkResponseInfo info, QByteArray body) {
      EXPECT_FALSE(in_call_) << "never inside the call that started the upload";
      ++outcome->calls;
      outcome->info = info;
      outcome->had_headers = info.headers != nullptr;
      outcome->body = QByteArray(body.constData(), body.size());
    };
  }

  unsigned int StartFile(const QString& path, Outcome* outcome) {
    in_call_ = true;
    const unsigned int id = uploader_->Start(
        QString::fromLatin1(kPostUrl), QStringLiteral("<entry><title>t</title></entry>"),
        QStringLiteral("application/octet-stream"), path, Record(outcome));
    in_call_ = false;
    return id;
  }

  void Wait(const Outcome& outcome) {
    RunUntil([&] { return outcome.calls > 0; });
    RunUntilIdle();
    EXPECT_EQ(outcome.calls, 1);
  }

  QTemporaryDir dir_;
  Connection* connection_ = nullptr;
  ResumableUploader* uploader_ = nullptr;
  ScriptedUploadSession session_;
  bool in_call_ = false;
};

TEST_F(ResumableUploaderTest, UploadsAFileInChunksWithTheProtocolsLines) {
  const QByteArray data = PatternBytes(1000000);
  const QString path = WriteFile(data);
  std::vector<ResumableUploader::Progress> reports;
  QString announced;
  uploader_->set_progress_callback(
      [&](const ResumableUploader::Progress& progress) { reports.push_back(progress); });
  uploader_->set_session_callback([&](const QString& url) { announced = url; });
  Outcome outcome;
  const unsigned int id = StartFile(path, &outcome);
  EXPECT_NE(id, 0u);
  EXPECT_TRUE(uploader_->running());
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusSuccess);
  EXPECT_EQ(outcome.body, QByteArray("<entry/>"));
  EXPECT_EQ(uploader_->error(), ResumableUploader::kNone);
  EXPECT_FALSE(uploader_->running());
  EXPECT_EQ(session_.data(), data) << "the server holds exactly the file";
  EXPECT_EQ(announced, QStringLiteral("https://docs.quire.example/upload/session-1"));
  EXPECT_EQ(uploader_->session_url(), announced);

  const auto& requests = transport_.requests();
  ASSERT_EQ(requests.size(), 5u);
  EXPECT_EQ(requests[0].method, kestrel::net::HttpRequest::kPost);
  EXPECT_EQ(requests[0].url, QString::fromLatin1(kPostUrl));
  EXPECT_EQ(Lines(requests[0]),
            (std::vector<QString>{QStringLiteral("Quire-Version: 3.0"),
                                  QStringLiteral("Authorization: Bearer token"),
                                  QStringLiteral("Content-Type: application/atom+xml"),
                                  QStringLiteral("X-Upload-Content-Type: application/octet-stream"),
                                  QStringLiteral("X-Upload-Content-Length: 1000000")}));
  EXPECT_EQ(requests[0].body, QByteArray("<entry><title>t</title></entry>"));
  EXPECT_EQ(Lines(requests[1]),
            (std::vector<QString>{QStringLiteral("Quire-Version: 3.0"),
                                  QStringLiteral("Authorization: Bearer token"),
                                  QStringLiteral("Content-Length: 262144"),
                                  QStringLiteral("Content-Type: application/octet-stream"),
                                  QStringLiteral("Content-Range: bytes 0-262143/1000000")}));
  EXPECT_EQ(session_.ranges(),
            (std::vector<QString>{QStringLiteral("bytes 0-262143/1000000"),
                                  QStringLiteral("bytes 262144-524287/1000000"),
                                  QStringLiteral("bytes 524288-786431/1000000"),
                                  QStringLiteral("bytes 786432-999999/1000000")}));
  for (std::size_t i = 1; i < requests.size(); ++i) {
    EXPECT_LE(requests[i].body_size, kChunk);
    EXPECT_TRUE(requests[i].keep_response_headers);
  }
  ASSERT_FALSE(reports.empty());
  for (std::size_t i = 1; i < reports.size(); ++i) {
    EXPECT_GE(reports[i].bytes_confirmed, reports[i - 1].bytes_confirmed);
    EXPECT_LE(reports[i].bytes_confirmed, reports[i].bytes_sent);
  }
  EXPECT_EQ(reports.back().bytes_confirmed, 1000000);
  EXPECT_EQ(reports.back().total_bytes, 1000000);
  EXPECT_EQ(reports.back().retries, 0);
}

TEST_F(ResumableUploaderTest, AFailedChunkIsFollowedByAStatusQueryAndTheRest) {
  const QByteArray data = PatternBytes(700000);
  ScriptedUploadSession::Fault busy;
  busy.answer.code = Http(503);
  busy.answer.headers = {QStringLiteral("Retry-After: 0")};
  session_.SetFault(2, busy);  // the second PUT
  Outcome outcome;
  StartFile(WriteFile(data), &outcome);
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusSuccess);
  EXPECT_EQ(session_.data(), data);
  EXPECT_EQ(uploader_->progress().retries, 1);
  const auto& requests = transport_.requests();
  ASSERT_EQ(requests.size(), 6u);
  // The query: no body, no type, the total only.
  EXPECT_EQ(
      Lines(requests[3]),
      (std::vector<QString>{
          QStringLiteral("Quire-Version: 3.0"), QStringLiteral("Authorization: Bearer token"),
          QStringLiteral("Content-Length: 0"), QStringLiteral("Content-Range: bytes */700000")}));
  EXPECT_EQ(requests[3].body_size, 0u);
  EXPECT_EQ(Lines(requests[4]).back(), QStringLiteral("Content-Range: bytes 262144-524287/700000"));
}

TEST_F(ResumableUploaderTest, ALostConnectionResumesFromWhatTheServerGot) {
  const QByteArray data = PatternBytes(600000);
  ScriptedUploadSession::Fault cut;
  cut.answer.code = net::kErrorConnectionReset;
  cut.answer.has_body = false;
  cut.store_bytes = 100000;  // part of the second chunk arrived
  session_.SetFault(2, cut);
  Outcome outcome;
  StartFile(WriteFile(data), &outcome);
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusSuccess);
  EXPECT_EQ(session_.data(), data);
  EXPECT_EQ(session_.ranges()[2], QStringLiteral("bytes */600000"));
  EXPECT_EQ(session_.ranges()[3], QStringLiteral("bytes 362144-599999/600000"));
}

TEST_F(ResumableUploaderTest, TransientFailuresOfTheOpeningPostAreRetried) {
  ScriptedUploadSession::Fault busy;
  busy.answer.code = Http(503);
  session_.SetFault(0, busy);
  ScriptedUploadSession::Fault reset;
  reset.answer.code = net::kErrorConnectionReset;
  session_.SetFault(1, reset);
  const QByteArray data = PatternBytes(1000);
  Outcome outcome;
  StartFile(WriteFile(data), &outcome);
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusSuccess);
  EXPECT_EQ(session_.posts(), 1) << "only the third POST reached the session";
  EXPECT_EQ(session_.data(), data);
}

TEST_F(ResumableUploaderTest, AfterTheLastAttemptTheLastFailureIsFinal) {
  ScriptedUploadSession::Answer busy;
  busy.code = Http(503);
  busy.headers = {QStringLiteral("Retry-After: 0")};
  session_.FailFrom(2, busy);
  Outcome outcome;
  StartFile(WriteFile(PatternBytes(600000)), &outcome);
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, 503);
  EXPECT_TRUE(outcome.had_headers);
  EXPECT_TRUE(outcome.body.isEmpty());
  EXPECT_EQ(uploader_->error(), ResumableUploader::kRetriesExhausted);
  EXPECT_EQ(transport_.requests().size(), 2u + 5u) << "five sends in a row failed";
}

TEST_F(ResumableUploaderTest, PermanentRefusalsEndTheUploadAtOnce) {
  ScriptedUploadSession::Fault refused;
  refused.answer.code = Http(403);
  refused.answer.body = "<error/>";
  session_.SetFault(1, refused);
  Outcome outcome;
  StartFile(WriteFile(PatternBytes(600000)), &outcome);
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, 403);
  EXPECT_TRUE(outcome.body.isEmpty());
  EXPECT_EQ(uploader_->error(), ResumableUploader::kServerRefused);
  EXPECT_EQ(transport_.requests().size(), 2u);
}

TEST_F(ResumableUploaderTest, APostAnswerWithoutLocationFails) {
  ScriptedUploadSession::Fault no_location;
  no_location.answer.code = Http(200);
  session_.SetFault(0, no_location);
  Outcome outcome;
  const unsigned int id = StartFile(WriteFile(PatternBytes(10)), &outcome);
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusFailure);
  EXPECT_EQ(outcome.info.request_id, id);
  EXPECT_FALSE(outcome.had_headers);
  EXPECT_EQ(uploader_->error(), ResumableUploader::kNoSessionAddress);
}

TEST_F(ResumableUploaderTest, ARangeBeyondTheDataOrUnreadableEndsTheUpload) {
  for (const char* range : {"Range: bytes=0-1073741823", "Range: bytes=5-10", "Range: bytes=0-x",
                            "Range: items=0-4", "Range: bytes=0--4"}) {
    ScriptedUploadSession session;
    session.Install(&transport_);
    ScriptedUploadSession::Fault odd;
    odd.answer.code = Http(308);
    odd.answer.headers = {QString::fromLatin1(range)};
    session.SetFault(1, odd);
    Outcome outcome;
    StartFile(WriteFile(PatternBytes(600000)), &outcome);
    Wait(outcome);
    EXPECT_EQ(outcome.info.status, kStatusFailure) << range;
    EXPECT_EQ(uploader_->error(), ResumableUploader::kBadRange) << range;
    EXPECT_EQ(session.requests(), 2) << "nothing sent after it: " << range;
  }
}

TEST_F(ResumableUploaderTest, ARangeGoingBackwardsIsSentAgainFromThere) {
  const QByteArray data = PatternBytes(800000);
  // After the second chunk the server reports 1000 bytes less than it had confirmed.
  ScriptedUploadSession::Fault lost;
  lost.answer.code = Http(308);
  lost.answer.headers = {QStringLiteral("Range: bytes=0-523287")};
  lost.store_bytes = 262144;
  session_.SetFault(2, lost);
  Outcome outcome;
  StartFile(WriteFile(data), &outcome);
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusSuccess);
  EXPECT_EQ(session_.data(), data);
  EXPECT_EQ(session_.ranges()[2], QStringLiteral("bytes 523288-785431/800000"));
}

TEST_F(ResumableUploaderTest, AnUploadCanBeResumedFromItsSessionAddressByAnotherUploader) {
  const QByteArray data = PatternBytes(900000);
  session_.Preload(data.left(300000), data.size());
  Outcome outcome;
  const unsigned int id = uploader_->Resume(
      QStringLiteral("https://docs.quire.example/upload/session-1"), QString(), QString(),
      QStringLiteral("application/octet-stream"), WriteFile(data), Record(&outcome));
  EXPECT_NE(id, 0u);
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusSuccess);
  EXPECT_EQ(session_.data(), data);
  EXPECT_EQ(session_.posts(), 0);
  EXPECT_EQ(session_.ranges(),
            (std::vector<QString>{QStringLiteral("bytes */900000"),
                                  QStringLiteral("bytes 300000-562143/900000"),
                                  QStringLiteral("bytes 562144-824287/900000"),
                                  QStringLiteral("bytes 824288-899999/900000")}));
}

TEST_F(ResumableUploaderTest, ASessionGoneWhileResumingStartsAnewOnlyWhenAllowed) {
  const QByteArray data = PatternBytes(300000);
  const QString path = WriteFile(data);
  const QString session = QStringLiteral("https://docs.quire.example/upload/old");
  Outcome refused;
  uploader_->Resume(session, QString::fromLatin1(kPostUrl), QString(), QStringLiteral("text/plain"),
                    path, Record(&refused));
  Wait(refused);
  EXPECT_EQ(refused.info.status, 404);
  EXPECT_EQ(uploader_->error(), ResumableUploader::kSessionGone);
  EXPECT_EQ(session_.posts(), 0);

  uploader_->set_allow_new_session(true);
  Outcome anew;
  uploader_->Resume(session, QString::fromLatin1(kPostUrl), QStringLiteral("<entry/>"),
                    QStringLiteral("text/plain"), path, Record(&anew));
  Wait(anew);
  EXPECT_EQ(anew.info.status, kStatusSuccess);
  EXPECT_EQ(session_.posts(), 1);
  EXPECT_EQ(session_.data(), data);
  EXPECT_EQ(uploader_->session_url(),
            QStringLiteral("https://docs.quire.example/upload/session-1"));
}

TEST_F(ResumableUploaderTest, AFileThatShrinksOrChangesFailsBeforeAChangedByteIsSent) {
  for (bool shrink : {true, false}) {
    ScriptedUploadSession session;
    session.Install(&transport_);
    const QByteArray data = PatternBytes(900000);
    const QString path = WriteFile(data, shrink ? QStringLiteral("a") : QStringLiteral("b"));
    int confirmations = 0;
    uploader_->set_progress_callback([&](const ResumableUploader::Progress& progress) {
      if (progress.bytes_confirmed == kChunk && confirmations++ == 0) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        if (shrink) {
          ASSERT_TRUE(file.resize(500000));
        } else {
          // Same size, other bytes, a later modification time.
          ASSERT_TRUE(file.seek(600000));
          file.write("changed");
          // Written out before the time is set: a write at close() would stamp the time anew,
          // possibly within the clock tick of the file's first modification time.
          ASSERT_TRUE(file.flush());
          file.setFileTime(QDateTime::currentDateTime().addSecs(5),
                           QFileDevice::FileModificationTime);
          file.close();
        }
      }
    });
    Outcome outcome;
    StartFile(path, &outcome);
    Wait(outcome);
    EXPECT_EQ(outcome.info.status, kStatusFailure);
    EXPECT_EQ(uploader_->error(), ResumableUploader::kSourceChanged);
    EXPECT_EQ(session.ranges().size(), 1u) << "no chunk after the change";
    EXPECT_FALSE(session.finished());
    uploader_->set_progress_callback(ResumableUploader::ProgressCallback());
  }
}

TEST_F(ResumableUploaderTest, CancelBeforeTheFirstAnswerAndTwice) {
  transport_.SetResponder([](const kestrel::net::ScriptedTransport::Seen&) {
    kestrel::net::ScriptedTransport::Answer slow;
    slow.delay_seconds = 30;
    return slow;
  });
  Outcome outcome;
  const unsigned int id = StartFile(WriteFile(PatternBytes(1000)), &outcome);
  uploader_->Cancel();
  uploader_->Cancel();
  EXPECT_EQ(outcome.calls, 0) << "never inside Cancel";
  EXPECT_FALSE(uploader_->running());
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusCancelled);
  EXPECT_EQ(outcome.info.request_id, id);
  EXPECT_EQ(uploader_->error(), ResumableUploader::kCancelled);
  EXPECT_EQ(transport_.cancelled(), 1u) << "the POST was dropped by the network layer";
  EXPECT_EQ(MainLoop::Default()->pending(), 0u);
}

TEST_F(ResumableUploaderTest, CancelInTheMiddleOfAChunk) {
  std::vector<kestrel::net::TransferProgress> steps;
  session_.Install(&transport_);
  // The first PUT moves slowly: a progress report at 10 ms, the answer after 30 s.
  ScriptedUploadSession::Fault slow;
  slow.answer.code = Http(308);
  slow.answer.delay_seconds = 30;
  kestrel::net::TransferProgress half;
  half.bytes_sent = kChunk / 2;
  half.bytes_to_send = kChunk;
  slow.answer.progress = {{0.01, half}};
  session_.SetFault(1, slow);
  std::vector<ResumableUploader::Progress> reports;
  uploader_->set_progress_callback([&](const ResumableUploader::Progress& progress) {
    reports.push_back(progress);
    if (progress.bytes_sent == kChunk / 2) uploader_->Cancel();
  });
  Outcome outcome;
  StartFile(WriteFile(PatternBytes(600000)), &outcome);
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusCancelled);
  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(reports.back().bytes_sent, kChunk / 2);
  EXPECT_EQ(reports.back().bytes_confirmed, 0);
  EXPECT_EQ(transport_.cancelled(), 1u);
  EXPECT_EQ(MainLoop::Default()->pending(), 0u);
}

TEST_F(ResumableUploaderTest, CancelBetweenChunksWhileWaitingToRecover) {
  RetryPolicy policy = QuickPolicy();
  policy.set_retry_after_cap_seconds(60);
  ResumableUploader uploader(connection_, kChunk, policy);
  ScriptedUploadSession::Fault busy;
  busy.answer.code = Http(503);
  busy.answer.headers = {QStringLiteral("Retry-After: 30")};
  session_.SetFault(2, busy);
  int reports = 0;
  uploader.set_progress_callback([&](const ResumableUploader::Progress& progress) {
    ++reports;
    if (progress.retries == 1) uploader.Cancel();
  });
  Outcome outcome;
  uploader.Start(QString::fromLatin1(kPostUrl), QString(), QStringLiteral("x/y"),
                 WriteFile(PatternBytes(600000)), Record(&outcome));
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusCancelled);
  EXPECT_EQ(transport_.requests().size(), 3u);
  EXPECT_EQ(MainLoop::Default()->pending(), 0u) << "the wait was taken back";
}

TEST_F(ResumableUploaderTest, CancelInsideAProgressReportBetweenChunks) {
  uploader_->set_progress_callback([&](const ResumableUploader::Progress& progress) {
    if (progress.bytes_confirmed == kChunk) uploader_->Cancel();
  });
  uploader_->set_session_callback([](const QString&) {});
  Outcome outcome;
  StartFile(WriteFile(PatternBytes(600000)), &outcome);
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusCancelled);
  EXPECT_EQ(session_.ranges().size(), 1u) << "no chunk after the cancel";
  EXPECT_EQ(transport_.cancelled(), 0u) << "nothing was in flight";

  // Cancelled inside the session callback: the first chunk is never sent.
  ScriptedUploadSession session;
  session.Install(&transport_);
  uploader_->set_progress_callback(ResumableUploader::ProgressCallback());
  uploader_->set_session_callback([&](const QString&) { uploader_->Cancel(); });
  Outcome early;
  StartFile(WriteFile(PatternBytes(600000), QStringLiteral("f")), &early);
  Wait(early);
  EXPECT_EQ(early.info.status, kStatusCancelled);
  EXPECT_TRUE(session.ranges().empty());
}

TEST_F(ResumableUploaderTest, TheHostMayDeleteTheUploaderInsideItsCallbacks) {
  Outcome outcome;
  ResponseCallback record = Record(&outcome);
  StartFile(WriteFile(PatternBytes(300000)), &outcome);
  // Replace the uploader's callback by one that deletes it: start again on a fresh uploader.
  delete uploader_;
  uploader_ = new ResumableUploader(connection_, kChunk, QuickPolicy());
  RunUntilIdle();
  ScriptedUploadSession session;
  session.Install(&transport_);
  int calls = 0;
  uploader_->Start(QString::fromLatin1(kPostUrl), QString(), QStringLiteral("x/y"),
                   WriteFile(PatternBytes(300000), QStringLiteral("c")),
                   [&](NetworkResponseInfo info, QByteArray) {
                     ++calls;
                     EXPECT_EQ(info.status, kStatusSuccess);
                     delete uploader_;
                     uploader_ = nullptr;
                   });
  RunUntil([&] { return calls > 0; });
  RunUntilIdle();
  EXPECT_EQ(calls, 1);

  // Deleted inside a progress report: the upload is dropped without its callback.
  uploader_ = new ResumableUploader(connection_, kChunk, QuickPolicy());
  ScriptedUploadSession third;
  third.Install(&transport_);
  int dropped_calls = 0;
  uploader_->set_progress_callback([&](const ResumableUploader::Progress& progress) {
    if (progress.bytes_confirmed > 0) {
      delete uploader_;
      uploader_ = nullptr;
    }
  });
  uploader_->Start(QString::fromLatin1(kPostUrl), QString(), QStringLiteral("x/y"),
                   WriteFile(PatternBytes(600000), QStringLiteral("d")),
                   [&](NetworkResponseInfo, QByteArray) { ++dropped_calls; });
  RunUntil([&] { return uploader_ == nullptr; });
  RunUntilIdle();
  EXPECT_EQ(dropped_calls, 0);
  EXPECT_EQ(third.ranges().size(), 1u);
  EXPECT_EQ(outcome.calls, 0) << "the first upload was dropped with its uploader";
}

TEST_F(ResumableUploaderTest, ARandomAccessDeviceAndASequentialStream) {
  const QByteArray data = PatternBytes(700000);
  QByteArray backing = QByteArray("skip") + data;
  QBuffer buffer(&backing);
  ASSERT_TRUE(buffer.open(QIODevice::ReadOnly));
  ASSERT_TRUE(buffer.seek(4));  // the upload starts at the device's position
  Outcome from_buffer;
  uploader_->Start(QString::fromLatin1(kPostUrl), QString(), QStringLiteral("x/y"), &buffer, -1,
                   Record(&from_buffer));
  Wait(from_buffer);
  EXPECT_EQ(from_buffer.info.status, kStatusSuccess);
  EXPECT_EQ(session_.data(), data);

  // A stream whose second chunk fails after part of it arrived: the kept chunk is sent again.
  ScriptedUploadSession session;
  session.Install(&transport_);
  ScriptedUploadSession::Fault cut;
  cut.answer.code = net::kErrorTimedOut;
  cut.store_bytes = 1000;
  session.SetFault(2, cut);
  Stream stream(data);
  Outcome from_stream;
  uploader_->Start(QString::fromLatin1(kPostUrl), QString(), QStringLiteral("x/y"), &stream,
                   data.size(), Record(&from_stream));
  Wait(from_stream);
  EXPECT_EQ(from_stream.info.status, kStatusSuccess);
  EXPECT_EQ(session.data(), data);

  // A stream without a length is refused.
  Stream unknown(data);
  Outcome no_length;
  EXPECT_EQ(uploader_->Start(QString::fromLatin1(kPostUrl), QString(), QStringLiteral("x/y"),
                             &unknown, -1, Record(&no_length)),
            0u);
  Wait(no_length);
  EXPECT_EQ(no_length.info.status, kStatusFailure);
  EXPECT_EQ(uploader_->error(), ResumableUploader::kInvalidArgument);
}

TEST_F(ResumableUploaderTest, BadArgumentsAndABusyUploaderAreRefusedLater) {
  Outcome missing;
  EXPECT_EQ(StartFile(dir_.filePath(QStringLiteral("nothing-here")), &missing), 0u);
  EXPECT_EQ(missing.calls, 0);
  Wait(missing);
  EXPECT_EQ(missing.info.status, kStatusFailure);
  EXPECT_EQ(uploader_->error(), ResumableUploader::kSourceUnreadable);

  ResumableUploader zero(connection_, 0, QuickPolicy());
  Outcome no_chunk;
  zero.Start(QString::fromLatin1(kPostUrl), QString(), QStringLiteral("x/y"),
             WriteFile(PatternBytes(10)), Record(&no_chunk));
  Wait(no_chunk);
  EXPECT_EQ(zero.error(), ResumableUploader::kInvalidArgument);

  Outcome first;
  Outcome second;
  StartFile(WriteFile(PatternBytes(1000)), &first);
  EXPECT_EQ(StartFile(WriteFile(PatternBytes(1000), QStringLiteral("e")), &second), 0u);
  RunUntil([&] { return first.calls > 0 && second.calls > 0; });
  EXPECT_EQ(second.info.status, kStatusFailure);
  EXPECT_EQ(first.info.status, kStatusSuccess) << "the running upload went on";
  EXPECT_EQ(transport_.requests().size(), 2u) << "the POST and the one PUT of the first";
}

TEST_F(ResumableUploaderTest, PositionsBeyondFourGibibytesAreWrittenInFull) {
  // A sparse file of 4 GiB and 1000 bytes; the session already holds the first 4 GiB.
  const QString path = dir_.filePath(QStringLiteral("large"));
  {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_TRUE(file.resize(4294967296LL + 1000));
    ASSERT_TRUE(file.seek(4294967296LL));
    ASSERT_EQ(file.write(PatternBytes(1000)), 1000);
  }
  transport_.SetResponder(kestrel::net::ScriptedTransport::Responder());
  transport_.Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-4294967295")});
  transport_.Enqueue(Http(201), "<entry/>");
  Outcome outcome;
  uploader_->Resume(QStringLiteral("https://docs.quire.example/upload/big"), QString(), QString(),
                    QStringLiteral("x/y"), path, Record(&outcome));
  Wait(outcome);
  EXPECT_EQ(outcome.info.status, kStatusSuccess);
  const auto& requests = transport_.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(Lines(requests[0]).back(), QStringLiteral("Content-Range: bytes */4294968296"));
  EXPECT_EQ(Lines(requests[1]).back(),
            QStringLiteral("Content-Range: bytes 4294967296-4294968295/4294968296"));
  EXPECT_EQ(requests[1].body, PatternBytes(1000));
}

}  // namespace
