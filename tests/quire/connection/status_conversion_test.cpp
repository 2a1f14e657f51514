// The network layer's completion codes become NetworkResponseInfo::status by a deliberately partial
// table; every boundary of it is checked through a real Connection over the scripted transport.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "kestrel/net/network_status.h"
#include "quire/connection/connection.h"
#include "tests/support/test_support.h"

namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses

class StatusConversionTest : public quire_test::ScriptedTest {
 protected:
  int StatusFor(std::uint32_t code) {
    Connection connection;
    connection.Init({});
    transport_.Enqueue(code);
    ConnectionParams params{
        0, QStringLiteral("https://docs.quire.example/x"), nullptr, nullptr, false, 0};
    int status = -1;
    int calls = 0;
    connection.Request(params, [&](NetworkResponseInfo info, QByteArray) {
      status = info.status;
      ++calls;
    });
    RunUntilIdle();
    EXPECT_EQ(calls, 1);
    return status;
  }
};

TEST_F(StatusConversionTest, Boundaries) {
  const std::vector<std::pair<std::uint32_t, int>> table = {
      {0x00000000u, 0}, {0x000A00C8u, 0},   {0x000A00C9u, 0}, {0x000A012Bu, 0}, {0x000A012Cu, 300},
      {0x000A012Du, 2}, {0x000A012Eu, 302}, {0x000A012Fu, 2}, {0x000A0130u, 2}, {0x000A0131u, 2},
      {0x000A0133u, 2}, {0x000A0134u, 308}, {0x000A0135u, 2}, {0xC00A018Fu, 2}, {0xC00A01A1u, 2},
      {0xC00A01F3u, 2}, {0xC00A01FAu, 2},   {0xFFFFFFFFu, 2}, {0xC0010005u, 2}, {0x000A00CCu, 0},
  };
  for (const auto& [code, expected] : table) {
    EXPECT_EQ(StatusFor(code), expected) << std::hex << "code 0x" << code;
  }
}

TEST_F(StatusConversionTest, EveryFailureWithoutAnAnswerIsStatus2) {
  namespace net = kestrel::net::status;
  for (std::uint32_t code :
       {net::kErrorUnknown, net::kErrorNameNotResolved, net::kErrorConnectionRefused,
        net::kErrorConnectionReset, net::kErrorTls, net::kErrorTimedOut,
        net::kErrorResponseTruncated, net::kErrorInvalidRequest, net::kErrorNoTransport,
        net::kErrorSendFailed, net::kErrorProxyUnreachable, net::kErrorProxyRefused,
        net::kErrorProxyAuthenticationRequired, net::kErrorCertificate}) {
    EXPECT_EQ(StatusFor(code), 2) << std::hex << "code 0x" << code;
  }
}

TEST_F(StatusConversionTest, ClientErrorsPassThrough) {
  for (std::uint32_t n = 0; n <= 0x11; ++n) {
    const std::uint32_t code = 0xC00A0190u + n;
    const int expected = n <= 16 ? 400 + static_cast<int>(n) : 2;
    EXPECT_EQ(StatusFor(code), expected) << std::hex << "code 0x" << code;
  }
}

TEST_F(StatusConversionTest, ServerErrorsPassThrough) {
  for (std::uint32_t n = 0; n <= 6; ++n) {
    const std::uint32_t code = 0xC00A01F4u + n;
    const int expected = n <= 5 ? 500 + static_cast<int>(n) : 2;
    EXPECT_EQ(StatusFor(code), expected) << std::hex << "code 0x" << code;
  }
}

}  // namespace
