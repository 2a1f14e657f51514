/// @file
/// The description of one request that a service hands to IConnection::Request.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <vector>

namespace kestrel {
namespace quire {

/// Values of ConnectionParams::method. Any other value is sent as a GET.
enum ConnectionMethod : std::uint32_t {
  kMethodGet = 0,     ///< GET
  kMethodPost = 1,    ///< POST
  kMethodPut = 2,     ///< PUT
  kMethodDelete = 3,  ///< DELETE
};

/// The description of one request that a service (or a host) hands to IConnection::Request().
///
/// A plain record, filled field by field by the caller on its own stack; it has no constructor,
/// so every field must be set. Request() copies what it needs before it returns, so the record and
/// what its pointers refer to need only live until then.
struct ConnectionParams {
  /// The HTTP method, a ConnectionMethod value; anything else is sent as GET.
  std::uint32_t method;
  /// The absolute URL as text, already percent-encoded.
  QString url;
  /// Borrowed; null sends an empty body.
  const QByteArray* body;
  /// Borrowed whole header lines ("Name: value"), sent after the connection's fixed lines exactly
  /// as they stand; null or empty sends only the fixed lines.
  const std::vector<QString>* headers;
  /// Whether NetworkResponseInfo::headers receives the response header lines.
  bool collect_response_headers;
  /// 0 asks the connection for the next id; any other value is used unchanged.
  std::uint32_t request_id;
};

}  // namespace quire
}  // namespace kestrel
