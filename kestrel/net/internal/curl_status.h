/// @file
/// How the outcome of a libcurl transfer becomes a network-layer status code: the one place where
/// CURLcode values are mapped.
#pragma once

#include <curl/curl.h>

#include <cstdint>

namespace kestrel {
namespace net {
namespace internal {

/// The status of a transfer that failed with `result` (not CURLE_OK) without a proxy involved.
std::uint32_t StatusForCurlError(CURLcode result);

/// The status of a failed transfer that went to a proxy: what the proxy did when it was the proxy
/// that failed (`connect_code` is the proxy's answer to CONNECT, 0 when there was none), else
/// StatusForCurlError(result).
std::uint32_t StatusForProxiedCurlError(CURLcode result, long connect_code);

/// The status of a transfer that libcurl reports done with CURLE_OK: the HTTP answer `http_code`,
/// unless no status line came (kErrorUnknown) or the connection closed before the blank line that
/// ends the header block (`header_complete` false: kErrorResponseTruncated).
std::uint32_t StatusForCurlAnswer(long http_code, bool header_complete);

}  // namespace internal
}  // namespace net
}  // namespace kestrel
