#include "quire/services/user_info_service.h"

#include <gtest/gtest.h>

#include "quire/services/endpoints.h"
#include "tests/quire/services/recording_connection.h"
#include "tests/support/guard_death_test.h"
#include "tests/support/test_support.h"

namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses
using namespace quire_test;      // NOLINT(build/namespaces): the test support

struct EmailCall {
  NetworkResponseInfo info{};
  QString email;
};

class UserInfoServiceTest : public quire_test::ScriptedTest {
 protected:
  UserEmailCallback Record() {
    return [this](NetworkResponseInfo info, QString email) { calls_.push_back({info, email}); };
  }

  // Runs one GetUserEmail through a host connection and answers it with `status` and `body`.
  EmailCall Ask(std::int32_t status, const QByteArray& body) {
    ConnectionLog log;
    {
      UserInfoService service(new RecordingConnection(&log, 500));
      calls_.clear();
      EXPECT_EQ(service.GetUserEmail(Record()), 500u);
      EXPECT_TRUE(calls_.empty()) << "the callback never runs inside the operation";
      Answer(&log, 0, status, body);
    }
    EXPECT_EQ(calls_.size(), 1u) << "exactly one call";
    if (calls_.size() != 1) return {};
    EXPECT_EQ(calls_[0].info.request_id, 500u);
    return calls_[0];
  }

  std::vector<EmailCall> calls_;
};

TEST_F(UserInfoServiceTest, RequestIsAPlainGetOfTheEndpointWithoutAnyLineOfItsOwn) {
  ConnectionLog log;
  UserInfoService service(new RecordingConnection(&log, 9));
  service.SetOAuth2AuthToken(QStringLiteral("secret"));
  EXPECT_EQ(service.GetUserEmail(Record()), 9u);
  ASSERT_EQ(log.requests.size(), 1u);
  const quire_test::RecordedRequest& seen = log.requests[0];
  EXPECT_EQ(seen.method, 0u);
  EXPECT_EQ(seen.url, QString::fromLatin1(kestrel::quire::UserInfoUrl));
  EXPECT_EQ(seen.body_pointer, nullptr);
  EXPECT_EQ(seen.headers_pointer, nullptr) << "not even the authorisation line";
  EXPECT_FALSE(seen.collect_response_headers);
  EXPECT_EQ(seen.requested_id, 0u);
  Answer(&log, 0, 0, "email=x");
  EXPECT_EQ(calls_.size(), 1u);
}

// A body and what the service makes of it.
struct ParseCase {
  const char* name;
  const char* body;  // null: an empty body with no data at all
  int status;        // the status reported; -1: not checked
  const char* email;
};

class UserInfoParseTest : public UserInfoServiceTest,
                          public ::testing::WithParamInterface<ParseCase> {};

TEST_P(UserInfoParseTest, Email) {
  const ParseCase& c = GetParam();
  EmailCall call = Ask(0, c.body == nullptr ? QByteArray() : QByteArray(c.body));
  if (c.status >= 0) {
    EXPECT_EQ(call.info.status, c.status);
  }
  EXPECT_EQ(call.email, QString::fromLatin1(c.email));
}

INSTANTIATE_TEST_SUITE_P(
    Bodies, UserInfoParseTest,
    ::testing::Values(
        ParseCase{"ValueUpToTheNextAmpersand", "email=user-at-host&x=1", 0, "user-at-host"},
        ParseCase{"ValueToTheEndOfTheText", "email=user-at-host", 0, "user-at-host"},
        ParseCase{"TrailingLineBreakIsKept", "email=user@host\r\n", 0, "user@host\r\n"},
        ParseCase{"EmptyBodyIsAParseFailure", nullptr, 1, ""},
        ParseCase{"KeyIsFoundAnywhere", "id=1&email=x", 0, "x"},
        ParseCase{"AmpersandRightBehindTheKeyDoesNotEndTheValue", "email=&isVerified=true", 0,
                  "&isVerified=true"},
        ParseCase{"FirstKeyWins", "email=a&email=b", -1, "a"}),
    [](const ::testing::TestParamInfo<ParseCase>& info) { return std::string(info.param.name); });

TEST_F(UserInfoServiceTest, ZeroByteEndsTheText) {
  EmailCall before = Ask(0, QByteArray("x\0email=a@b", 11));
  EXPECT_EQ(before.info.status, 1);
  EXPECT_TRUE(before.email.isEmpty());

  EmailCall after = Ask(0, QByteArray("email=a@b\0tail", 14));
  EXPECT_EQ(after.info.status, 0);
  EXPECT_EQ(after.email, QStringLiteral("a@b"));
}

TEST_F(UserInfoServiceTest, NoKeyOrEmptyValueIsAParseFailure) {
  for (const char* body : {"user=x", "Email=x", "EMAIL=x", "email", "email=", "x=1&email="}) {
    EmailCall call = Ask(0, body);
    EXPECT_EQ(call.info.status, 1) << body;
    EXPECT_TRUE(call.email.isEmpty()) << body;
  }
}

TEST_F(UserInfoServiceTest, ValueIsTakenAsItStands) {
  EmailCall call = Ask(0, "email= a%40b+c ");
  EXPECT_EQ(call.email, QStringLiteral(" a%40b+c ")) << "no decoding, no trimming";
}

TEST_F(UserInfoServiceTest, OneCharacterPerByte) {
  EmailCall call = Ask(0, "email=caf\xc3\xa9");
  EXPECT_EQ(call.email.size(), 5);
  EXPECT_EQ(call.email, QString::fromLatin1("caf\xc3\xa9"));
}

TEST_F(UserInfoServiceTest, TransportFailureIsPassedOnWithoutReadingTheBody) {
  for (std::int32_t status : {401, 2, 404, 500, 302}) {
    EmailCall call = Ask(status, "email=should-not-be-read");
    EXPECT_EQ(call.info.status, status);
    EXPECT_TRUE(call.email.isEmpty());
  }
}

TEST_F(UserInfoServiceTest, ResponseRecordIsForwardedUnchanged) {
  ConnectionLog log;
  UserInfoService service(new RecordingConnection(&log, 31));
  service.GetUserEmail(Record());
  const std::vector<QString> headers = {QStringLiteral("X-A: 1")};
  Answer(&log, 0, 0, "email=q", &headers);
  ASSERT_EQ(calls_.size(), 1u);
  EXPECT_EQ(calls_[0].info.request_id, 31u);
  EXPECT_EQ(calls_[0].info.headers, &headers);
}

TEST_F(UserInfoServiceTest, CallbackIsACopyMadeAtTheCall) {
  ConnectionLog log;
  UserInfoService service(new RecordingConnection(&log));
  int calls = 0;
  {
    UserEmailCallback callback = [&calls](NetworkResponseInfo, QString) { ++calls; };
    service.GetUserEmail(callback);
    callback = nullptr;
  }
  Answer(&log, 0, 0, "email=a");
  EXPECT_EQ(calls, 1);
}

TEST_F(UserInfoServiceTest, EmptyCallbackAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ConnectionLog log;
  UserInfoService service(new RecordingConnection(&log));
  EXPECT_GUARD_ABORT(
      service.GetUserEmailDone(UserEmailCallback(), NetworkResponseInfo{1, 0, nullptr}, "email=a"));
  EXPECT_GUARD_ABORT(service.GetUserEmailDone(UserEmailCallback(),
                                              NetworkResponseInfo{1, 500, nullptr}, QByteArray()));
  EXPECT_GUARD_ABORT({
    service.GetUserEmail(UserEmailCallback());
    Answer(&log, 0, 0, "email=a");
  });
}

// End to end, through the library's Connection over the scripted transport.
TEST_F(UserInfoServiceTest, OnTheWireOnlyTheVersionLineGoesOut) {
  UserInfoService service;
  service.SetOAuth2AuthToken(QStringLiteral("token"));
  transport_.Enqueue(Http(200), "email=ana@quire.example&isVerified=true",
                     {QStringLiteral("Content-Type: application/x-www-form-urlencoded")});
  const unsigned int id = service.GetUserEmail(Record());
  EXPECT_EQ(id, 1u);
  RunUntil([&] { return !calls_.empty(); });
  ASSERT_EQ(calls_.size(), 1u);
  EXPECT_EQ(calls_[0].info.request_id, id);
  EXPECT_EQ(calls_[0].info.status, 0);
  EXPECT_EQ(calls_[0].info.headers, nullptr);
  EXPECT_EQ(calls_[0].email, QStringLiteral("ana@quire.example"));
  ASSERT_EQ(transport_.requests().size(), 1u);
  const auto& seen = transport_.requests()[0];
  EXPECT_EQ(seen.method, kestrel::net::HttpRequest::kGet);
  EXPECT_EQ(seen.url, QString::fromLatin1(kestrel::quire::UserInfoUrl));
  EXPECT_EQ(Lines(seen), std::vector<QString>{QStringLiteral("Quire-Version: 3.0")});
}

TEST_F(UserInfoServiceTest, OnTheWireFailures) {
  UserInfoService service;
  transport_.Enqueue(Http(401), "email=x");
  transport_.Enqueue(kestrel::net::status::kErrorConnectionRefused);
  transport_.Enqueue(Http(200), "nothing here");
  service.GetUserEmail(Record());
  service.GetUserEmail(Record());
  service.GetUserEmail(Record());
  RunUntil([&] { return calls_.size() == 3; });
  RunUntilIdle();
  ASSERT_EQ(calls_.size(), 3u);
  EXPECT_EQ(calls_[0].info.status, 401);
  EXPECT_EQ(calls_[1].info.status, 2);
  EXPECT_EQ(calls_[2].info.status, 1);
  for (const auto& call : calls_) EXPECT_TRUE(call.email.isEmpty());
}

}  // namespace
