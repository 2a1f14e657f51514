// Wall-clock time as the service writes it.
#pragma once

#include <cstdint>
#include <string>

namespace quire_server {

class Timestamp {
 public:
  // Milliseconds since the Unix epoch.
  static std::int64_t NowMillis();
  // RFC 3339 in UTC with milliseconds and "Z", e.g. 2024-05-01T12:34:56.789Z.
  static std::string Rfc3339(std::int64_t millis);
  // The HTTP date form (IMF-fixdate), e.g. Sun, 06 Nov 1994 08:49:37 GMT.
  static std::string HttpDate(std::int64_t millis);
};

}  // namespace quire_server
