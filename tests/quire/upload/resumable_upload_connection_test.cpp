// The resumable upload through the library's own Connection over the scripted transport: what goes
// onto the network layer, bodies that point into the caller's data, and whole uploads against a
// scripted server that answers as the real service does.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "quire/quire.h"
#include "tests/quire/upload/upload_test_support.h"
#include "tests/support/data_pattern.h"
#include "tests/support/test_support.h"

namespace {

using namespace quire_test;  // NOLINT(build/namespaces): the test support

using kestrel::net::HttpRequest;
using kestrel::net::ScriptedTransport;
using kestrel::quire::Connection;
using kestrel::quire::ConnectionUtils;
using namespace quire_test::upload;  // NOLINT(build/namespaces): the upload's test doubles
// The upload's list of lines, not the test support's Lines() of a recorded request.
using quire_test::upload::Lines;

const char kPostUrl[] = "https://docs.quire.example/upload/create-session/default/private/full";
const char kUploadUrl[] = "https://docs.quire.example/upload/session/s-1";
const char kMetadata[] =
    "<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>\xC3\xA9t\xC3\xA9</title></entry>";

// FNV-1a over a byte range, continued from `hash`.
std::uint64_t Fnv(const char* bytes, long long size, std::uint64_t hash = 14695981039346656037ull) {
  for (long long i = 0; i < size; ++i) {
    hash ^= static_cast<unsigned char>(bytes[i]);
    hash *= 1099511628211ull;
  }
  return hash;
}

// The value of the request line named `name`, or an empty string.
QString LineValue(const ScriptedTransport::Seen& seen, const QString& name) {
  const QString key = name + QStringLiteral(": ");
  for (const auto& header : seen.headers) {
    if (header.name.startsWith(key)) return header.name.mid(key.size());
  }
  return QString();
}

// A server that speaks the resumable protocol as the service does: the POST opens a session and
// answers with its address in "Location"; each PUT is checked against the session and answered 308
// with the range held so far, or 201 with the new entry once every byte is in. It folds the bytes
// it receives, each once, into a checksum, and checks that every PUT's body is the caller's bytes
// at the chunk's offset.
class UploadServer {
 public:
  struct Session {
    long long total = 0;
    long long held_last = -1;  // the last position held, -1 for none
    std::uint64_t checksum = 14695981039346656037ull;
    const char* base = nullptr;  // where the caller's data lives
    int puts = 0;
    bool finished = false;
  };

  // The data of the next upload to be opened lives at `base`.
  void ExpectData(const char* base) { next_base_ = base; }

  ScriptedTransport::Answer Respond(const ScriptedTransport::Seen& seen) {
    ScriptedTransport::Answer answer;
    if (seen.method == HttpRequest::kPost) {
      bool ok = false;
      Session session;
      session.total = LineValue(seen, S("X-Upload-Content-Length")).toLongLong(&ok);
      if (!ok) Fail("POST without a readable X-Upload-Content-Length");
      if (LineValue(seen, S("Content-Type")) != S("application/atom+xml")) Fail("POST type");
      session.base = next_base_;
      const QString url = QStringLiteral("https://upload.quire.example/session/%1").arg(++opened_);
      sessions_[url] = session;
      answer.code = Http(200);
      answer.body = "<entry/>";
      answer.headers = {S("Content-Type: application/atom+xml"), S("Location: ") + url};
      return answer;
    }
    auto found = sessions_.find(seen.url);
    if (seen.method != HttpRequest::kPut || found == sessions_.end()) {
      Fail("request to an unknown address");
      answer.code = Http(404);
      return answer;
    }
    Session& session = found->second;
    ++session.puts;
    // "Content-Range: bytes F-L/T"
    const QString range = LineValue(seen, S("Content-Range"));
    const QString positions = range.mid(6);
    const auto dash = positions.indexOf(QLatin1Char('-'));
    const auto slash = positions.indexOf(QLatin1Char('/'));
    const long long first = positions.left(dash).toLongLong();
    const long long last = positions.mid(dash + 1, slash - dash - 1).toLongLong();
    const long long total = positions.mid(slash + 1).toLongLong();
    const long long length = LineValue(seen, S("Content-Length")).toLongLong();
    if (!range.startsWith(S("bytes ")) || dash < 0 || slash < 0) Fail("malformed Content-Range");
    if (total != session.total) Fail("total differs from the POST's");
    if (length != last - first + 1 || static_cast<long long>(seen.body_size) != length) {
      Fail("Content-Length, range and body disagree");
    }
    if (first > session.held_last + 1) Fail("a gap before the chunk");
    if (seen.body_data != session.base + first)
      Fail("the body is not a view at the chunk's offset");
    // Bytes already held are not taken again (the chunk starts on the last byte held).
    const long long from = session.held_last + 1;
    if (last >= from && seen.body_data != nullptr) {
      session.checksum = Fnv(seen.body_data + (from - first), last - from + 1, session.checksum);
      session.held_last = last;
    }
    if (session.held_last == session.total - 1) {
      session.finished = true;
      answer.code = Http(201);
      answer.body = "<entry><id>done</id></entry>";
      answer.headers = {S("Content-Type: application/atom+xml"), S("ETag: \"1\"")};
    } else {
      answer.code = Http(308);
      answer.has_body = false;
      answer.headers = {QStringLiteral("Range: bytes=0-%1").arg(session.held_last)};
    }
    return answer;
  }

  const std::map<QString, Session>& sessions() const { return sessions_; }
  const std::vector<std::string>& errors() const { return errors_; }

 private:
  void Fail(const char* what) { errors_.push_back(what); }

  std::map<QString, Session> sessions_;
  std::vector<std::string> errors_;
  const char* next_base_ = nullptr;
  int opened_ = 0;
};

class ResumableUploadConnectionTest : public quire_test::ScriptedTest {
 protected:
  void SetUp() override {
    ScriptedTest::SetUp();
    connection_ = new Connection();
    connection_->Init({S("Quire-Version: 3.0")});
  }
  void TearDown() override {
    RunUntilIdle();
    delete connection_;
    ScriptedTest::TearDown();
  }

  Connection* connection_ = nullptr;
};

TEST_F(ResumableUploadConnectionTest, MillionBytesInTwoChunksOnTheNetworkLayer) {
  ConnectionUtils utils(524288, connection_);
  const QByteArray data = PatternBytes(1000000);
  transport_.Enqueue(Http(200), "<entry/>", {S("Location: ") + S(kUploadUrl)});
  transport_.Enqueue(Http(308), QByteArray(), {S("Range: bytes=0-524287")});
  transport_.Enqueue(Http(201), "<entry><id>new</id></entry>", {S("ETag: \"9\"")});
  OutcomeRecorder recorder;
  const unsigned int post_id = utils.ResumableUpload(
      S(kPostUrl), S(kMetadata), S("application/pdf"), data, recorder.Callback());
  EXPECT_EQ(post_id, 1u);
  RunUntil([&] { return recorder.count() > 0; });
  RunUntilIdle();

  const auto& seen = transport_.requests();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].method, HttpRequest::kPost);
  EXPECT_EQ(seen[0].url, S(kPostUrl));
  EXPECT_EQ(seen[0].body, QByteArray(kMetadata));
  EXPECT_TRUE(seen[0].keep_response_headers);
  EXPECT_EQ(
      quire_test::Lines(seen[0]),
      (Lines{S("Quire-Version: 3.0"), S("Content-Type: application/atom+xml"),
             S("X-Upload-Content-Type: application/pdf"), S("X-Upload-Content-Length: 1000000")}));

  EXPECT_EQ(seen[1].method, HttpRequest::kPut);
  EXPECT_EQ(seen[1].url, S(kUploadUrl));
  EXPECT_TRUE(seen[1].keep_response_headers);
  EXPECT_EQ(quire_test::Lines(seen[1]), (Lines{S("Quire-Version: 3.0"), S("Content-Length: 524288"),
                                               S("Content-Type: application/pdf"),
                                               S("Content-Range: bytes 0-524287/1000000")}));
  EXPECT_EQ(seen[1].body_data, data.constData()) << "the first chunk is the caller's bytes";
  EXPECT_EQ(seen[1].body_size, 524288u);
  EXPECT_EQ(seen[1].body, data.left(524288));

  EXPECT_EQ(seen[2].method, HttpRequest::kPut);
  EXPECT_EQ(seen[2].url, S(kUploadUrl));
  EXPECT_EQ(quire_test::Lines(seen[2]), (Lines{S("Quire-Version: 3.0"), S("Content-Length: 475713"),
                                               S("Content-Type: application/pdf"),
                                               S("Content-Range: bytes 524287-999999/1000000")}));
  EXPECT_EQ(seen[2].body_data, data.constData() + 524287) << "the second chunk starts at 524287";
  EXPECT_EQ(seen[2].body_size, 475713u);
  EXPECT_EQ(seen[2].body, data.mid(524287));

  const auto& outcome = recorder.only();
  EXPECT_EQ(outcome.info.status, 0);
  EXPECT_EQ(outcome.info.request_id, 3u) << "POST 1, PUTs 2 and 3: the last PUT's answer";
  EXPECT_EQ(outcome.headers, Lines{S("ETag: \"9\"")});
  EXPECT_EQ(outcome.body, QByteArray("<entry><id>new</id></entry>"));
}

TEST_F(ResumableUploadConnectionTest, ServerFailuresArePassedOnWithoutTheirBody) {
  ConnectionUtils utils(100, connection_);
  const QByteArray data = PatternBytes(250);
  transport_.Enqueue(Http(200), "<entry/>", {S("Location: ") + S(kUploadUrl)});
  transport_.Enqueue(Http(503), "<html>try later</html>", {S("Retry-After: 30")});
  OutcomeRecorder recorder;
  utils.ResumableUpload(S(kPostUrl), S(kMetadata), S("a/b"), data, recorder.Callback());
  RunUntil([&] { return recorder.count() > 0; });
  RunUntilIdle();
  EXPECT_EQ(transport_.requests().size(), 2u) << "not retried";
  const auto& outcome = recorder.only();
  EXPECT_EQ(outcome.info.status, 503);
  EXPECT_EQ(outcome.info.request_id, 2u);
  EXPECT_EQ(outcome.headers, Lines{S("Retry-After: 30")});
  EXPECT_TRUE(outcome.body_is_empty);
}

TEST_F(ResumableUploadConnectionTest, UnlistedRedirectionIsAPassedOnFailureWithHeaders) {
  ConnectionUtils utils(100, connection_);
  transport_.Enqueue(Http(200), "", {S("Location: ") + S(kUploadUrl)});
  transport_.Enqueue(Http(307), "moved", {S("Location: https://other.example/")});
  OutcomeRecorder recorder;
  utils.ResumableUpload(S(kPostUrl), S(kMetadata), S("a/b"), PatternBytes(50), recorder.Callback());
  RunUntil([&] { return recorder.count() > 0; });
  const auto& outcome = recorder.only();
  EXPECT_EQ(outcome.info.status, 2) << "the connection's failure for 307";
  EXPECT_NE(outcome.headers_pointer, nullptr) << "the response's own record, headers included";
  EXPECT_EQ(outcome.headers, Lines{S("Location: https://other.example/")});
  EXPECT_TRUE(outcome.body_is_empty);
}

TEST_F(ResumableUploadConnectionTest, NetworkFailureOfThePostIsPassedOn) {
  ConnectionUtils utils(100, connection_);
  ScriptedTransport::Answer refused;
  refused.code = kestrel::net::status::kErrorConnectionRefused;
  refused.has_body = false;
  transport_.Enqueue(refused);
  OutcomeRecorder recorder;
  const unsigned int post_id = utils.ResumableUpload(S(kPostUrl), S(kMetadata), S("a/b"),
                                                     PatternBytes(50), recorder.Callback());
  RunUntil([&] { return recorder.count() > 0; });
  EXPECT_EQ(recorder.only().info.status, 2);
  EXPECT_EQ(recorder.only().info.request_id, post_id);
  EXPECT_NE(recorder.only().headers_pointer, nullptr);
  EXPECT_EQ(transport_.requests().size(), 1u);
}

TEST_F(ResumableUploadConnectionTest, RangeBeyondTheDataEndsTheUpload) {
  ConnectionUtils utils(100, connection_);
  transport_.Enqueue(Http(200), "", {S("Location: ") + S(kUploadUrl)});
  transport_.Enqueue(Http(308), "", {S("Range: bytes=0-150")});
  OutcomeRecorder recorder;
  utils.ResumableUpload(S(kPostUrl), S(kMetadata), S("a/b"), PatternBytes(120),
                        recorder.Callback());
  RunUntil([&] { return recorder.count() > 0; });
  RunUntilIdle();
  EXPECT_EQ(transport_.requests().size(), 2u);
  const auto& outcome = recorder.only();
  ExpectMadeUpFailure(outcome, 2u);
}

TEST_F(ResumableUploadConnectionTest, WholeUploadOf64MiBIn1MiBChunks) {
  constexpr long long kSize = 64ll << 20;
  constexpr std::uint32_t kChunk = 1u << 20;
  transport_.set_record_bodies(false);
  UploadServer server;
  transport_.SetResponder(
      [&](const ScriptedTransport::Seen& seen) { return server.Respond(seen); });
  ConnectionUtils utils(kChunk, connection_);
  OutcomeRecorder recorder;
  std::uint64_t expected_checksum = 0;
  {
    // The caller hands the data over and drops its own copy: the upload keeps the bytes alive.
    const QByteArray data = PatternBytes(kSize);
    expected_checksum = Fnv(data.constData(), kSize);
    server.ExpectData(data.constData());
    utils.ResumableUpload(S(kPostUrl), S(kMetadata), S("application/octet-stream"), data,
                          recorder.Callback());
  }
  RunUntil([&] { return recorder.count() > 0; }, 60.0);
  RunUntilIdle();

  EXPECT_TRUE(server.errors().empty()) << server.errors().front();
  ASSERT_EQ(server.sessions().size(), 1u);
  const UploadServer::Session& session = server.sessions().begin()->second;
  EXPECT_TRUE(session.finished);
  EXPECT_EQ(session.total, kSize);
  EXPECT_EQ(session.checksum, expected_checksum) << "the server holds exactly the caller's bytes";
  // The first PUT takes 1 MiB; each later one starts on the last byte held, so it adds 1 MiB - 1
  // new bytes: 64 MiB needs 1 + ceil((64 MiB - 1 MiB) / (1 MiB - 1)) = 65 PUTs.
  EXPECT_EQ(session.puts, 65);
  EXPECT_EQ(transport_.requests().size(), 66u);
  const auto& outcome = recorder.only();
  EXPECT_EQ(outcome.info.status, 0);
  EXPECT_EQ(outcome.info.request_id, 66u);
  EXPECT_EQ(outcome.body, QByteArray("<entry><id>done</id></entry>"));
  for (const auto& seen : transport_.requests()) {
    if (seen.method == HttpRequest::kPut) {
      EXPECT_LE(seen.body_size, kChunk);
    }
  }
}

TEST_F(ResumableUploadConnectionTest, SeveralUploadsAtOnceOnOneObject) {
  UploadServer server;
  transport_.SetResponder(
      [&](const ScriptedTransport::Seen& seen) { return server.Respond(seen); });
  ConnectionUtils utils(64 * 1024, connection_);
  const std::vector<long long> sizes = {1, 64 * 1024, 300000, 1 << 20};
  std::vector<QByteArray> data;
  std::vector<OutcomeRecorder> recorders(sizes.size());
  std::vector<unsigned int> post_ids;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    data.push_back(PatternBytes(sizes[i] + static_cast<long long>(i)).left(sizes[i]));
    // Each POST reaches the transport inside ResumableUpload, so the server sees them in order.
    server.ExpectData(data[i].constData());
    post_ids.push_back(utils.ResumableUpload(
        QStringLiteral("https://docs.quire.example/u/%1").arg(i), S(kMetadata),
        S("application/octet-stream"), data[i], recorders[i].Callback()));
  }
  RunUntil([&] {
    for (const auto& r : recorders) {
      if (r.count() == 0) return false;
    }
    return true;
  });
  RunUntilIdle();
  EXPECT_TRUE(server.errors().empty()) << server.errors().front();
  ASSERT_EQ(server.sessions().size(), sizes.size());
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    SCOPED_TRACE(i);
    const auto& session =
        server.sessions().at(QStringLiteral("https://upload.quire.example/session/%1").arg(i + 1));
    EXPECT_TRUE(session.finished);
    EXPECT_EQ(session.checksum, Fnv(data[i].constData(), sizes[i]));
    EXPECT_EQ(recorders[i].only().info.status, 0);
    EXPECT_EQ(recorders[i].only().body, QByteArray("<entry><id>done</id></entry>"));
  }
  EXPECT_EQ(post_ids, (std::vector<unsigned int>{1, 2, 3, 4}));
}

TEST_F(ResumableUploadConnectionTest, UploadsInterleaveOnOneObject) {
  // Two uploads opened together proceed in step: their requests alternate on the network layer.
  UploadServer server;
  transport_.SetResponder(
      [&](const ScriptedTransport::Seen& seen) { return server.Respond(seen); });
  ConnectionUtils utils(1000, connection_);
  const QByteArray a = PatternBytes(5000);
  const QByteArray b = PatternBytes(5000).toUpper();
  OutcomeRecorder ra, rb;
  server.ExpectData(a.constData());
  utils.ResumableUpload(S("https://docs.quire.example/a"), S("<a/>"), S("x/a"), a, ra.Callback());
  server.ExpectData(b.constData());
  utils.ResumableUpload(S("https://docs.quire.example/b"), S("<b/>"), S("x/b"), b, rb.Callback());
  RunUntil([&] { return ra.count() > 0 && rb.count() > 0; });
  RunUntilIdle();
  EXPECT_TRUE(server.errors().empty()) << server.errors().front();
  int switches = 0;
  for (std::size_t i = 1; i < transport_.requests().size(); ++i) {
    switches += transport_.requests()[i].url != transport_.requests()[i - 1].url ? 1 : 0;
  }
  EXPECT_GE(switches, 8) << "the two uploads ran side by side";
  EXPECT_EQ(ra.only().info.status, 0);
  EXPECT_EQ(rb.only().info.status, 0);
}

}  // namespace
