// The network layer's 32-bit completion codes.
//
// An HTTP answer is reported as 0x000A0000 plus the status number when it is below 400 and as
// 0xC00A0000 plus the number from 400 on. Failures without an HTTP answer use the 0xC001xxxx range.
#pragma once

#include <cstdint>

namespace kestrel {
namespace net {
namespace status {

constexpr std::uint32_t kHttpSuccessBase = 0x000A0000u;
constexpr std::uint32_t kHttpErrorBase = 0xC00A0000u;

// The code for an HTTP status number.
constexpr std::uint32_t FromHttp(int http_status) {
  return http_status < 400 ? kHttpSuccessBase + static_cast<std::uint32_t>(http_status)
                           : kHttpErrorBase + static_cast<std::uint32_t>(http_status);
}

// Failures without an HTTP answer.
constexpr std::uint32_t kErrorUnknown = 0xC0010000u;
constexpr std::uint32_t kErrorNameNotResolved = 0xC0010001u;
constexpr std::uint32_t kErrorConnectionRefused = 0xC0010002u;
constexpr std::uint32_t kErrorConnectionReset = 0xC0010003u;
constexpr std::uint32_t kErrorTls = 0xC0010004u;
constexpr std::uint32_t kErrorTimedOut = 0xC0010005u;
constexpr std::uint32_t kErrorResponseTruncated = 0xC0010006u;
constexpr std::uint32_t kErrorInvalidRequest = 0xC0010007u;  // bad URL, scheme or header line
constexpr std::uint32_t kErrorNoTransport = 0xC0010008u;
constexpr std::uint32_t kErrorSendFailed = 0xC0010009u;

}  // namespace status
}  // namespace net
}  // namespace kestrel
