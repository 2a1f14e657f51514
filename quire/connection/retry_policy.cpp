#include "quire/connection/retry_policy.h"

#include <QStringList>
#include <algorithm>
#include <cmath>
#include <memory>
#include <mutex>
#include <random>

#include "kestrel/net/network_status.h"
#include "quire/connection/connection_params.h"
#include "quire/connection/network_response_info.h"

namespace kestrel {
namespace quire {
namespace {

namespace net_status = kestrel::net::status;

// The default jitter source: one generator for the process, seeded from the system, behind a lock
// because policies may live on several threads.
double SystemRandom() {
  static std::mutex mutex;
  static std::mt19937_64 engine{std::random_device{}()};
  std::lock_guard<std::mutex> lock(mutex);
  return std::uniform_real_distribution<double>(0.0, 1.0)(engine);
}

// Days from 1970-01-01 to the given civil date (proleptic Gregorian).
long long DaysFromCivil(long long year, int month, int day) {
  year -= month <= 2 ? 1 : 0;
  const long long era = (year >= 0 ? year : year - 399) / 400;
  const long long year_of_era = year - era * 400;
  const long long day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const long long day_of_era =
      year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}

bool IsLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysInMonth(int year, int month) {
  static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeap(year) ? 29 : kDays[month - 1];
}

// "Jan" .. "Dec" -> 1 .. 12, else 0. HTTP dates are case-sensitive.
int MonthNumber(const QString& name) {
  static const char* const kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (int i = 0; i < 12; ++i) {
    if (name == QLatin1String(kMonths[i])) return i + 1;
  }
  return 0;
}

bool IsShortDayName(const QString& name) {
  static const char* const kDays[7] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
  for (const char* day : kDays) {
    if (name == QLatin1String(day)) return true;
  }
  return false;
}

bool IsLongDayName(const QString& name) {
  static const char* const kDays[7] = {"Monday", "Tuesday",  "Wednesday", "Thursday",
                                       "Friday", "Saturday", "Sunday"};
  for (const char* day : kDays) {
    if (name == QLatin1String(day)) return true;
  }
  return false;
}

// A number of exactly `min_digits` to `max_digits` decimal digits.
bool ReadNumber(const QString& text, int min_digits, int max_digits, int* out) {
  if (text.size() < min_digits || text.size() > max_digits) return false;
  int value = 0;
  for (QChar c : text) {
    if (c < QLatin1Char('0') || c > QLatin1Char('9')) return false;
    value = value * 10 + (c.unicode() - '0');
  }
  *out = value;
  return true;
}

// "HH:MM:SS".
bool ReadTime(const QString& text, int* hour, int* minute, int* second) {
  const QStringList parts = text.split(QLatin1Char(':'));
  return parts.size() == 3 && ReadNumber(parts[0], 2, 2, hour) && *hour <= 23 &&
         ReadNumber(parts[1], 2, 2, minute) && *minute <= 59 &&
         ReadNumber(parts[2], 2, 2, second) && *second <= 60;
}

// The three forms of an HTTP-date, as seconds since 1970 (UTC).
bool ParseHttpDate(const QString& value, double* unix_seconds) {
  const QStringList tokens = value.split(QLatin1Char(' '), Qt::SkipEmptyParts);
  int day = 0, month = 0, year = 0, hour = 0, minute = 0, second = 0;
  if (tokens.size() == 6 && tokens[0].endsWith(QLatin1Char(',')) &&
      IsShortDayName(tokens[0].chopped(1)) && tokens[5] == QLatin1String("GMT")) {
    // IMF-fixdate: Sun, 06 Nov 1994 08:49:37 GMT
    month = MonthNumber(tokens[2]);
    if (!ReadNumber(tokens[1], 2, 2, &day) || month == 0 || !ReadNumber(tokens[3], 4, 4, &year) ||
        !ReadTime(tokens[4], &hour, &minute, &second)) {
      return false;
    }
  } else if (tokens.size() == 4 && tokens[0].endsWith(QLatin1Char(',')) &&
             IsLongDayName(tokens[0].chopped(1)) && tokens[3] == QLatin1String("GMT")) {
    // RFC 850: Sunday, 06-Nov-94 08:49:37 GMT. A two-digit year more than 50 years ahead is taken
    // from the century before; plainly, years 70 to 99 are 19xx and the rest 20xx.
    const QStringList date = tokens[1].split(QLatin1Char('-'));
    if (date.size() != 3 || !ReadNumber(date[0], 2, 2, &day) || !ReadNumber(date[2], 2, 2, &year) ||
        !ReadTime(tokens[2], &hour, &minute, &second)) {
      return false;
    }
    month = MonthNumber(date[1]);
    if (month == 0) return false;
    year += year >= 70 ? 1900 : 2000;
  } else if (tokens.size() == 5 && IsShortDayName(tokens[0])) {
    // asctime: Sun Nov  6 08:49:37 1994
    month = MonthNumber(tokens[1]);
    if (month == 0 || !ReadNumber(tokens[2], 1, 2, &day) ||
        !ReadTime(tokens[3], &hour, &minute, &second) || !ReadNumber(tokens[4], 4, 4, &year)) {
      return false;
    }
  } else {
    return false;
  }
  if (day < 1 || day > DaysInMonth(year, month)) return false;
  *unix_seconds = static_cast<double>(DaysFromCivil(year, month, day)) * 86400.0 + hour * 3600.0 +
                  minute * 60.0 + second;
  return true;
}

}  // namespace

RetryPolicy::RetryPolicy()
    : max_attempts_(5),
      total_deadline_seconds_(300.0),
      base_backoff_seconds_(0.5),
      max_backoff_seconds_(30.0),
      retry_after_cap_seconds_(120.0),
      random_(&SystemRandom) {}

RetryPolicy RetryPolicy::NoRetries() {
  RetryPolicy policy;
  policy.set_max_attempts(1);
  return policy;
}

void RetryPolicy::set_random_source(RandomSource source) {
  random_ = source ? std::move(source) : RandomSource(&SystemRandom);
}

bool RetryPolicy::IsTransient(std::uint32_t method, std::int32_t status,
                              std::uint32_t network_code) const {
  // The HTTP answer, if there was one: the network code carries it also where the status does
  // not (429 arrives as status 2).
  int http = 0;
  if (net_status::IsHttp(network_code)) {
    http = net_status::ToHttp(network_code);
  } else if (status >= 300) {
    http = status;
  }
  if (method == kMethodPost) {
    // Only what provably never reached the server.
    return http == 0 && status == kStatusFailure &&
           (network_code == net_status::kErrorConnectionRefused ||
            network_code == net_status::kErrorNameNotResolved);
  }
  if (http != 0) {
    return http == 408 || http == 429 || http == 500 || http == 502 || http == 503 || http == 504;
  }
  if (status != kStatusFailure) return false;
  switch (network_code) {
    case 0:  // a host connection that does not tell: the failure had no usable answer
    case net_status::kErrorUnknown:
    case net_status::kErrorNameNotResolved:
    case net_status::kErrorConnectionRefused:
    case net_status::kErrorConnectionReset:
    case net_status::kErrorTls:
    case net_status::kErrorTimedOut:
    case net_status::kErrorResponseTruncated:
    case net_status::kErrorSendFailed:
      return true;
    default:
      // Invalid requests, a missing transport, cancellation and a refused certificate (which
      // would be refused again) are final.
      return false;
  }
}

double RetryPolicy::BackoffSeconds(int retry) const {
  if (retry < 1) retry = 1;
  // 2^(retry-1) overflows nothing as a double; the ceiling caps it.
  const double ceiling = std::min(max_backoff_seconds_,
                                  base_backoff_seconds_ * std::ldexp(1.0, std::min(retry - 1, 60)));
  double unit = random_ ? random_() : 0.0;
  if (!(unit >= 0.0)) unit = 0.0;  // also NaN
  if (unit >= 1.0) unit = std::nextafter(1.0, 0.0);
  return unit * ceiling;
}

double RetryPolicy::DelayBeforeRetry(int retry, const std::vector<QString>* headers,
                                     double now_unix_seconds) const {
  const QString value = HeaderValue(headers, QStringLiteral("Retry-After"));
  double seconds = 0;
  if (!value.isEmpty() && ParseRetryAfter(value, now_unix_seconds, &seconds)) {
    return std::min(seconds, retry_after_cap_seconds_);
  }
  return BackoffSeconds(retry);
}

bool RetryPolicy::ParseRetryAfter(const QString& value, double now_unix_seconds, double* seconds) {
  const QString text = value.trimmed();
  if (text.isEmpty()) return false;
  bool digits = true;
  for (QChar c : text) {
    if (c < QLatin1Char('0') || c > QLatin1Char('9')) {
      digits = false;
      break;
    }
  }
  if (digits) {
    // Beyond ten digits the number means "centuries": keep it large without overflowing.
    if (text.size() > 10) {
      *seconds = 1e10;
      return true;
    }
    *seconds = static_cast<double>(text.toLongLong());
    return true;
  }
  double when = 0;
  if (!ParseHttpDate(text, &when)) return false;
  *seconds = std::max(0.0, when - now_unix_seconds);
  return true;
}

QString RetryPolicy::HeaderValue(const std::vector<QString>* headers, const QString& name) {
  if (headers == nullptr) return QString();
  for (const QString& line : *headers) {
    const int colon = line.indexOf(QLatin1Char(':'));
    if (colon < 0) continue;
    if (line.left(colon).trimmed().compare(name, Qt::CaseInsensitive) == 0) {
      return line.mid(colon + 1).trimmed();
    }
  }
  return QString();
}

}  // namespace quire
}  // namespace kestrel
