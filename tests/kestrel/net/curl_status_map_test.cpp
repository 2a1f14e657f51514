// The mapping from libcurl's outcome of a transfer to the network layer's status codes, checked
// without a socket.
#include "kestrel/net/internal/curl_status.h"

#include <gtest/gtest.h>

#include "kestrel/net/network_status.h"

namespace kestrel {
namespace net {
namespace internal {
namespace {

TEST(CurlStatusMapTest, FailuresWithoutAnswerMapToTheirStatus) {
  const struct {
    CURLcode result;
    std::uint32_t status;
  } kCases[] = {
      {CURLE_COULDNT_RESOLVE_HOST, status::kErrorNameNotResolved},
      {CURLE_COULDNT_RESOLVE_PROXY, status::kErrorNameNotResolved},
      {CURLE_COULDNT_CONNECT, status::kErrorConnectionRefused},
      {CURLE_OPERATION_TIMEDOUT, status::kErrorTimedOut},
      {CURLE_RECV_ERROR, status::kErrorConnectionReset},
      {CURLE_SEND_ERROR, status::kErrorSendFailed},
      {CURLE_PARTIAL_FILE, status::kErrorResponseTruncated},
      {CURLE_GOT_NOTHING, status::kErrorResponseTruncated},
      {CURLE_URL_MALFORMAT, status::kErrorInvalidRequest},
      {CURLE_UNSUPPORTED_PROTOCOL, status::kErrorInvalidRequest},
      {CURLE_OUT_OF_MEMORY, status::kErrorUnknown},
      {CURLE_WRITE_ERROR, status::kErrorUnknown},
  };
  for (const auto& c : kCases) EXPECT_EQ(StatusForCurlError(c.result), c.status) << c.result;
}

TEST(CurlStatusMapTest, CutHandshakeIsTlsRefusedCertificateIsCertificate) {
  for (CURLcode cut : {CURLE_SSL_CONNECT_ERROR, CURLE_SSL_SHUTDOWN_FAILED, CURLE_USE_SSL_FAILED}) {
    EXPECT_EQ(StatusForCurlError(cut), status::kErrorTls) << cut;
  }
  for (CURLcode refused :
       {CURLE_PEER_FAILED_VERIFICATION, CURLE_SSL_ISSUER_ERROR, CURLE_SSL_PINNEDPUBKEYNOTMATCH,
        CURLE_SSL_INVALIDCERTSTATUS, CURLE_SSL_CACERT_BADFILE, CURLE_SSL_CRL_BADFILE,
        CURLE_SSL_CERTPROBLEM, CURLE_SSL_CLIENTCERT, CURLE_SSL_CIPHER, CURLE_SSL_ENGINE_NOTFOUND,
        CURLE_SSL_ENGINE_SETFAILED, CURLE_SSL_ENGINE_INITFAILED}) {
    EXPECT_EQ(StatusForCurlError(refused), status::kErrorCertificate) << refused;
  }
}

TEST(CurlStatusMapTest, ProxyAnswersToConnectComeFirst) {
  EXPECT_EQ(StatusForProxiedCurlError(CURLE_RECV_ERROR, 407),
            status::kErrorProxyAuthenticationRequired);
  EXPECT_EQ(StatusForProxiedCurlError(CURLE_RECV_ERROR, 401),
            status::kErrorProxyAuthenticationRequired);
  EXPECT_EQ(StatusForProxiedCurlError(CURLE_RECV_ERROR, 403), status::kErrorProxyRefused);
  EXPECT_EQ(StatusForProxiedCurlError(CURLE_COULDNT_CONNECT, 502), status::kErrorProxyRefused);
  EXPECT_EQ(StatusForProxiedCurlError(CURLE_OPERATION_TIMEDOUT, 300), status::kErrorProxyRefused);
}

TEST(CurlStatusMapTest, ProxyThatCannotBeReachedOrRefusesWithoutAnswer) {
  EXPECT_EQ(StatusForProxiedCurlError(CURLE_COULDNT_RESOLVE_PROXY, 0),
            status::kErrorProxyUnreachable);
  EXPECT_EQ(StatusForProxiedCurlError(CURLE_COULDNT_CONNECT, 0), status::kErrorProxyUnreachable);
  EXPECT_EQ(StatusForProxiedCurlError(CURLE_PROXY, 0), status::kErrorProxyRefused);
  // Failures past the proxy keep their own status.
  EXPECT_EQ(StatusForProxiedCurlError(CURLE_OPERATION_TIMEDOUT, 200), status::kErrorTimedOut);
  EXPECT_EQ(StatusForProxiedCurlError(CURLE_PEER_FAILED_VERIFICATION, 0),
            status::kErrorCertificate);
}

TEST(CurlStatusMapTest, CompleteAnswerIsItsHttpStatus) {
  EXPECT_EQ(StatusForCurlAnswer(200, true), status::FromHttp(200));
  EXPECT_EQ(StatusForCurlAnswer(302, true), status::FromHttp(302));
  EXPECT_EQ(StatusForCurlAnswer(404, true), status::FromHttp(404));
  EXPECT_EQ(StatusForCurlAnswer(100, true), status::FromHttp(100));
}

TEST(CurlStatusMapTest, AnswerWithoutStatusOrEndOfHeadIsAFailure) {
  EXPECT_EQ(StatusForCurlAnswer(0, true), status::kErrorUnknown);
  EXPECT_EQ(StatusForCurlAnswer(99, true), status::kErrorUnknown);
  EXPECT_EQ(StatusForCurlAnswer(200, false), status::kErrorResponseTruncated);
  EXPECT_EQ(StatusForCurlAnswer(0, false), status::kErrorResponseTruncated);
}

}  // namespace
}  // namespace internal
}  // namespace net
}  // namespace kestrel
