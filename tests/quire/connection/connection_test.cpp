#include "quire/connection/connection.h"

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/guard_death_test.h"
#include "tests/support/test_support.h"

namespace {

using kestrel::net::HttpRequest;
using kestrel::net::NetworkRequest;
using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses
using namespace quire_test;      // NOLINT(build/namespaces): the test support

// One call of a transport-level callback, copied out while the callback runs.
struct Call {
  NetworkResponseInfo info{};
  bool had_headers = false;
  std::vector<QString> headers;
  QByteArray body;
  const char* body_data = nullptr;
  bool body_is_null = false;
};

class ConnectionTest : public quire_test::ScriptedTest {
 protected:
  ConnectionParams Params(std::uint32_t method = 0, std::uint32_t id = 0) {
    ConnectionParams params;
    params.method = method;
    params.url = QStringLiteral("https://docs.quire.example/feeds/default/private/full");
    params.body = nullptr;
    params.headers = nullptr;
    params.collect_response_headers = false;
    params.request_id = id;
    return params;
  }

  kestrel::quire::ResponseCallback Record() {
    return [this](NetworkResponseInfo info, QByteArray body) {
      Call call;
      call.info = info;
      call.had_headers = info.headers != nullptr;
      if (info.headers) call.headers = *info.headers;
      call.body = QByteArray(body.constData(), body.size());
      call.body_data = body.constData();
      call.body_is_null = body.isNull();
      calls_.push_back(call);
    };
  }

  std::vector<Call> calls_;
};

TEST_F(ConnectionTest, IdsCountFromOneAndAreEchoed) {
  Connection connection;
  connection.Init({});
  transport_.Enqueue(Http(200));
  transport_.Enqueue(Http(200));
  EXPECT_EQ(connection.Request(Params(), Record()), 1u);
  EXPECT_EQ(connection.Request(Params(), Record()), 2u);
  RunUntilIdle();
  ASSERT_EQ(calls_.size(), 2u);
  EXPECT_EQ(calls_[0].info.request_id, 1u);
  EXPECT_EQ(calls_[1].info.request_id, 2u);
}

TEST_F(ConnectionTest, CallerIdIsUsedAndDoesNotAdvanceTheCounter) {
  Connection connection;
  connection.Init({});
  for (int i = 0; i < 3; ++i) transport_.Enqueue(Http(200));
  EXPECT_EQ(connection.Request(Params(), Record()), 1u);
  EXPECT_EQ(connection.Request(Params(0, 77), Record()), 77u);
  EXPECT_EQ(connection.Request(Params(), Record()), 2u);
  RunUntilIdle();
  ASSERT_EQ(calls_.size(), 3u);
  EXPECT_EQ(calls_[1].info.request_id, 77u) << "the callback gets the caller's id";
}

TEST_F(ConnectionTest, CounterWrapsPastZero) {
  Connection connection;
  connection.set_next_request_id(4294967295u);
  EXPECT_EQ(connection.ComputeRequestId(0), 4294967295u);
  EXPECT_EQ(connection.ComputeRequestId(0), 1u);
  EXPECT_EQ(connection.ComputeRequestId(0), 2u);
  EXPECT_EQ(connection.ComputeRequestId(9), 9u);
  EXPECT_EQ(connection.next_request_id(), 3u);
}

TEST_F(ConnectionTest, MethodValuesAndTheGetFallback) {
  Connection connection;
  connection.Init({});
  const std::uint32_t methods[] = {0, 1, 2, 3, 4, 5, 0xFFFFFFFFu};
  const HttpRequest::MethodType expected[] = {
      HttpRequest::kGet, HttpRequest::kPost, HttpRequest::kPut, HttpRequest::kDelete,
      HttpRequest::kGet, HttpRequest::kGet,  HttpRequest::kGet};
  for (std::uint32_t m : methods) {
    transport_.Enqueue(Http(200));
    connection.Request(Params(m), Record());
  }
  RunUntilIdle();
  ASSERT_EQ(transport_.requests().size(), 7u);
  for (std::size_t i = 0; i < 7; ++i) EXPECT_EQ(transport_.requests()[i].method, expected[i]) << i;
}

TEST_F(ConnectionTest, FixedLinesFirstThenTheRequestsOwnAsWholeRecords) {
  Connection connection;
  connection.Init({QStringLiteral("Quire-Version: 3.0"), QStringLiteral("X-Fixed: two")});
  const std::vector<QString> extra = {QStringLiteral("Authorization: Bearer abc")};
  auto params = Params();
  params.headers = &extra;
  transport_.Enqueue(Http(200));
  connection.Request(params, Record());
  RunUntilIdle();
  ASSERT_EQ(transport_.requests().size(), 1u);
  const auto& seen = transport_.requests()[0];
  EXPECT_EQ(Lines(seen), (std::vector<QString>{QStringLiteral("Quire-Version: 3.0"),
                                               QStringLiteral("X-Fixed: two"),
                                               QStringLiteral("Authorization: Bearer abc")}));
  for (const auto& header : seen.headers) {
    EXPECT_EQ(header.type, 0);
    EXPECT_TRUE(header.value.isNull()) << "the line must travel whole in the first string";
  }
}

TEST_F(ConnectionTest, InitTwiceAccumulatesAndReplacesTheManager) {
  Connection connection;
  connection.Init({QStringLiteral("Quire-Version: 3.0")});
  connection.Init({QStringLiteral("Quire-Version: 3.0")});
  const std::vector<QString> extra = {QStringLiteral("Quire-Version: 9")};
  auto params = Params();
  params.headers = &extra;
  transport_.Enqueue(Http(200));
  connection.Request(params, Record());
  RunUntilIdle();
  EXPECT_EQ(Lines(transport_.requests()[0]),
            (std::vector<QString>{QStringLiteral("Quire-Version: 3.0"),
                                  QStringLiteral("Quire-Version: 3.0"),
                                  QStringLiteral("Quire-Version: 9")}))
      << "nothing is merged or replaced";
}

TEST_F(ConnectionTest, EmptyAndOddLinesPassUnchanged) {
  Connection connection;
  connection.Init({});
  const std::vector<QString> extra = {QString(), QStringLiteral("no-colon"),
                                      QStringLiteral("  Padded :  value  ")};
  auto params = Params();
  params.headers = &extra;
  transport_.Enqueue(Http(200));
  connection.Request(params, Record());
  RunUntilIdle();
  const auto& seen = transport_.requests()[0];
  ASSERT_EQ(seen.headers.size(), 3u) << "an empty line is not dropped";
  EXPECT_TRUE(seen.headers[0].name.isEmpty());
  EXPECT_EQ(seen.headers[1].name, QStringLiteral("no-colon"));
  EXPECT_EQ(seen.headers[2].name, QStringLiteral("  Padded :  value  "));
}

TEST_F(ConnectionTest, NullBodyAndNullHeaders) {
  Connection connection;
  connection.Init({QStringLiteral("Quire-Version: 3.0")});
  transport_.Enqueue(Http(200));
  connection.Request(Params(1), Record());
  RunUntilIdle();
  const auto& seen = transport_.requests()[0];
  EXPECT_EQ(seen.body_size, 0u);
  EXPECT_EQ(Lines(seen), std::vector<QString>{QStringLiteral("Quire-Version: 3.0")});
}

TEST_F(ConnectionTest, RequestBodyReachesTheNetworkLayerWithoutACopy) {
  Connection connection;
  connection.Init({});
  const QByteArray body(1 << 20, 'x');
  auto params = Params(2);
  params.body = &body;
  transport_.Enqueue(Http(200));
  connection.Request(params, Record());
  RunUntilIdle();
  EXPECT_EQ(transport_.requests()[0].body_data, body.constData());
  EXPECT_EQ(transport_.requests()[0].body_size, body.size());
}

TEST_F(ConnectionTest, RequestDescriptionConstants) {
  Connection connection;
  connection.Init({});
  transport_.Enqueue(Http(200));
  connection.Request(Params(), Record());
  RunUntilIdle();
  const auto& seen = transport_.requests()[0];
  EXPECT_TRUE(seen.keep_response_headers);
  EXPECT_EQ(seen.user_data, nullptr);
  EXPECT_EQ(seen.default_headers, NetworkRequest::Info::kStandard);
  EXPECT_EQ(static_cast<int>(seen.default_headers), 2);
  ExpectConnectionDefaults(seen.options);
}

TEST_F(ConnectionTest, CompletionNeverInsideRequestAndExactlyOnce) {
  Connection connection;
  connection.Init({});
  for (int i = 0; i < 50; ++i) transport_.Enqueue(Http(200));
  for (int i = 0; i < 50; ++i) connection.Request(Params(), Record());
  EXPECT_TRUE(calls_.empty());
  RunUntilIdle();
  ASSERT_EQ(calls_.size(), 50u);
  for (std::size_t i = 0; i < 50; ++i) EXPECT_EQ(calls_[i].info.request_id, i + 1);
  kestrel::MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(calls_.size(), 50u);
}

TEST_F(ConnectionTest, CancelDoesNothing) {
  Connection connection;
  connection.Init({});
  transport_.Enqueue(Http(200));
  const unsigned id = connection.Request(Params(), Record());
  connection.Cancel(id);
  connection.Cancel(12345);
  connection.Cancel(0);
  RunUntilIdle();
  ASSERT_EQ(calls_.size(), 1u);
  EXPECT_EQ(calls_[0].info.request_id, id);
  EXPECT_EQ(calls_[0].info.status, 0);
}

TEST_F(ConnectionTest, ResponseHeadersOnlyWhenAskedAndInOrder) {
  Connection connection;
  connection.Init({});
  const std::vector<QString> three = {QStringLiteral("Location: https://u/1"),
                                      QStringLiteral("Range: bytes=0-9"),
                                      QStringLiteral("X-Dup: a")};
  transport_.Enqueue(Http(308), QByteArray(), three);
  transport_.Enqueue(Http(308), QByteArray(), three);
  transport_.Enqueue(Http(200));
  auto asked = Params();
  asked.collect_response_headers = true;
  connection.Request(asked, Record());
  connection.Request(Params(), Record());
  connection.Request(asked, Record());
  RunUntilIdle();
  ASSERT_EQ(calls_.size(), 3u);
  EXPECT_TRUE(calls_[0].had_headers);
  EXPECT_EQ(calls_[0].headers, three);
  EXPECT_FALSE(calls_[1].had_headers) << "headers must be null when not asked for";
  EXPECT_TRUE(calls_[2].had_headers) << "asked for and none sent: an empty list, not null";
  EXPECT_TRUE(calls_[2].headers.empty());
}

TEST_F(ConnectionTest, BodyIsAViewOfTheNetworkLayersBuffer) {
  Connection connection;
  connection.Init({});
  transport_.Enqueue(Http(200), QByteArray("<feed/>"));
  const char* seen_data = nullptr;
  const char* transport_data = nullptr;
  connection.Request(Params(), [&](NetworkResponseInfo, QByteArray body) {
    seen_data = body.constData();
    transport_data = transport_.last_response_data();
    EXPECT_EQ(body, QByteArray("<feed/>"));
  });
  RunUntilIdle();
  ASSERT_NE(seen_data, nullptr);
  EXPECT_EQ(seen_data, transport_data) << "the body must point into the transport's buffer";
}

TEST_F(ConnectionTest, NoBufferGivesAnEmptyBody) {
  Connection connection;
  connection.Init({});
  kestrel::net::ScriptedTransport::Answer answer;
  answer.has_body = false;
  transport_.Enqueue(answer);
  connection.Request(Params(), Record());
  RunUntilIdle();
  ASSERT_EQ(calls_.size(), 1u);
  EXPECT_TRUE(calls_[0].body.isEmpty());
  EXPECT_NE(calls_[0].body_data, nullptr) << "an empty body, not a null pointer";
}

TEST_F(ConnectionTest, FailuresStillCallBackWithBodyAndHeaders) {
  Connection connection;
  connection.Init({});
  transport_.Enqueue(Http(404), QByteArray("<errors/>"), {QStringLiteral("Content-Type: x")});
  transport_.Enqueue(kestrel::net::status::kErrorConnectionRefused);
  auto params = Params();
  params.collect_response_headers = true;
  connection.Request(params, Record());
  connection.Request(params, Record());
  RunUntilIdle();
  ASSERT_EQ(calls_.size(), 2u);
  EXPECT_EQ(calls_[0].info.status, 404);
  EXPECT_EQ(calls_[0].body, QByteArray("<errors/>"));
  EXPECT_EQ(calls_[0].headers, std::vector<QString>{QStringLiteral("Content-Type: x")});
  EXPECT_EQ(calls_[1].info.status, 2);
  EXPECT_TRUE(calls_[1].body.isEmpty());
}

TEST_F(ConnectionTest, InvalidUrlCompletesWithFailureLater) {
  Connection connection;
  connection.Init({});
  auto params = Params();
  params.url = QStringLiteral("gopher://x/");
  connection.Request(params, Record());
  EXPECT_TRUE(calls_.empty());
  RunUntilIdle();
  ASSERT_EQ(calls_.size(), 1u);
  EXPECT_EQ(calls_[0].info.status, 2);
}

TEST_F(ConnectionTest, DeletingTheCallbacksTargetIsNotGuarded) {
  Connection connection;
  connection.Init({});
  transport_.Enqueue(Http(200));
  int called = 0;
  auto* target = new kestrel::quire::ResponseCallback(
      [&called](NetworkResponseInfo, QByteArray) { ++called; });
  connection.Request(Params(), *target);
  delete target;
  RunUntilIdle();
  EXPECT_EQ(called, 1) << "the connection keeps its own copy and calls it all the same";
}

TEST_F(ConnectionTest, DeletingTheConnectionLeavesRequestsToComplete) {
  auto* connection = new Connection;
  connection->Init({QStringLiteral("Quire-Version: 3.0")});
  transport_.Enqueue(Http(200));
  connection->Request(Params(), Record());
  delete connection;
  RunUntilIdle();
  EXPECT_EQ(calls_.size(), 1u);
}

TEST_F(ConnectionTest, CallbacksMayIssueRequestsFromInsideTheCompletion) {
  Connection connection;
  connection.Init({});
  transport_.SetResponder([](const kestrel::net::ScriptedTransport::Seen&) {
    return kestrel::net::ScriptedTransport::Answer();
  });
  int depth = 0;
  std::function<void(NetworkResponseInfo, QByteArray)> next = [&](NetworkResponseInfo, QByteArray) {
    if (++depth < 5) connection.Request(Params(), next);
  };
  connection.Request(Params(), next);
  RunUntilIdle();
  EXPECT_EQ(depth, 5);
}

using ConnectionDeathTest = ConnectionTest;

TEST_F(ConnectionDeathTest, CallingAnEmptyCallbackAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_GUARD_ABORT({
    Connection connection;
    connection.Init({});
    transport_.Enqueue(Http(200));
    connection.Request(Params(), kestrel::quire::ResponseCallback());
    kestrel::MainLoop::Default()->RunUntilIdle();
  });
}

}  // namespace
