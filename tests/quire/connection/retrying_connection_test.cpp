#include "quire/connection/retrying_connection.h"

#include <gtest/gtest.h>

#include <QUrl>
#include <memory>
#include <vector>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/network_status.h"
#include "quire/connection/connection.h"
#include "quire/services/docs_service.h"
#include "quire/services/user_info_service.h"
#include "tests/quire/services/recording_connection.h"
#include "tests/support/quick_retry_policy.h"
#include "tests/support/test_support.h"

namespace {

using kestrel::MainLoop;
using namespace quire_test;  // NOLINT(build/namespaces): the test support
namespace net = kestrel::net::status;
using namespace kestrel::quire;  // NOLINT: method and status constants

// What one request's callback received.
struct Result {
  int calls = 0;
  NetworkResponseInfo info{0, -1, nullptr};
  bool had_headers = false;
  std::vector<QString> headers;
  QByteArray body;
  std::uint32_t code = 0xFFFFFFFFu;
  int attempts = 0;
};

RetryPolicy QuickPolicy(int attempts = 4) { return quire_test::QuickRetryPolicy(attempts); }

class RetryingConnectionTest : public quire_test::ScriptedTest {
 protected:
  void SetUp() override {
    ScriptedTest::SetUp();
    connection_ = new RetryingConnection(new Connection, QuickPolicy());
    connection_->Init({QStringLiteral("Quire-Version: 3.0")});
    connection_->set_retry_observer(
        [this](const RetryingConnection::RetryNotice& notice) { notices_.push_back(notice); });
  }
  void TearDown() override {
    delete connection_;
    ScriptedTest::TearDown();
  }

  unsigned int Issue(std::uint32_t method, Result* result, const QString& url = DocsUrl(),
                     const std::vector<QString>* headers = nullptr, bool collect = true) {
    const QByteArray body("body");
    ConnectionParams params{method, url, &body, headers, collect, 0};
    in_request_ = true;
    const unsigned int id = connection_->StartTransfer(
        params,
        [this, result](NetworkResponseInfo info, QByteArray bytes, std::uint32_t code) {
          EXPECT_FALSE(in_request_) << "never inside the issuing call";
          ++result->calls;
          result->info = info;
          result->had_headers = info.headers != nullptr;
          if (info.headers != nullptr) result->headers = *info.headers;
          result->body = QByteArray(bytes.constData(), bytes.size());
          result->code = code;
          result->attempts = connection_->last_attempts();
        },
        kestrel::quire::ProgressCallback());
    in_request_ = false;
    return id;
  }

  static QString DocsUrl() { return QStringLiteral("https://docs.quire.example/x"); }

  RetryingConnection* connection_ = nullptr;
  std::vector<RetryingConnection::RetryNotice> notices_;
  bool in_request_ = false;
};

TEST_F(RetryingConnectionTest, TransientAnswersAreRetriedUnderOneIdUntilSuccess) {
  transport_.Enqueue(Http(503), "busy", {QStringLiteral("Retry-After: 0")});
  transport_.Enqueue(Http(500));
  transport_.Enqueue(net::kErrorConnectionReset);
  transport_.Enqueue(Http(200), "done", {QStringLiteral("X-Final: 1")});
  Result result;
  const unsigned int id = Issue(kMethodGet, &result);
  EXPECT_EQ(result.calls, 0);
  RunUntil([&] { return result.calls > 0; });
  RunUntilIdle();
  EXPECT_EQ(result.calls, 1);
  EXPECT_EQ(result.info.request_id, id);
  EXPECT_EQ(result.info.status, kStatusSuccess);
  EXPECT_EQ(result.body, QByteArray("done"));
  EXPECT_EQ(result.headers, std::vector<QString>{QStringLiteral("X-Final: 1")});
  EXPECT_EQ(result.code, Http(200));
  EXPECT_EQ(result.attempts, 4);
  EXPECT_EQ(connection_->last_request_id(), id);
  EXPECT_EQ(connection_->retries(), 3u);
  ASSERT_EQ(transport_.requests().size(), 4u);
  for (const auto& seen : transport_.requests()) {
    EXPECT_EQ(seen.body, QByteArray("body")) << "every send carries the whole body";
    EXPECT_EQ(Lines(seen), std::vector<QString>{QStringLiteral("Quire-Version: 3.0")});
  }
  ASSERT_EQ(notices_.size(), 3u);
  EXPECT_EQ(notices_[0].request_id, id);
  EXPECT_EQ(notices_[0].attempt, 1);
  EXPECT_EQ(notices_[0].status, 503);
  EXPECT_DOUBLE_EQ(notices_[0].delay_seconds, 0.0) << "Retry-After: 0";
  EXPECT_EQ(notices_[1].status, 500);
  EXPECT_DOUBLE_EQ(notices_[1].delay_seconds, 0.001) << "backoff: 0.5 of a 2 ms ceiling";
  EXPECT_EQ(notices_[2].status, kStatusFailure);
  EXPECT_EQ(notices_[2].network_code, net::kErrorConnectionReset);
  EXPECT_EQ(connection_->pending(), 0u);
}

TEST_F(RetryingConnectionTest, AfterTheLastAttemptTheLastOutcomeIsFinal) {
  for (int i = 0; i < 4; ++i) {
    transport_.Enqueue(Http(503), "busy " + QByteArray::number(i), {QStringLiteral("A: b")});
  }
  Result result;
  Issue(kMethodPut, &result);
  RunUntil([&] { return result.calls > 0; });
  RunUntilIdle();
  EXPECT_EQ(result.calls, 1);
  EXPECT_EQ(result.info.status, 503);
  EXPECT_EQ(result.body, QByteArray("busy 3")) << "the last answer, unchanged";
  EXPECT_EQ(result.attempts, 4);
  EXPECT_EQ(transport_.requests().size(), 4u);
  EXPECT_EQ(notices_.size(), 3u);
}

TEST_F(RetryingConnectionTest, PermanentAnswersAreNotRetried) {
  for (int status : {400, 401, 404, 412, 501}) {
    transport_.Enqueue(Http(status));
    Result result;
    Issue(kMethodDelete, &result);
    RunUntil([&] { return result.calls > 0; });
    EXPECT_EQ(result.info.status, status);
    EXPECT_EQ(result.attempts, 1);
  }
  transport_.Enqueue(net::kErrorInvalidRequest);
  Result invalid;
  Issue(kMethodGet, &invalid);
  RunUntil([&] { return invalid.calls > 0; });
  EXPECT_EQ(invalid.info.status, kStatusFailure);
  EXPECT_EQ(invalid.attempts, 1);
  EXPECT_EQ(transport_.requests().size(), 6u);
  EXPECT_TRUE(notices_.empty());
}

TEST_F(RetryingConnectionTest, ARefusedCertificateMakesExactlyOneAttempt) {
  // Queued behind the certificate failure: a retry would take this success.
  transport_.Enqueue(net::kErrorCertificate);
  transport_.Enqueue(Http(200), "the next answer");
  Result refused;
  Issue(kMethodGet, &refused);
  RunUntil([&] { return refused.calls > 0; });
  RunUntilIdle();
  EXPECT_EQ(refused.calls, 1);
  EXPECT_EQ(refused.info.status, kStatusFailure);
  EXPECT_EQ(refused.code, net::kErrorCertificate);
  EXPECT_EQ(refused.attempts, 1);
  EXPECT_TRUE(refused.body.isEmpty());
  EXPECT_EQ(transport_.requests().size(), 1u);
  EXPECT_EQ(transport_.queued(), 1u) << "no second attempt took the next answer";
  EXPECT_TRUE(notices_.empty());
  EXPECT_EQ(connection_->retries(), 0u);

  // The next request gets the answer that was left.
  Result next;
  Issue(kMethodGet, &next);
  RunUntil([&] { return next.calls > 0; });
  EXPECT_EQ(next.info.status, kStatusSuccess);
  EXPECT_EQ(next.body, QByteArray("the next answer"));
  EXPECT_EQ(next.attempts, 1);
}

TEST_F(RetryingConnectionTest, AFailedHandshakeIsStillRetried) {
  transport_.Enqueue(net::kErrorTls);
  transport_.Enqueue(Http(200), "through");
  Result result;
  Issue(kMethodGet, &result);
  RunUntil([&] { return result.calls > 0; });
  RunUntilIdle();
  EXPECT_EQ(result.calls, 1);
  EXPECT_EQ(result.info.status, kStatusSuccess);
  EXPECT_EQ(result.body, QByteArray("through"));
  EXPECT_EQ(result.attempts, 2);
  ASSERT_EQ(notices_.size(), 1u);
  EXPECT_EQ(notices_[0].status, kStatusFailure);
  EXPECT_EQ(notices_[0].network_code, net::kErrorTls);
}

TEST_F(RetryingConnectionTest, APostIsSentAgainOnlyWhenItNeverReachedTheServer) {
  transport_.Enqueue(net::kErrorConnectionRefused);
  transport_.Enqueue(net::kErrorNameNotResolved);
  transport_.Enqueue(Http(201), "made");
  Result made;
  Issue(kMethodPost, &made);
  RunUntil([&] { return made.calls > 0; });
  EXPECT_EQ(made.info.status, kStatusSuccess);
  EXPECT_EQ(made.attempts, 3);

  transport_.Enqueue(Http(503));
  Result busy;
  Issue(kMethodPost, &busy);
  RunUntil([&] { return busy.calls > 0; });
  EXPECT_EQ(busy.info.status, 503);
  EXPECT_EQ(busy.attempts, 1) << "a POST that reached the server may have changed something";

  transport_.Enqueue(net::kErrorConnectionReset);
  Result reset;
  Issue(kMethodPost, &reset);
  RunUntil([&] { return reset.calls > 0; });
  EXPECT_EQ(reset.info.status, kStatusFailure);
  EXPECT_EQ(reset.attempts, 1);
  EXPECT_EQ(transport_.requests().size(), 5u);
}

TEST_F(RetryingConnectionTest, NoRetryStartsPastTheTotalDeadline) {
  RetryPolicy policy = QuickPolicy(10);
  policy.set_retry_after_cap_seconds(5);
  policy.set_total_deadline_seconds(0.5);
  connection_->set_policy(policy);
  transport_.Enqueue(Http(503), QByteArray(), {QStringLiteral("Retry-After: 2")});
  Result result;
  Issue(kMethodGet, &result);
  RunUntil([&] { return result.calls > 0; });
  EXPECT_EQ(result.info.status, 503);
  EXPECT_EQ(result.attempts, 1) << "the wait would end after the deadline";
  EXPECT_EQ(transport_.requests().size(), 1u);
}

TEST_F(RetryingConnectionTest, RetryAfterIsHonouredUpToTheCapAndMalformedValuesFallBack) {
  // A day is cut to the 50 ms cap; a date in the past means at once; junk means backoff.
  transport_.Enqueue(Http(429), QByteArray(), {QStringLiteral("Retry-After: 86400")});
  transport_.Enqueue(Http(503), QByteArray(),
                     {QStringLiteral("Retry-After: Sun, 06 Nov 1994 08:49:37 GMT")});
  transport_.Enqueue(Http(503), QByteArray(), {QStringLiteral("Retry-After: later, maybe")});
  transport_.Enqueue(Http(200));
  Result result;
  Issue(kMethodGet, &result);
  RunUntil([&] { return result.calls > 0; });
  EXPECT_EQ(result.info.status, kStatusSuccess);
  ASSERT_EQ(notices_.size(), 3u);
  EXPECT_DOUBLE_EQ(notices_[0].delay_seconds, 0.05);
  EXPECT_DOUBLE_EQ(notices_[1].delay_seconds, 0.0);
  EXPECT_DOUBLE_EQ(notices_[2].delay_seconds, 0.001) << "0.5 of the third ceiling, capped at 2 ms";
}

TEST_F(RetryingConnectionTest, CancelDuringTheBackoffTakesTheTimerBack) {
  RetryPolicy policy = QuickPolicy();
  policy.set_retry_after_cap_seconds(60);
  connection_->set_policy(policy);
  transport_.Enqueue(Http(503), QByteArray(), {QStringLiteral("Retry-After: 30")});
  Result result;
  const unsigned int id = Issue(kMethodGet, &result);
  RunUntil([&] { return notices_.size() == 1; });
  EXPECT_EQ(MainLoop::Default()->pending(), 1u) << "the wait is a main-loop timer";
  connection_->Cancel(id);
  connection_->Cancel(id);  // twice: nothing more
  EXPECT_EQ(result.calls, 0) << "never inside Cancel";
  EXPECT_EQ(MainLoop::Default()->pending(), 1u) << "only the callback's job is left";
  RunUntilIdle();
  EXPECT_EQ(result.calls, 1);
  EXPECT_EQ(result.info.request_id, id);
  EXPECT_EQ(result.info.status, kStatusCancelled);
  EXPECT_TRUE(result.had_headers) << "asked for: an empty list";
  EXPECT_TRUE(result.headers.empty());
  EXPECT_TRUE(result.body.isEmpty());
  EXPECT_EQ(result.code, net::kErrorCancelled);
  EXPECT_EQ(result.attempts, 1);
  EXPECT_EQ(transport_.requests().size(), 1u);
  EXPECT_EQ(MainLoop::Default()->pending(), 0u);
}

TEST_F(RetryingConnectionTest, CancelInFlightStopsTheRequestInTheNetworkLayer) {
  kestrel::net::ScriptedTransport::Answer slow;
  slow.delay_seconds = 30;
  transport_.Enqueue(slow);
  Result result;
  const unsigned int id = Issue(kMethodGet, &result, DocsUrl(), nullptr, false);
  connection_->Cancel(id + 100);  // an unknown id: ignored
  connection_->Cancel(id);        // before the first answer
  RunUntilIdle();
  EXPECT_EQ(result.calls, 1);
  EXPECT_EQ(result.info.status, kStatusCancelled);
  EXPECT_FALSE(result.had_headers) << "not asked for: null";
  EXPECT_EQ(transport_.cancelled(), 1u) << "the transport dropped it";
  EXPECT_EQ(transport_.in_flight(), 0u);
  connection_->Cancel(id);  // after the callback: ignored
  RunUntilIdle();
  EXPECT_EQ(result.calls, 1);
}

TEST_F(RetryingConnectionTest, ARefreshedTokenIsPutIntoTheServiceAndTheRequestSentOnceMore) {
  auto* retrying = new RetryingConnection(new Connection, QuickPolicy());
  kestrel::quire::DocsService docs(retrying);
  docs.SetOAuth2AuthToken(QStringLiteral("old"));
  int refreshes = 0;
  retrying->SetTokenRefresher(
      [&](RetryingConnection::TokenReady ready) {
        ++refreshes;
        MainLoop::Default()->Post([ready] { ready(QStringLiteral("fresh")); });
      },
      &docs);
  transport_.Enqueue(Http(401), "who?", {QStringLiteral("WWW-Authenticate: Bearer")});
  transport_.Enqueue(Http(200));
  int calls = 0;
  NetworkResponseInfo seen{0, -1, nullptr};
  int attempts = 0;
  docs.DeleteEntry(QUrl(QStringLiteral("https://docs.quire.example/d/1")), QString(),
                   [&](NetworkResponseInfo info) {
                     ++calls;
                     seen = info;
                     attempts = retrying->last_attempts();
                   });
  RunUntil([&] { return calls > 0; });
  RunUntilIdle();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(seen.status, kStatusSuccess);
  EXPECT_EQ(attempts, 2);
  EXPECT_EQ(refreshes, 1);
  EXPECT_EQ(docs.OAuth2AuthToken(), QStringLiteral("fresh"));
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(Lines(transport_.requests()[0]),
            (std::vector<QString>{QStringLiteral("Quire-Version: 3.0"),
                                  QStringLiteral("Authorization: Bearer old")}));
  EXPECT_EQ(Lines(transport_.requests()[1]),
            (std::vector<QString>{QStringLiteral("Quire-Version: 3.0"),
                                  QStringLiteral("Authorization: Bearer fresh")}));
}

TEST_F(RetryingConnectionTest, ASecondUnauthorisedIsFinalAndAFailedRefreshPassesTheFirstOn) {
  int refreshes = 0;
  QString next_token = QStringLiteral("t2");
  connection_->SetTokenRefresher(
      [&](RetryingConnection::TokenReady ready) {
        ++refreshes;
        ready(next_token);  // answered at once, inside the refresher
      },
      nullptr);
  const std::vector<QString> auth{QStringLiteral("Authorization: Bearer t1")};
  transport_.Enqueue(Http(401));
  transport_.Enqueue(Http(401), "still no");
  Result twice;
  Issue(kMethodGet, &twice, DocsUrl(), &auth);
  RunUntil([&] { return twice.calls > 0; });
  EXPECT_EQ(twice.info.status, 401);
  EXPECT_EQ(twice.body, QByteArray("still no"));
  EXPECT_EQ(twice.attempts, 2);
  EXPECT_EQ(refreshes, 1);
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(Lines(transport_.requests()[1]).back(), QStringLiteral("Authorization: Bearer t2"));

  next_token.clear();  // the host could not get a token
  transport_.Enqueue(Http(401), "denied", {QStringLiteral("WWW-Authenticate: Bearer")});
  Result failed;
  Issue(kMethodGet, &failed, DocsUrl(), &auth);
  RunUntil([&] { return failed.calls > 0; });
  RunUntilIdle();
  EXPECT_EQ(failed.calls, 1);
  EXPECT_EQ(failed.info.status, 401);
  EXPECT_EQ(failed.body, QByteArray("denied")) << "the kept answer";
  EXPECT_EQ(failed.headers, std::vector<QString>{QStringLiteral("WWW-Authenticate: Bearer")});
  EXPECT_EQ(failed.attempts, 1);
  EXPECT_EQ(refreshes, 2);
  EXPECT_EQ(transport_.requests().size(), 3u);
}

TEST_F(RetryingConnectionTest, ConcurrentUnauthorisedAnswersShareOneRefresh) {
  RetryingConnection::TokenReady pending;
  int refreshes = 0;
  connection_->SetTokenRefresher(
      [&](RetryingConnection::TokenReady ready) {
        ++refreshes;
        pending = ready;
      },
      nullptr);
  // Lines given to Init that authorise are kept by the decorator and replaced on refresh.
  connection_->Init({QStringLiteral("Authorization: Bearer a")});
  transport_.Enqueue(Http(401));
  transport_.Enqueue(Http(401));
  transport_.Enqueue(Http(200));
  transport_.Enqueue(Http(200));
  Result first;
  Result second;
  Issue(kMethodGet, &first);
  Issue(kMethodPut, &second);
  RunUntil([&] { return static_cast<bool>(pending) && transport_.requests().size() == 2; });
  RunUntilIdle();
  EXPECT_EQ(refreshes, 1);
  EXPECT_EQ(first.calls + second.calls, 0);
  pending(QStringLiteral("b"));
  pending(QStringLiteral("c"));  // a second answer is ignored
  RunUntil([&] { return first.calls > 0 && second.calls > 0; });
  EXPECT_EQ(first.info.status, kStatusSuccess);
  EXPECT_EQ(second.info.status, kStatusSuccess);
  ASSERT_EQ(transport_.requests().size(), 4u);
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(Lines(transport_.requests()[i]),
              (std::vector<QString>{QStringLiteral("Quire-Version: 3.0"),
                                    i < 2 ? QStringLiteral("Authorization: Bearer a")
                                          : QStringLiteral("Authorization: Bearer b")}));
  }
}

TEST_F(RetryingConnectionTest, CancelWhileWaitingForATokenEndsOnceAndTheTokenStillCounts) {
  RetryingConnection::TokenReady pending;
  connection_->SetTokenRefresher([&](RetryingConnection::TokenReady ready) { pending = ready; },
                                 nullptr);
  transport_.Enqueue(Http(401));
  Result result;
  const unsigned int id = Issue(kMethodGet, &result);
  RunUntil([&] { return static_cast<bool>(pending); });
  connection_->Cancel(id);
  RunUntilIdle();
  EXPECT_EQ(result.calls, 1);
  EXPECT_EQ(result.info.status, kStatusCancelled);
  pending(QStringLiteral("late"));
  RunUntilIdle();
  EXPECT_EQ(result.calls, 1);
  EXPECT_EQ(transport_.requests().size(), 1u);
}

TEST_F(RetryingConnectionTest, AServiceOverTheDecoratorMayBeDeletedInsideItsCallback) {
  auto* service =
      new kestrel::quire::UserInfoService(new RetryingConnection(nullptr, QuickPolicy()));
  transport_.Enqueue(Http(503));
  transport_.Enqueue(Http(200), "email=a@quire.example&isVerified=true");
  int calls = 0;
  QString email;
  service->GetUserEmail([&](NetworkResponseInfo info, QString address) {
    ++calls;
    EXPECT_EQ(info.status, kStatusSuccess);
    email = address;
    delete service;
  });
  RunUntil([&] { return calls > 0; });
  RunUntilIdle();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(email, QStringLiteral("a@quire.example"));
}

TEST_F(RetryingConnectionTest, DestroyingTheDecoratorDropsWaitingRetries) {
  RetryPolicy policy = QuickPolicy();
  policy.set_retry_after_cap_seconds(60);
  auto* retrying = new RetryingConnection(nullptr, policy);
  retrying->Init({QStringLiteral("Quire-Version: 3.0")});
  transport_.Enqueue(Http(503), QByteArray(), {QStringLiteral("Retry-After: 30")});
  int calls = 0;
  ConnectionParams params{kMethodGet, DocsUrl(), nullptr, nullptr, true, 0};
  retrying->Request(params, [&](NetworkResponseInfo, QByteArray) { ++calls; });
  RunUntil([&] { return transport_.completed() == 1; });
  RunUntilIdle();
  EXPECT_EQ(retrying->pending(), 1u);
  delete retrying;
  EXPECT_EQ(MainLoop::Default()->pending(), 0u) << "the waiting retry was taken back";
  RunUntilIdle();
  EXPECT_EQ(calls, 0);
}

TEST_F(RetryingConnectionTest, AHostConnectionWithoutNetworkCodes) {
  quire_test::ConnectionLog log;
  RetryingConnection retrying(new quire_test::RecordingConnection(&log), QuickPolicy());
  Result get;
  ConnectionParams params{kMethodGet, DocsUrl(), nullptr, nullptr, false, 0};
  retrying.StartTransfer(
      params,
      [&](NetworkResponseInfo info, QByteArray, std::uint32_t code) {
        ++get.calls;
        get.info = info;
        get.code = code;
      },
      kestrel::quire::ProgressCallback());
  quire_test::Answer(&log, 0, kStatusFailure);
  RunUntil([&] { return log.requests.size() == 2; });
  EXPECT_EQ(log.requests[1].requested_id, log.requests[0].issued_id) << "the same id again";
  quire_test::Answer(&log, 1, kStatusSuccess);
  EXPECT_EQ(get.calls, 1);
  EXPECT_EQ(get.code, 0u) << "unknown";

  int post_calls = 0;
  params.method = kMethodPost;
  const unsigned int post_id = retrying.Request(params, [&](NetworkResponseInfo info, QByteArray) {
    ++post_calls;
    EXPECT_EQ(info.status, kStatusFailure);
  });
  quire_test::Answer(&log, 2, kStatusFailure);
  RunUntilIdle();
  EXPECT_EQ(post_calls, 1) << "a POST with an unknown failure is not sent again";
  EXPECT_EQ(log.requests.size(), 3u);

  // Cancel of a request in flight reaches the host connection's Cancel.
  params.method = kMethodGet;
  int cancelled_calls = 0;
  const unsigned int id = retrying.Request(params, [&](NetworkResponseInfo info, QByteArray) {
    ++cancelled_calls;
    EXPECT_EQ(info.status, kStatusCancelled);
  });
  retrying.Cancel(id);
  EXPECT_EQ(log.cancels, std::vector<unsigned int>{id});
  quire_test::Answer(&log, 3, kStatusSuccess);  // the host connection completes it anyway
  RunUntilIdle();
  EXPECT_EQ(cancelled_calls, 1);
  EXPECT_NE(post_id, id);
}

TEST_F(RetryingConnectionTest, ProgressIsPassedOnFromEachSend) {
  kestrel::net::ScriptedTransport::Answer answer;
  answer.code = Http(200);
  answer.body = "ok";
  transport_.Enqueue(Http(503));
  transport_.Enqueue(answer);
  std::vector<kestrel::net::TransferProgress> reports;
  int calls = 0;
  const QByteArray body(1000, 'x');
  ConnectionParams params{kMethodPut, DocsUrl(), &body, nullptr, false, 0};
  connection_->StartTransfer(
      params, [&](NetworkResponseInfo, QByteArray, std::uint32_t) { ++calls; },
      [&](std::uint32_t, const kestrel::net::TransferProgress& progress) {
        EXPECT_EQ(calls, 0);
        reports.push_back(progress);
      });
  RunUntil([&] { return calls > 0; });
  ASSERT_EQ(reports.size(), 2u) << "one final report per send";
  EXPECT_EQ(reports[1].bytes_sent, 1000);
  EXPECT_EQ(reports[1].bytes_received, 2);
}

}  // namespace
