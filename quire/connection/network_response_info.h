/// @file
/// The outcome of one request: the first argument of every completion callback of the library.
#pragma once

#include <QString>
#include <cstdint>
#include <vector>

namespace kestrel {
namespace quire {

/// Values of NetworkResponseInfo::status besides the HTTP numbers that are passed through (300,
/// 302, 308, 400 to 416, 500 to 505).
enum ResponseStatus : std::int32_t {
  kStatusSuccess = 0,       ///< any 2xx answer (and every network-layer code below the 3xx range)
  kStatusParseFailure = 1,  ///< the answer arrived but its body could not be read; set by services
  kStatusFailure = 2,       ///< network failure, time-out, or an HTTP status not passed through
  /// the request was cancelled; reported only by the classes that can cancel (RetryingConnection,
  /// ResumableUploader), never by Connection, whose Cancel does nothing
  kStatusCancelled = 3,
};

/// The outcome of one request: the first argument of every completion callback of the library.
///
/// A plain record of three words, passed by value. Code that tests for success compares `status`
/// with 0; code that looks for a particular HTTP answer compares it with the HTTP number.
struct NetworkResponseInfo {
  /// The id under which the request was issued (what IConnection::Request returned).
  std::uint32_t request_id;
  /// The outcome:
  /// - 0 (kStatusSuccess): any 2xx answer;
  /// - 1 (kStatusParseFailure): the answer was a success but its body could not be read; set only
  ///   by the services' completion handlers, never by a connection;
  /// - 2 (kStatusFailure): a network failure, a time-out, or an HTTP status that is not passed
  ///   through (301, 303, 304, 305, 307 among them);
  /// - 300, 302, 308: that HTTP redirection (308 is also the resumable upload's "incomplete");
  /// - 400 to 416: that HTTP client error;
  /// - 500 to 505: that HTTP server error.
  std::int32_t status;
  /// The response header lines ("Name: value", in arrival order) when the request asked for them,
  /// else null. Owned by the transport and freed as soon as the callback returns: copy what you
  /// keep.
  const std::vector<QString>* headers;
};

}  // namespace quire
}  // namespace kestrel
