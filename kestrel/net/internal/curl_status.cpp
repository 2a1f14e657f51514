#include "kestrel/net/internal/curl_status.h"

#include "kestrel/net/network_status.h"

namespace kestrel {
namespace net {
namespace internal {

std::uint32_t StatusForCurlError(CURLcode result) {
  switch (result) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return status::kErrorNameNotResolved;
    case CURLE_COULDNT_CONNECT:
      return status::kErrorConnectionRefused;
    case CURLE_OPERATION_TIMEDOUT:
      return status::kErrorTimedOut;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_USE_SSL_FAILED:
      // A handshake the network may have cut: another attempt can succeed.
      return status::kErrorTls;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CLIENTCERT:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
      // The peer's certificate was refused, or the local TLS setup cannot be used: the same
      // refusal would come every time.
      return status::kErrorCertificate;
    case CURLE_RECV_ERROR:
      return status::kErrorConnectionReset;
    case CURLE_SEND_ERROR:
      return status::kErrorSendFailed;
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
      return status::kErrorResponseTruncated;
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
      return status::kErrorInvalidRequest;
    default:
      return status::kErrorUnknown;
  }
}

std::uint32_t StatusForProxiedCurlError(CURLcode result, long connect_code) {
  // Some proxies answer wrong credentials with 401 rather than 407.
  if (connect_code == 407 || connect_code == 401) return status::kErrorProxyAuthenticationRequired;
  if (connect_code >= 300) return status::kErrorProxyRefused;
  switch (result) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_CONNECT:
      // Through a proxy the only connection made here is the proxy's.
      return status::kErrorProxyUnreachable;
    case CURLE_PROXY:
      return status::kErrorProxyRefused;
    default:
      return StatusForCurlError(result);
  }
}

std::uint32_t StatusForCurlAnswer(long http_code, bool header_complete) {
  if (!header_complete) return status::kErrorResponseTruncated;
  return http_code >= 100 ? status::FromHttp(static_cast<int>(http_code)) : status::kErrorUnknown;
}

}  // namespace internal
}  // namespace net
}  // namespace kestrel
