/// @file
/// The network layer's 32-bit completion codes.
///
/// An HTTP answer is reported as 0x000A0000 plus the status number when it is below 400 and as
/// 0xC00A0000 plus the number from 400 on. Failures without an HTTP answer use the 0xC001xxxx
/// range.
#pragma once

#include <cstdint>

namespace kestrel {
namespace net {
namespace status {

/// Added to an HTTP status number below 400.
constexpr std::uint32_t kHttpSuccessBase = 0x000A0000u;
/// Added to an HTTP status number from 400 on.
constexpr std::uint32_t kHttpErrorBase = 0xC00A0000u;

/// The code for an HTTP status number: FromHttp(200) is 0x000A00C8, FromHttp(404) is 0xC00A0194.
constexpr std::uint32_t FromHttp(int http_status) {
  return http_status < 400 ? kHttpSuccessBase + static_cast<std::uint32_t>(http_status)
                           : kHttpErrorBase + static_cast<std::uint32_t>(http_status);
}

/// Whether `code` carries an HTTP answer (a status number on either base) rather than a failure
/// without one.
constexpr bool IsHttp(std::uint32_t code) {
  return (code & 0xFFFF0000u) == kHttpSuccessBase || (code & 0xFFFF0000u) == kHttpErrorBase;
}

/// The HTTP status number that a code carries when IsHttp(code): ToHttp(FromHttp(404)) is 404.
constexpr int ToHttp(std::uint32_t code) { return static_cast<int>(code & 0xFFFFu); }

/// @name Failures without an HTTP answer
/// The quire library reports each of them as status 2 (kestrel::quire::kStatusFailure).
///@{

/// Any other failure; also a request still in flight when its transport is destroyed.
constexpr std::uint32_t kErrorUnknown = 0xC0010000u;
/// The host name could not be resolved.
constexpr std::uint32_t kErrorNameNotResolved = 0xC0010001u;
/// No connection could be made.
constexpr std::uint32_t kErrorConnectionRefused = 0xC0010002u;
/// The connection broke while the answer was being received.
constexpr std::uint32_t kErrorConnectionReset = 0xC0010003u;
/// The TLS handshake failed or was cut (e.g. the connection dropped during it). A certificate
/// that is refused or cannot be checked is kErrorCertificate instead.
constexpr std::uint32_t kErrorTls = 0xC0010004u;
/// Connecting took too long, or no byte moved for too long (ConnectionOptions).
constexpr std::uint32_t kErrorTimedOut = 0xC0010005u;
/// The answer ended early, or none came at all.
constexpr std::uint32_t kErrorResponseTruncated = 0xC0010006u;
/// The request was not sent: bad URL, scheme or header line.
constexpr std::uint32_t kErrorInvalidRequest = 0xC0010007u;
/// The network layer was built without a transport and none was installed.
constexpr std::uint32_t kErrorNoTransport = 0xC0010008u;
/// Sending the request failed.
constexpr std::uint32_t kErrorSendFailed = 0xC0010009u;
/// The request was cancelled (ConnectionManager::CancelRequest()): the transfer was stopped, and
/// nothing of its answer is kept.
constexpr std::uint32_t kErrorCancelled = 0xC001000Au;
/// The configured proxy could not be reached (its name did not resolve, or it refused or dropped
/// the connection).
constexpr std::uint32_t kErrorProxyUnreachable = 0xC001000Bu;
/// The proxy refused to open a tunnel to the server (its answer to CONNECT was not a success,
/// e.g. 403, and not 407).
constexpr std::uint32_t kErrorProxyRefused = 0xC001000Cu;
/// The proxy asked for credentials (407, or 401 from proxies that answer wrong ones so) and none,
/// or wrong ones, were configured.
constexpr std::uint32_t kErrorProxyAuthenticationRequired = 0xC001000Du;
/// A certificate was refused or could not be checked, or the client's own TLS setup cannot be
/// used: the server's certificate is not trusted (unknown issuer, expired, not yet valid, wrong
/// host name, revoked or bad OCSP status), a pinned public key does not match, or a configured CA
/// file, revocation list, client certificate, cipher list or crypto engine cannot be used. Unlike
/// kErrorTls it fails the same way every time, so it is not worth retrying.
constexpr std::uint32_t kErrorCertificate = 0xC001000Eu;
///@}

}  // namespace status
}  // namespace net
}  // namespace kestrel
