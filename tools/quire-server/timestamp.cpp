#include "tools/quire-server/timestamp.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace quire_server {
namespace {

std::tm UtcTime(std::int64_t millis) {
  std::time_t seconds = static_cast<std::time_t>(millis / 1000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  return parts;
}

}  // namespace

std::int64_t Timestamp::NowMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string Timestamp::Rfc3339(std::int64_t millis) {
  std::tm t = UtcTime(millis);
  char text[96];
  std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                static_cast<int>(millis % 1000));
  return text;
}

std::string Timestamp::HttpDate(std::int64_t millis) {
  std::tm t = UtcTime(millis);
  char text[40];
  std::strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S GMT", &t);
  return text;
}

}  // namespace quire_server
