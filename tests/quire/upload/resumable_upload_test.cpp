// The resumable upload sequence driven through a host IConnection double: the POST, every PUT, each
// way an upload ends, and the data reaching the connection without a copy.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <cstdint>
#include <cstring>
#include <vector>

#include "quire/quire.h"
#include "tests/quire/upload/upload_test_support.h"
#include "tests/support/data_pattern.h"
#include "tests/support/guard_death_test.h"
#include "tests/support/test_support.h"

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
#include <sys/mman.h>
#endif

namespace {

using quire_test::PatternBytes;

using namespace kestrel::quire;      // NOLINT(build/namespaces): the library's classes and statuses
using namespace quire_test::upload;  // NOLINT(build/namespaces): the upload's test doubles

const char kPostUrl[] = "https://docs.quire.example/upload/create-session/default/private/full";
const char kUploadUrl[] = "https://docs.quire.example:8443/upload/session?upload_id=a1: b2";
const char kMetadata[] =
    "<?xml version='1.0' encoding='UTF-8'?><entry xmlns=\"http://www.w3.org/2005/Atom\">"
    "<title>R\xC3\xA9sum\xC3\xA9 \xE2\x80\x93 \xE2\x9C\x93</title></entry>";

Lines PutLines(const char* type, std::uint32_t first, std::uint32_t length, std::uint32_t total) {
  return {QStringLiteral("Content-Length: %1").arg(length), S("Content-Type: ") + S(type),
          QStringLiteral("Content-Range: bytes %1-%2/%3")
              .arg(first)
              .arg(static_cast<std::uint32_t>(first + length - 1u))
              .arg(total)};
}

Lines LocationLines(const char* url = kUploadUrl) {
  return {S("Content-Type: application/atom+xml"), S("Location: ") + S(url)};
}

Lines RangeLines(std::uint32_t last) { return {QStringLiteral("Range: bytes=0-%1").arg(last)}; }

// A PUT of `length` bytes from `first` of `data`, carried as a view of the caller's bytes.
void ExpectPut(const SentRequest& put, const QByteArray& data, std::uint32_t first,
               std::uint32_t length, const char* type = "application/pdf",
               const char* url = kUploadUrl) {
  const auto total = static_cast<std::uint32_t>(data.size());
  EXPECT_EQ(put.method, static_cast<std::uint32_t>(kMethodPut));
  EXPECT_EQ(put.url, S(url));
  EXPECT_TRUE(put.had_headers);
  EXPECT_EQ(put.headers, PutLines(type, first, length, total));
  EXPECT_TRUE(put.collect_response_headers);
  EXPECT_EQ(put.requested_id, 0u) << "every PUT asks for a fresh id";
  ASSERT_TRUE(put.had_body);
  EXPECT_EQ(put.body_size, static_cast<long long>(length));
  if (length > 0) {
    EXPECT_EQ(put.body_data, data.constData() + first) << "the chunk is a view, not a copy";
    EXPECT_EQ(std::memcmp(put.body.constData(), data.constData() + first, length), 0);
  }
}

// Starts the upload of `data` as `type` through `utils`, reporting to `recorder`.
unsigned int Start(ConnectionUtils& utils, const QByteArray& data, OutcomeRecorder& recorder,
                   const char* type = "application/pdf") {
  return utils.ResumableUpload(S(kPostUrl), S(kMetadata), S(type), data, recorder.Callback());
}

// An answer's header lines, and whether the answer has no list at all.
struct HeaderCase {
  const char* name;
  Lines lines;
  bool null_headers;
};

class ResumableUploadTest : public quire_test::ScriptedTest {
 protected:
  FakeConnection connection_;
};

TEST_F(ResumableUploadTest, MillionBytesInTwoChunks) {
  ConnectionUtils utils(524288, &connection_);
  const QByteArray data = PatternBytes(1000000);
  OutcomeRecorder recorder;
  const unsigned int post_id = Start(utils, data, recorder);

  ASSERT_EQ(connection_.requests().size(), 1u);
  const SentRequest& post = connection_.requests()[0];
  EXPECT_EQ(post_id, post.id) << "ResumableUpload returns the POST's id";
  EXPECT_EQ(post.method, static_cast<std::uint32_t>(kMethodPost));
  EXPECT_EQ(post.url, S(kPostUrl));
  EXPECT_EQ(post.body, QByteArray(kMetadata)) << "the metadata goes as UTF-8";
  EXPECT_EQ(post.headers, (Lines{S("Content-Type: application/atom+xml"),
                                 S("X-Upload-Content-Type: application/pdf"),
                                 S("X-Upload-Content-Length: 1000000")}));
  EXPECT_TRUE(post.collect_response_headers);
  EXPECT_EQ(post.requested_id, 0u);
  EXPECT_EQ(recorder.count(), 0u) << "nothing is reported before the POST is answered";

  connection_.AnswerLast(0, LocationLines(), "<entry/>");
  ASSERT_EQ(connection_.requests().size(), 2u);
  ExpectPut(connection_.requests()[1], data, 0, 524288);
  EXPECT_EQ(connection_.requests()[1].headers,
            (Lines{S("Content-Length: 524288"), S("Content-Type: application/pdf"),
                   S("Content-Range: bytes 0-524287/1000000")}));

  connection_.AnswerLast(308, {S("Range: bytes=0-524287")});
  ASSERT_EQ(connection_.requests().size(), 3u);
  ExpectPut(connection_.requests()[2], data, 524287, 475713);
  EXPECT_EQ(connection_.requests()[2].headers,
            (Lines{S("Content-Length: 475713"), S("Content-Type: application/pdf"),
                   S("Content-Range: bytes 524287-999999/1000000")}));
  EXPECT_EQ(recorder.count(), 0u);

  const Lines final_lines = {S("Content-Type: application/atom+xml"), S("ETag: \"v1\"")};
  connection_.AnswerLast(0, final_lines, "<entry><id>doc-1</id></entry>");
  EXPECT_EQ(connection_.requests().size(), 3u);
  const auto& outcome = recorder.only();
  EXPECT_EQ(outcome.info.status, 0);
  EXPECT_EQ(outcome.info.request_id, connection_.requests()[2].id) << "the last PUT's answer";
  EXPECT_EQ(outcome.headers_pointer, connection_.last_headers()) << "headers passed on unchanged";
  EXPECT_EQ(outcome.headers, final_lines);
  EXPECT_EQ(outcome.body, QByteArray("<entry><id>doc-1</id></entry>"));
  EXPECT_EQ(connection_.pending(), 0u);
  // Ids: the POST and each PUT got their own.
  EXPECT_NE(connection_.requests()[1].id, connection_.requests()[0].id);
  EXPECT_NE(connection_.requests()[2].id, connection_.requests()[1].id);
}

// --- Opening (POST sent)

TEST_F(ResumableUploadTest, PostFailureIsPassedOnWithoutTheServersBody) {
  for (int status : {2, 300, 302, 308, 400, 401, 403, 404, 416, 500, 503, 505}) {
    SCOPED_TRACE(status);
    FakeConnection connection;
    ConnectionUtils utils(1024, &connection);
    OutcomeRecorder recorder;
    const QByteArray data = PatternBytes(5000);
    const unsigned int post_id = Start(utils, data, recorder, "text/plain");
    const Lines lines = {S("Content-Type: text/html"), S("Location: https://elsewhere.example/"),
                         S("Range: bytes=0-10")};
    connection.AnswerLast(status, lines, "<html>error page</html>");
    EXPECT_EQ(connection.requests().size(), 1u) << "the upload ends with the POST";
    const auto& outcome = recorder.only();
    EXPECT_EQ(outcome.info.status, status);
    EXPECT_EQ(outcome.info.request_id, post_id);
    EXPECT_EQ(outcome.headers_pointer, connection.last_headers()) << "the response unchanged";
    EXPECT_EQ(outcome.headers, lines);
    EXPECT_TRUE(outcome.body_is_empty) << "the server's body is passed on only on success";
  }
}

TEST_F(ResumableUploadTest, PostWithoutLocationEndsWithMadeUpFailure) {
  const std::vector<HeaderCase> cases = {
      {"no header list", {}, true},
      {"empty list", {}, false},
      {"other headers only", {S("Content-Type: application/atom+xml")}, false},
      {"lower-case name", {S("location: https://docs.quire.example/upload/s")}, false},
      {"no blank after the colon", {S("Location:https://docs.quire.example/upload/s")}, false},
      {"empty value", {S("Location: "), S("Location: https://docs.quire.example/s")}, false},
  };
  for (const HeaderCase& c : cases) {
    SCOPED_TRACE(c.name);
    FakeConnection connection(7);
    ConnectionUtils utils(1024, &connection);
    OutcomeRecorder recorder;
    const unsigned int post_id = Start(utils, PatternBytes(3000), recorder, "text/plain");
    connection.AnswerLast(0, c.lines, "<entry/>", c.null_headers);
    EXPECT_EQ(connection.requests().size(), 1u) << "no PUT without an upload address";
    const auto& outcome = recorder.only();
    ExpectMadeUpFailure(outcome, post_id);
  }
}

TEST_F(ResumableUploadTest, PostSuccessSendsTheFirstChunkToTheLocation) {
  ConnectionUtils utils(4096, &connection_);
  const QByteArray data = PatternBytes(10000);
  OutcomeRecorder recorder;
  Start(utils, data, recorder, "image/png");
  connection_.AnswerLast(0, {S("Location: https://up.example/s/1"), S("Location: https://x/")});
  ASSERT_EQ(connection_.requests().size(), 2u);
  ExpectPut(connection_.requests()[1], data, 0, 4096, "image/png", "https://up.example/s/1");
  EXPECT_EQ(recorder.count(), 0u);
}

// --- Sending from P

TEST_F(ResumableUploadTest, EmptyDataEndsWithMadeUpFailureOnceOpen) {
  ConnectionUtils utils(1024, &connection_);
  OutcomeRecorder recorder;
  const unsigned int post_id = Start(utils, QByteArray(), recorder);
  ASSERT_EQ(connection_.requests().size(), 1u);
  EXPECT_EQ(connection_.requests()[0].headers[2], S("X-Upload-Content-Length: 0"));
  EXPECT_EQ(recorder.count(), 0u) << "not reported before the POST is answered";
  connection_.AnswerLast(0, LocationLines(), "<entry/>");
  EXPECT_EQ(connection_.requests().size(), 1u) << "the first PUT is not sent";
  const auto& outcome = recorder.only();
  ExpectMadeUpFailure(outcome, post_id);
}

TEST_F(ResumableUploadTest, DataNoLongerThanTheChunkGoesInOnePut) {
  for (int size : {1, 999, 1000}) {
    SCOPED_TRACE(size);
    FakeConnection connection;
    ConnectionUtils utils(1000, &connection);
    const QByteArray data = PatternBytes(size);
    OutcomeRecorder recorder;
    Start(utils, data, recorder);
    connection.AnswerLast(0, LocationLines());
    ASSERT_EQ(connection.requests().size(), 2u);
    ExpectPut(connection.requests()[1], data, 0, static_cast<std::uint32_t>(size));
    EXPECT_EQ(connection.requests()[1].headers[2],
              QStringLiteral("Content-Range: bytes 0-%1/%2").arg(size - 1).arg(size));
    connection.AnswerLast(0, {S("ETag: \"e\"")}, "<entry/>");
    const auto& outcome = recorder.only();
    EXPECT_EQ(outcome.info.status, 0);
    EXPECT_EQ(outcome.info.request_id, connection.requests()[1].id);
    EXPECT_EQ(outcome.body, QByteArray("<entry/>"));
    EXPECT_EQ(outcome.headers, Lines{S("ETag: \"e\"")});
  }
}

TEST_F(ResumableUploadTest, RangeEndingBeforeTheLastByteSendsExactlyTheLastByte) {
  ConnectionUtils utils(600, &connection_);
  const QByteArray data = PatternBytes(1000);
  OutcomeRecorder recorder;
  Start(utils, data, recorder);
  connection_.AnswerLast(0, LocationLines());
  connection_.AnswerLast(308, RangeLines(999));
  ASSERT_EQ(connection_.requests().size(), 3u);
  ExpectPut(connection_.requests()[2], data, 999, 1);
  EXPECT_EQ(connection_.requests()[2].headers,
            (Lines{S("Content-Length: 1"), S("Content-Type: application/pdf"),
                   S("Content-Range: bytes 999-999/1000")}));
  EXPECT_EQ(connection_.requests()[2].body, QByteArray(1, data[999]));
  connection_.AnswerLast(0, {}, "done");
  EXPECT_EQ(recorder.only().info.status, 0);
  EXPECT_EQ(recorder.only().body, QByteArray("done"));
}

TEST_F(ResumableUploadTest, ResumesFromTheReportedPositionNotFromTheChunksEnd) {
  ConnectionUtils utils(512, &connection_);
  const QByteArray data = PatternBytes(2000);
  OutcomeRecorder recorder;
  Start(utils, data, recorder);
  connection_.AnswerLast(0, LocationLines());
  ExpectPut(connection_.last(), data, 0, 512);
  connection_.AnswerLast(308, RangeLines(99));  // the server kept only part of the chunk
  ExpectPut(connection_.last(), data, 99, 512);
  connection_.AnswerLast(308, RangeLines(0));  // and then almost nothing
  ExpectPut(connection_.last(), data, 0, 512);
  connection_.AnswerLast(308, {S("Range: bytes=0-1700"), S("Range: bytes=0-5")});
  ExpectPut(connection_.last(), data, 1700, 300);
  connection_.AnswerLast(0, {}, "ok");
  EXPECT_EQ(connection_.requests().size(), 5u);
  EXPECT_EQ(recorder.only().info.status, 0);
  EXPECT_EQ(recorder.only().info.request_id, connection_.requests()[4].id);
}

TEST_F(ResumableUploadTest, RangeEndingAtTheTotalEndsWithMadeUpFailure) {
  ConnectionUtils utils(600, &connection_);
  const QByteArray data = PatternBytes(1000);
  OutcomeRecorder recorder;
  Start(utils, data, recorder);
  connection_.AnswerLast(0, LocationLines());
  connection_.AnswerLast(308, RangeLines(1000));
  EXPECT_EQ(connection_.requests().size(), 2u) << "nothing is left to send from the total";
  const auto& outcome = recorder.only();
  // The outcome carries the PUT's id.
  ExpectMadeUpFailure(outcome, connection_.requests()[1].id);
}

TEST_F(ResumableUploadTest, RangeBeyondTheDataEndsWithMadeUpFailure) {
  for (std::uint32_t last : {1001u, 1599u, 1600u, 5000u, 2147483648u, 4294967295u}) {
    SCOPED_TRACE(last);
    FakeConnection connection;
    ConnectionUtils utils(600, &connection);
    const QByteArray data = PatternBytes(1000);
    OutcomeRecorder recorder;
    Start(utils, data, recorder);
    connection.AnswerLast(0, LocationLines());
    connection.AnswerLast(308, RangeLines(last));
    EXPECT_EQ(connection.requests().size(), 2u) << "no chunk may start outside the data";
    const auto& outcome = recorder.only();
    ExpectMadeUpFailure(outcome, connection.requests()[1].id);
  }
}

TEST_F(ResumableUploadTest, UnreadableRangeEndsWithMadeUpFailure) {
  const std::vector<HeaderCase> cases = {
      {"no header list", {}, true},
      {"no Range", {S("Content-Length: 0")}, false},
      {"lower-case name", {S("range: bytes=0-99")}, false},
      {"no dash", {S("Range: bytes=10")}, false},
      {"nothing after the dash", {S("Range: bytes=0-")}, false},
      {"not a number", {S("Range: bytes=0-ninety")}, false},
      {"second dash", {S("Range: a-b-7")}, false},
      {"empty value", {S("Range: "), S("Range: bytes=0-9")}, false},
  };
  for (const HeaderCase& c : cases) {
    SCOPED_TRACE(c.name);
    FakeConnection connection;
    ConnectionUtils utils(600, &connection);
    OutcomeRecorder recorder;
    Start(utils, PatternBytes(1000), recorder);
    connection.AnswerLast(0, LocationLines());
    connection.AnswerLast(308, c.lines, "incomplete", c.null_headers);
    EXPECT_EQ(connection.requests().size(), 2u);
    const auto& outcome = recorder.only();
    ExpectMadeUpFailure(outcome, connection.requests()[1].id);
  }
}

TEST_F(ResumableUploadTest, MadeUpFailureCarriesTheLastAnsweredPutsId) {
  ConnectionUtils utils(100, &connection_);
  OutcomeRecorder recorder;
  const unsigned int post_id = Start(utils, PatternBytes(1000), recorder);
  connection_.AnswerLast(0, LocationLines());
  connection_.AnswerLast(308, RangeLines(99));
  connection_.AnswerLast(308, RangeLines(198));
  ASSERT_EQ(connection_.requests().size(), 4u);
  connection_.AnswerLast(308, {S("Range: none")});
  const auto& outcome = recorder.only();
  EXPECT_EQ(outcome.info.status, 2);
  EXPECT_EQ(outcome.info.request_id, connection_.requests()[3].id);
  EXPECT_NE(outcome.info.request_id, post_id);
}

TEST_F(ResumableUploadTest, PutFailureIsPassedOnWithoutTheServersBodyAndNotRetried) {
  for (int status : {1, 2, 300, 302, 400, 404, 409, 416, 500, 503}) {
    SCOPED_TRACE(status);
    FakeConnection connection;
    ConnectionUtils utils(600, &connection);
    OutcomeRecorder recorder;
    Start(utils, PatternBytes(1000), recorder);
    connection.AnswerLast(0, LocationLines());
    connection.AnswerLast(308, RangeLines(599));
    const Lines lines = {S("Content-Type: text/html"), S("Range: bytes=0-700"),
                         S("Retry-After: 5")};
    connection.AnswerLast(status, lines, "<html>busy</html>");
    EXPECT_EQ(connection.requests().size(), 3u) << "no retry";
    const auto& outcome = recorder.only();
    EXPECT_EQ(outcome.info.status, status);
    EXPECT_EQ(outcome.info.request_id, connection.requests()[2].id);
    EXPECT_EQ(outcome.headers_pointer, connection.last_headers()) << "the response unchanged";
    EXPECT_EQ(outcome.headers, lines);
    EXPECT_TRUE(outcome.body_is_empty);
  }
}

TEST_F(ResumableUploadTest, ChunkSizeZeroSendsEmptyPutsAndFollowsTheServer) {
  ConnectionUtils utils(0, &connection_);
  const QByteArray data = PatternBytes(10);
  OutcomeRecorder recorder;
  Start(utils, data, recorder, "text/plain");
  connection_.AnswerLast(0, LocationLines());
  ASSERT_EQ(connection_.requests().size(), 2u);
  ExpectPut(connection_.requests()[1], data, 0, 0, "text/plain");
  EXPECT_EQ(connection_.requests()[1].headers,
            (Lines{S("Content-Length: 0"), S("Content-Type: text/plain"),
                   S("Content-Range: bytes 0-4294967295/10")}));
  EXPECT_TRUE(connection_.requests()[1].body.isEmpty());
  connection_.AnswerLast(308, RangeLines(3));
  ASSERT_EQ(connection_.requests().size(), 3u);
  EXPECT_EQ(connection_.requests()[2].headers,
            (Lines{S("Content-Length: 0"), S("Content-Type: text/plain"),
                   S("Content-Range: bytes 3-2/10")}));
  EXPECT_EQ(connection_.requests()[2].body_size, 0);
  connection_.AnswerLast(308, RangeLines(10));
  EXPECT_EQ(connection_.requests().size(), 3u);
  EXPECT_EQ(recorder.only().info.status, 2);
  EXPECT_EQ(recorder.only().info.request_id, connection_.requests()[2].id);
}

TEST_F(ResumableUploadTest, ChunkSizeZeroEndsOnTheServersSuccess) {
  ConnectionUtils utils(0, &connection_);
  OutcomeRecorder recorder;
  Start(utils, PatternBytes(10), recorder);
  connection_.AnswerLast(0, LocationLines());
  connection_.AnswerLast(0, {}, "fine");
  EXPECT_EQ(recorder.only().info.status, 0);
  EXPECT_EQ(recorder.only().body, QByteArray("fine"));
}

// --- Data handling

TEST_F(ResumableUploadTest, DataIsSharedNotCopiedAndOutlivesTheCallersCopy) {
  ConnectionUtils utils(300, &connection_);
  const QByteArray expected = PatternBytes(1000);
  const char* bytes = nullptr;
  OutcomeRecorder recorder;
  {
    QByteArray data(expected.constData(), expected.size());  // the caller's own, unshared copy
    bytes = data.constData();
    Start(utils, data, recorder);
  }  // the caller drops its copy; the upload's handlers still hold the bytes
  connection_.AnswerLast(0, LocationLines());
  std::uint32_t first = 0;
  for (int round = 0; round < 3; ++round) {
    const SentRequest& put = connection_.last();
    EXPECT_EQ(put.body_data, bytes + first) << "a view into the caller's original bytes";
    ASSERT_EQ(put.body_size, 300);
    EXPECT_EQ(std::memcmp(put.body_data, expected.constData() + first, 300), 0);
    first += 299;
    connection_.AnswerLast(308, RangeLines(first));
  }
  ASSERT_EQ(connection_.requests().size(), 5u);
  EXPECT_EQ(connection_.last().body_data, bytes + 897);
  EXPECT_EQ(connection_.last().body_size, 103);
  EXPECT_EQ(std::memcmp(connection_.last().body_data, expected.constData() + 897, 103), 0);
  connection_.AnswerLast(0, {}, "ok");
  EXPECT_EQ(recorder.only().info.status, 0);
}

TEST_F(ResumableUploadTest, RawDataIsNeverDetachedOrCopied) {
  const QByteArray source = PatternBytes(4096);
  const QByteArray view = QByteArray::fromRawData(source.constData(), source.size());
  ConnectionUtils utils(1024, &connection_);
  OutcomeRecorder recorder;
  Start(utils, view, recorder);
  connection_.AnswerLast(0, LocationLines());
  for (std::uint32_t first : {0u, 1023u, 2046u, 3069u}) {
    EXPECT_EQ(connection_.last().body_data, source.constData() + first);
    connection_.AnswerLast(308, RangeLines(first + 1023));
  }
  EXPECT_EQ(connection_.last().body_data, source.constData() + 4092);
  EXPECT_EQ(connection_.last().body_size, 4);
  connection_.AnswerLast(0);
  EXPECT_EQ(recorder.only().info.status, 0);
}

TEST_F(ResumableUploadTest, SeveralUploadsAtOnceOnOneObject) {
  ConnectionUtils utils(400, &connection_);
  const QByteArray a = PatternBytes(1000);
  const QByteArray b = PatternBytes(700).toUpper();
  const QByteArray c;
  OutcomeRecorder ra, rb, rc;
  const unsigned int post_a =
      utils.ResumableUpload(S("https://h.example/a"), S("<a/>"), S("type/a"), a, ra.Callback());
  const unsigned int post_b =
      utils.ResumableUpload(S("https://h.example/b"), S("<b/>"), S("type/b"), b, rb.Callback());
  const unsigned int post_c =
      utils.ResumableUpload(S("https://h.example/c"), S("<c/>"), S("type/c"), c, rc.Callback());
  ASSERT_EQ(connection_.requests().size(), 3u);
  EXPECT_EQ(connection_.requests()[1].headers[2], S("X-Upload-Content-Length: 700"));

  // Answers arrive in an order unrelated to the order of issue.
  connection_.Answer(1, 0, {S("Location: https://up.example/b")});  // -> request 3: b from 0
  connection_.Answer(0, 0, {S("Location: https://up.example/a")});  // -> request 4: a from 0
  ExpectPut(connection_.requests()[3], b, 0, 400, "type/b", "https://up.example/b");
  ExpectPut(connection_.requests()[4], a, 0, 400, "type/a", "https://up.example/a");
  connection_.Answer(4, 308, RangeLines(399));  // -> request 5: a from 399
  ExpectPut(connection_.requests()[5], a, 399, 400, "type/a", "https://up.example/a");
  connection_.Answer(2, 0, {S("Location: https://up.example/c")});  // c: empty, ends at once
  EXPECT_EQ(connection_.requests().size(), 6u);
  ASSERT_EQ(rc.count(), 1u);
  EXPECT_EQ(rc.only().info.status, 2);
  EXPECT_EQ(rc.only().info.request_id, post_c);
  connection_.Answer(3, 308, RangeLines(399));  // -> request 6: b from 399
  ExpectPut(connection_.requests()[6], b, 399, 301, "type/b", "https://up.example/b");
  connection_.Answer(5, 308, RangeLines(798));  // -> request 7: a from 798
  ExpectPut(connection_.requests()[7], a, 798, 202, "type/a", "https://up.example/a");
  connection_.Answer(6, 0, {}, "b done");
  connection_.Answer(7, 503, {}, "a failed");
  EXPECT_EQ(connection_.pending(), 0u);
  EXPECT_EQ(connection_.requests().size(), 8u);

  EXPECT_EQ(ra.only().info.status, 503);
  EXPECT_EQ(ra.only().info.request_id, connection_.requests()[7].id);
  EXPECT_TRUE(ra.only().body_is_empty);
  EXPECT_EQ(rb.only().info.status, 0);
  EXPECT_EQ(rb.only().info.request_id, connection_.requests()[6].id);
  EXPECT_EQ(rb.only().body, QByteArray("b done"));
  EXPECT_EQ(rc.count(), 1u);
  EXPECT_NE(post_a, post_b);
}

TEST_F(ResumableUploadTest, ObjectMayBeCreatedWithNewAndDeletedAfterItsUploads) {
  ConnectionUtils* utils = new ConnectionUtils(1 << 20, &connection_);
  OutcomeRecorder recorder;
  utils->ResumableUpload(S(kPostUrl), S(kMetadata), S("a/b"), PatternBytes(10),
                         recorder.Callback());
  connection_.AnswerLast(0, LocationLines());
  connection_.AnswerLast(0, {}, "ok");
  delete utils;
  EXPECT_EQ(recorder.only().info.status, 0);
}

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
// Positions are 32-bit on the wire, so data of 4 GiB or more is refused once the upload is open,
// before any of it is read. The bytes are inaccessible pages: touching one would crash.
TEST_F(ResumableUploadTest, DataOf4GiBOrMoreIsRefusedWithoutReadingIt) {
  for (const long long size : {4294967296LL, 4294967296LL + 1000}) {
    SCOPED_TRACE(size);
    void* pages = mmap(nullptr, static_cast<std::size_t>(size), PROT_NONE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    {
      const QByteArray data = QByteArray::fromRawData(static_cast<const char*>(pages), size);
      FakeConnection connection;
      ConnectionUtils utils(1 << 20, &connection);
      OutcomeRecorder recorder;
      const unsigned int post_id = Start(utils, data, recorder, "a/b");
      EXPECT_EQ(connection.last().headers[2],
                QStringLiteral("X-Upload-Content-Length: %1").arg(size));
      connection.AnswerLast(0, LocationLines());
      EXPECT_EQ(connection.requests().size(), 1u) << "no PUT";
      EXPECT_EQ(recorder.only().info.status, 2);
      EXPECT_EQ(recorder.only().info.request_id, post_id);
    }
    munmap(pages, static_cast<std::size_t>(size));
  }
}
#endif

using ResumableUploadDeathTest = ResumableUploadTest;

TEST_F(ResumableUploadDeathTest, AnEmptyCallbackAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_GUARD_ABORT({
    FakeConnection connection;
    ConnectionUtils utils(10, &connection);
    utils.ResumableUpload(S(kPostUrl), S(kMetadata), S("a/b"), PatternBytes(5),
                          kestrel::quire::ResponseCallback());
    connection.AnswerLast(500);
  });
}

}  // namespace
