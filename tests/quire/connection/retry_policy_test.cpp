#include "quire/connection/retry_policy.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "kestrel/net/network_status.h"
#include "quire/connection/connection_params.h"
#include "quire/connection/network_response_info.h"

namespace {

using kestrel::quire::RetryPolicy;
namespace net = kestrel::net::status;
using namespace kestrel::quire;  // NOLINT: method and status constants

// 1994-11-06 08:49:37 UTC, the example date of HTTP.
constexpr double kExampleDate = 784111777.0;

TEST(RetryPolicyTest, DefaultsAndClamping) {
  RetryPolicy policy;
  EXPECT_EQ(policy.max_attempts(), 5);
  EXPECT_DOUBLE_EQ(policy.total_deadline_seconds(), 300.0);
  EXPECT_DOUBLE_EQ(policy.base_backoff_seconds(), 0.5);
  EXPECT_DOUBLE_EQ(policy.max_backoff_seconds(), 30.0);
  EXPECT_DOUBLE_EQ(policy.retry_after_cap_seconds(), 120.0);
  policy.set_max_attempts(0);
  EXPECT_EQ(policy.max_attempts(), 1);
  policy.set_max_attempts(-3);
  EXPECT_EQ(policy.max_attempts(), 1);
  policy.set_base_backoff_seconds(-1);
  EXPECT_DOUBLE_EQ(policy.base_backoff_seconds(), 0.0);
  EXPECT_EQ(RetryPolicy::NoRetries().max_attempts(), 1);
}

TEST(RetryPolicyTest, TransientHttpAnswersForIdempotentMethods) {
  RetryPolicy policy;
  for (std::uint32_t method : {0u, 2u, 3u, 7u}) {
    for (int status : {408, 429, 500, 502, 503, 504}) {
      EXPECT_TRUE(policy.IsTransient(method, status, net::FromHttp(status))) << status;
      EXPECT_TRUE(policy.IsTransient(method, status, 0)) << "from a host connection: " << status;
    }
    // The connection passes 429 on as status 2; the network code still tells.
    EXPECT_TRUE(policy.IsTransient(method, kStatusFailure, net::FromHttp(429)));
    EXPECT_FALSE(policy.IsTransient(method, kStatusFailure, net::FromHttp(417)));
    for (int status : {0, 1, 300, 302, 308, 400, 401, 403, 404, 409, 412, 416, 501, 505}) {
      EXPECT_FALSE(policy.IsTransient(method, status, net::FromHttp(status))) << status;
    }
  }
}

TEST(RetryPolicyTest, FailuresWithoutAnAnswer) {
  RetryPolicy policy;
  for (std::uint32_t code :
       {0u, net::kErrorUnknown, net::kErrorNameNotResolved, net::kErrorConnectionRefused,
        net::kErrorConnectionReset, net::kErrorTls, net::kErrorTimedOut,
        net::kErrorResponseTruncated, net::kErrorSendFailed}) {
    EXPECT_TRUE(policy.IsTransient(kMethodGet, kStatusFailure, code)) << std::hex << code;
    EXPECT_TRUE(policy.IsTransient(kMethodPut, kStatusFailure, code)) << std::hex << code;
  }
  for (std::uint32_t code :
       {net::kErrorInvalidRequest, net::kErrorNoTransport, net::kErrorCancelled,
        net::kErrorCertificate, net::FromHttp(301), net::FromHttp(304)}) {
    EXPECT_FALSE(policy.IsTransient(kMethodGet, kStatusFailure, code)) << std::hex << code;
  }
  EXPECT_FALSE(policy.IsTransient(kMethodGet, kStatusCancelled, net::kErrorCancelled));
}

TEST(RetryPolicyTest, ARefusedCertificateIsFinalButACutHandshakeIsRetried) {
  RetryPolicy policy;
  for (int method : {kMethodGet, kMethodPut, kMethodDelete, kMethodPost}) {
    EXPECT_FALSE(policy.IsTransient(method, kStatusFailure, net::kErrorCertificate)) << method;
  }
  EXPECT_TRUE(policy.IsTransient(kMethodGet, kStatusFailure, net::kErrorTls));
  EXPECT_TRUE(policy.IsTransient(kMethodPut, kStatusFailure, net::kErrorTls));
  EXPECT_TRUE(policy.IsTransient(kMethodDelete, kStatusFailure, net::kErrorTls));
}

TEST(RetryPolicyTest, APostIsRetriedOnlyWhenItNeverReachedTheServer) {
  RetryPolicy policy;
  EXPECT_TRUE(policy.IsTransient(kMethodPost, kStatusFailure, net::kErrorConnectionRefused));
  EXPECT_TRUE(policy.IsTransient(kMethodPost, kStatusFailure, net::kErrorNameNotResolved));
  for (std::uint32_t code :
       {0u, net::kErrorUnknown, net::kErrorConnectionReset, net::kErrorTls, net::kErrorCertificate,
        net::kErrorTimedOut, net::kErrorResponseTruncated, net::kErrorSendFailed}) {
    EXPECT_FALSE(policy.IsTransient(kMethodPost, kStatusFailure, code)) << std::hex << code;
  }
  for (int status : {408, 429, 500, 502, 503, 504}) {
    EXPECT_FALSE(policy.IsTransient(kMethodPost, status, net::FromHttp(status))) << status;
  }
}

TEST(RetryPolicyTest, ExponentialBackoffWithFullJitter) {
  RetryPolicy policy;
  policy.set_base_backoff_seconds(0.5);
  policy.set_max_backoff_seconds(30);
  double unit = 0.5;
  policy.set_random_source([&] { return unit; });
  EXPECT_DOUBLE_EQ(policy.BackoffSeconds(1), 0.25);
  EXPECT_DOUBLE_EQ(policy.BackoffSeconds(2), 0.5);
  EXPECT_DOUBLE_EQ(policy.BackoffSeconds(3), 1.0);
  EXPECT_DOUBLE_EQ(policy.BackoffSeconds(7), 15.0) << "the ceiling stops at the maximum";
  EXPECT_DOUBLE_EQ(policy.BackoffSeconds(1000), 15.0) << "no overflow for huge retry numbers";
  EXPECT_DOUBLE_EQ(policy.BackoffSeconds(0), 0.25) << "retry numbers below 1 count as 1";
  unit = 0.0;
  EXPECT_DOUBLE_EQ(policy.BackoffSeconds(5), 0.0);
  unit = 1.5;  // a broken source never makes the wait exceed the ceiling
  EXPECT_LT(policy.BackoffSeconds(1), 0.5);
  unit = -2;
  EXPECT_DOUBLE_EQ(policy.BackoffSeconds(1), 0.0);
  unit = std::numeric_limits<double>::quiet_NaN();
  EXPECT_DOUBLE_EQ(policy.BackoffSeconds(1), 0.0);

  // The default source spreads the waits over [0, ceiling).
  policy.set_random_source(RetryPolicy::RandomSource());
  double low = 1e9;
  double high = -1;
  for (int i = 0; i < 200; ++i) {
    const double wait = policy.BackoffSeconds(3);  // ceiling 2 s
    low = std::min(low, wait);
    high = std::max(high, wait);
    ASSERT_GE(wait, 0.0);
    ASSERT_LT(wait, 2.0);
  }
  EXPECT_LT(low, 0.4);
  EXPECT_GT(high, 1.6);
}

TEST(RetryPolicyTest, RetryAfterInDeltaSeconds) {
  double seconds = -1;
  EXPECT_TRUE(RetryPolicy::ParseRetryAfter(QStringLiteral("120"), 0, &seconds));
  EXPECT_DOUBLE_EQ(seconds, 120);
  EXPECT_TRUE(RetryPolicy::ParseRetryAfter(QStringLiteral(" 7 "), 0, &seconds));
  EXPECT_DOUBLE_EQ(seconds, 7);
  EXPECT_TRUE(RetryPolicy::ParseRetryAfter(QStringLiteral("0"), 0, &seconds));
  EXPECT_DOUBLE_EQ(seconds, 0);
  EXPECT_TRUE(RetryPolicy::ParseRetryAfter(QStringLiteral("99999999999999999999999"), 0, &seconds));
  EXPECT_GE(seconds, 1e9) << "absurdly large stays large, without overflow";
  seconds = -1;
  for (const char* bad : {"", "  ", "-5", "+5", "1.5", "5s", "abc", "5 6", "0x10", "∞"}) {
    EXPECT_FALSE(RetryPolicy::ParseRetryAfter(QString::fromUtf8(bad), 0, &seconds)) << bad;
    EXPECT_DOUBLE_EQ(seconds, -1) << "left alone on failure: " << bad;
  }
}

TEST(RetryPolicyTest, RetryAfterAsAnHttpDateInEachForm) {
  double seconds = -1;
  const double now = kExampleDate - 30;
  EXPECT_TRUE(
      RetryPolicy::ParseRetryAfter(QStringLiteral("Sun, 06 Nov 1994 08:49:37 GMT"), now, &seconds));
  EXPECT_DOUBLE_EQ(seconds, 30);
  EXPECT_TRUE(RetryPolicy::ParseRetryAfter(QStringLiteral("Sunday, 06-Nov-94 08:49:37 GMT"), now,
                                           &seconds));
  EXPECT_DOUBLE_EQ(seconds, 30);
  EXPECT_TRUE(
      RetryPolicy::ParseRetryAfter(QStringLiteral("Sun Nov  6 08:49:37 1994"), now, &seconds));
  EXPECT_DOUBLE_EQ(seconds, 30);
  // A leap day, and the turn of the century in the two-digit form.
  EXPECT_TRUE(RetryPolicy::ParseRetryAfter(QStringLiteral("Thu, 29 Feb 2024 00:00:00 GMT"),
                                           1709164800.0 - 5, &seconds));
  EXPECT_DOUBLE_EQ(seconds, 5);
  EXPECT_TRUE(RetryPolicy::ParseRetryAfter(QStringLiteral("Saturday, 01-Jan-00 00:00:10 GMT"),
                                           946684800.0, &seconds));
  EXPECT_DOUBLE_EQ(seconds, 10);
}

TEST(RetryPolicyTest, RetryAfterInThePastMeansNow) {
  double seconds = -1;
  EXPECT_TRUE(RetryPolicy::ParseRetryAfter(QStringLiteral("Sun, 06 Nov 1994 08:49:37 GMT"),
                                           kExampleDate + 3600, &seconds));
  EXPECT_DOUBLE_EQ(seconds, 0);
}

TEST(RetryPolicyTest, MalformedDatesAreRefused) {
  double seconds = -1;
  for (const char* bad : {"Sun, 31 Feb 2026 08:49:37 GMT", "Sun, 06 Nov 1994 24:00:00 GMT",
                          "Sun, 06 Nov 1994 08:60:00 GMT", "Sun, 06 Nov 1994 08:49:37 UTC",
                          "Sun, 06 Nov 1994 08:49:37", "Sun, 6 Nov 1994 08:49:37 GMT",
                          "Xyz, 06 Nov 1994 08:49:37 GMT", "Sun, 06 nov 1994 08:49:37 GMT",
                          "Sunday, 06-Nov-1994 08:49:37 GMT", "Sun Nov 32 08:49:37 1994",
                          "Sun, 29 Feb 2023 00:00:00 GMT", "tomorrow"}) {
    EXPECT_FALSE(RetryPolicy::ParseRetryAfter(QString::fromLatin1(bad), kExampleDate, &seconds))
        << bad;
  }
  EXPECT_DOUBLE_EQ(seconds, -1);
}

TEST(RetryPolicyTest, TheDelayHonoursRetryAfterUpToTheCapElseBacksOff) {
  RetryPolicy policy;
  policy.set_retry_after_cap_seconds(60);
  policy.set_random_source([] { return 0.5; });
  const std::vector<QString> hour{QStringLiteral("Content-Type: text/plain"),
                                  QStringLiteral("Retry-After: 3600")};
  EXPECT_DOUBLE_EQ(policy.DelayBeforeRetry(1, &hour, 0), 60) << "capped";
  const std::vector<QString> lower{QStringLiteral("retry-after:  2 ")};
  EXPECT_DOUBLE_EQ(policy.DelayBeforeRetry(1, &lower, 0), 2) << "names are not case-sensitive";
  const std::vector<QString> past{QStringLiteral("Retry-After: Sun, 06 Nov 1994 08:49:37 GMT")};
  EXPECT_DOUBLE_EQ(policy.DelayBeforeRetry(1, &past, kExampleDate + 1), 0);
  const std::vector<QString> junk{QStringLiteral("Retry-After: soon")};
  EXPECT_DOUBLE_EQ(policy.DelayBeforeRetry(2, &junk, 0), 0.5) << "malformed: the backoff";
  EXPECT_DOUBLE_EQ(policy.DelayBeforeRetry(1, nullptr, 0), 0.25);
  EXPECT_EQ(RetryPolicy::HeaderValue(&hour, QStringLiteral("RETRY-AFTER")), QStringLiteral("3600"));
  EXPECT_TRUE(RetryPolicy::HeaderValue(&hour, QStringLiteral("Location")).isEmpty());
}

}  // namespace
