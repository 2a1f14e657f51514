#include "tools/quire/progress_connection.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "quire/connection/connection.h"
#include "quire/upload/connection_utils.h"
#include "tests/support/test_support.h"
#include "tools/quire/progress_bar.h"

namespace {

using kestrel::quire::Connection;
using kestrel::quire::ConnectionParams;
using kestrel::quire::ConnectionUtils;
using kestrel::quire::NetworkResponseInfo;
using quire_cli::ProgressBar;
using quire_cli::ProgressConnection;
using quire_test::Http;

const char kStart[] = "https://docs.quire.example/upload/create-session/default/private/full";
const char kSession[] =
    "https://docs.quire.example/upload/session/0123456789abcdef0123456789abcdef";

// Records what the connection reports and how the upload ended.
struct Watcher {
  std::vector<QString> sessions;
  std::vector<std::int64_t> held;
  int calls = 0;
  int status = -1;
  QByteArray body;
};

class ProgressConnectionTest : public quire_test::ScriptedTest {
 protected:
  // A ProgressConnection over a real Connection, watched by `watcher`.
  ProgressConnection* Make(Watcher* watcher, ProgressBar* bar, std::int64_t total) {
    auto* connection = new ProgressConnection(new Connection(), bar);
    connection->Init(
        {QStringLiteral("Quire-Version: 3.0"), QStringLiteral("Authorization: Bearer t")});
    connection->set_total(total);
    connection->set_session_listener(
        [watcher](const QString& url) { watcher->sessions.push_back(url); });
    connection->set_progress_listener([watcher](std::int64_t held, std::int64_t total_bytes) {
      EXPECT_GT(total_bytes, 0);
      watcher->held.push_back(held);
    });
    return connection;
  }

  void Upload(ProgressConnection* connection, std::uint32_t chunk, const QByteArray& data,
              Watcher* watcher) {
    ConnectionUtils utils(chunk, connection);
    utils.ResumableUpload(QString::fromLatin1(kStart), QString(), QStringLiteral("text/plain"),
                          data, [watcher](NetworkResponseInfo info, QByteArray body) {
                            ++watcher->calls;
                            watcher->status = info.status;
                            watcher->body = QByteArray(body.constData(), body.size());
                          });
    RunUntil([watcher] { return watcher->calls > 0; });
  }
};

TEST_F(ProgressConnectionTest, SeesTheSessionAndEveryChunkOfAnUpload) {
  transport_.Enqueue(Http(200), QByteArray(), {QStringLiteral("Location: ") + kSession});
  transport_.Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-9")});
  transport_.Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-18")});
  transport_.Enqueue(Http(201), QByteArray("<entry/>"));
  std::ostringstream out;
  ProgressBar bar(&out, 25, 0);
  Watcher watcher;
  ProgressConnection* connection = Make(&watcher, &bar, 25);
  Upload(connection, 10, QByteArray(25, 'x'), &watcher);

  EXPECT_EQ(watcher.calls, 1);
  EXPECT_EQ(watcher.status, 0);
  EXPECT_EQ(watcher.body, QByteArray("<entry/>"));
  EXPECT_EQ(watcher.sessions, std::vector<QString>{QString::fromLatin1(kSession)});
  EXPECT_EQ(watcher.held, (std::vector<std::int64_t>{10, 19, 25}));
  EXPECT_EQ(connection->session_url(), QString::fromLatin1(kSession));
  EXPECT_EQ(connection->held(), 25);
  EXPECT_EQ(connection->put_answers(), 3);
  EXPECT_NE(out.str().find("25 B / 25 B"), std::string::npos) << out.str();
  // The requests went out through the inner connection with its fixed lines.
  ASSERT_EQ(transport_.requests().size(), 4u);
  const std::vector<QString> lines = quire_test::Lines(transport_.requests()[1]);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], QStringLiteral("Quire-Version: 3.0"));
  EXPECT_EQ(lines[1], QStringLiteral("Authorization: Bearer t"));
  EXPECT_EQ(transport_.requests()[1].url, QString::fromLatin1(kSession));
  delete connection;
}

TEST_F(ProgressConnectionTest, AFailedOpeningGivesNoSessionAndAFailedChunkNoProgress) {
  transport_.Enqueue(Http(503), QByteArray("busy"));
  Watcher first;
  ProgressConnection* connection = Make(&first, nullptr, 25);
  Upload(connection, 10, QByteArray(25, 'x'), &first);
  EXPECT_EQ(first.status, 503);
  EXPECT_TRUE(first.sessions.empty());
  EXPECT_TRUE(connection->session_url().isEmpty());
  delete connection;

  transport_.Enqueue(Http(200), QByteArray(), {QStringLiteral("Location: ") + kSession});
  transport_.Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-9")});
  transport_.Enqueue(Http(500), QByteArray());
  Watcher second;
  connection = Make(&second, nullptr, 25);
  Upload(connection, 10, QByteArray(25, 'x'), &second);
  EXPECT_EQ(second.status, 500);
  EXPECT_EQ(second.sessions.size(), 1u);
  EXPECT_EQ(second.held, std::vector<std::int64_t>{10});
  EXPECT_EQ(connection->held(), 10);
  delete connection;
}

TEST_F(ProgressConnectionTest, AnOpeningWithoutLocationGivesNoSession) {
  transport_.Enqueue(Http(200), QByteArray(), {QStringLiteral("location: ") + kSession});
  Watcher watcher;
  ProgressConnection* connection = Make(&watcher, nullptr, 5);
  Upload(connection, 10, QByteArray(5, 'x'), &watcher);
  EXPECT_EQ(watcher.status, 2);
  EXPECT_TRUE(watcher.sessions.empty());
  delete connection;
}

TEST_F(ProgressConnectionTest, OtherRequestsPassThroughUntouched) {
  transport_.Enqueue(Http(200), QByteArray("hello"));
  Watcher watcher;
  ProgressConnection* connection = Make(&watcher, nullptr, 5);
  ConnectionParams params{};
  params.method = kestrel::quire::kMethodGet;
  params.url = QStringLiteral("https://docs.quire.example/content/d1");
  int calls = 0;
  QByteArray body;
  const unsigned int id = connection->Request(params, [&](NetworkResponseInfo info, QByteArray b) {
    ++calls;
    EXPECT_EQ(info.status, 0);
    body = QByteArray(b.constData(), b.size());
  });
  EXPECT_EQ(id, 1u);
  connection->Cancel(id);
  RunUntil([&] { return calls > 0; });
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(body, QByteArray("hello"));
  EXPECT_TRUE(watcher.held.empty());
  EXPECT_EQ(connection->put_answers(), 0);
  delete connection;
}

TEST(ProgressConnectionRangeTest, TheHeldCountIsTheLastPositionPlusOne) {
  EXPECT_EQ(ProgressConnection::HeldFromRange(QStringLiteral("bytes=0-0")), 1);
  EXPECT_EQ(ProgressConnection::HeldFromRange(QStringLiteral("bytes=0-524287")), 524288);
  EXPECT_EQ(ProgressConnection::HeldFromRange(QStringLiteral("bytes=0-4294967294")), 4294967295LL);
  EXPECT_EQ(ProgressConnection::HeldFromRange(QString()), 0);
  EXPECT_EQ(ProgressConnection::HeldFromRange(QStringLiteral("bytes=0-")), -1);
  EXPECT_EQ(ProgressConnection::HeldFromRange(QStringLiteral("bytes=10")), -1);
  EXPECT_EQ(ProgressConnection::HeldFromRange(QStringLiteral("items=0-5")), -1);
  EXPECT_EQ(ProgressConnection::HeldFromRange(QStringLiteral("bytes=0-x")), -1);
}

TEST(ProgressConnectionRangeTest, HeaderValuesAreFoundByExactName) {
  const std::vector<QString> lines = {QStringLiteral("range: bytes=0-1"),
                                      QStringLiteral("Range: bytes=0-2"),
                                      QStringLiteral("Range: bytes=0-3")};
  EXPECT_EQ(ProgressConnection::HeaderValue(&lines, QStringLiteral("Range")),
            QStringLiteral("bytes=0-2"));
  EXPECT_EQ(ProgressConnection::HeaderValue(&lines, QStringLiteral("Location")), QString());
  EXPECT_EQ(ProgressConnection::HeaderValue(nullptr, QStringLiteral("Range")), QString());
}

}  // namespace
