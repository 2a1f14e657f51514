// The outcome of one request: the first argument of every completion callback of the library.
#pragma once

#include <QString>
#include <cstdint>
#include <vector>

namespace kestrel {
namespace quire {

// Values of NetworkResponseInfo::status besides the HTTP numbers that are passed through (300, 302,
// 308, 400 to 416, 500 to 505).
enum ResponseStatus : std::int32_t {
  kStatusSuccess = 0,       // any 2xx answer (and every network-layer code below the 3xx range)
  kStatusParseFailure = 1,  // the answer arrived but its body could not be read; set by services
  kStatusFailure = 2,       // network failure, time-out, or an HTTP status not passed through
};

// A plain record of three words, passed by value.
struct NetworkResponseInfo {
  // The id under which the request was issued (what IConnection::Request returned).
  std::uint32_t request_id;
  // 0 for success, else a ResponseStatus value or the HTTP number.
  std::int32_t status;
  // The response header lines ("Name: value", in arrival order) when the request asked for them,
  // else null. Owned by the transport and freed as soon as the callback returns: copy what you keep.
  const std::vector<QString>* headers;
};

}  // namespace quire
}  // namespace kestrel
