/// @file
/// When and how long to wait before a failed request is sent again.
#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "quire/quire_export.h"

namespace kestrel {
namespace quire {

/// When and how long to wait before a failed request is sent again: a plain value that a host
/// sets up and hands to RetryingConnection or ResumableUploader (which copy it).
///
/// **Which outcomes are transient** (IsTransient()): a failure before any usable answer arrived
/// (connection refused, name not resolved, connection reset, time-out, TLS handshake cut, answer
/// cut short, sending failed; also a status 2 whose network code is unknown), and the HTTP
/// answers 408, 429, 500, 502, 503 and 504. Everything else is final: other HTTP answers, a request
/// the network layer refused to send (bad URL or header line), a cancelled request, a certificate
/// that was refused or could not be checked (kestrel::net::status::kErrorCertificate: it would be
/// refused again). A POST may
/// create something on the server, so it is retried only when it provably never reached the
/// server: connection refused or name not resolved. GET, PUT and DELETE are idempotent and are
/// retried on every transient outcome.
///
/// **How long to wait** (DelayBeforeRetry()): when the answer carries a usable `Retry-After`
/// (delta-seconds, or an HTTP-date in any of the three forms HTTP allows), that long, but at most
/// retry_after_cap_seconds(); a date in the past means at once; a malformed value is ignored.
/// Otherwise exponential backoff with full jitter: retry n (1 for the first) waits a uniformly
/// random time in [0, min(max_backoff, base_backoff * 2^(n-1))).
///
/// **How often and how long in all**: at most max_attempts() sends of one request (the first one
/// included), and no retry is started whose wait would end after total_deadline_seconds() since
/// the first send.
///
/// Allocated through the default memory manager; a value class (copyable). Not thread-safe: one
/// thread at a time per object (the random source is shared by copies).
class QUIRE_EXPORT RetryPolicy {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// Returns a number uniformly distributed in [0, 1); tests inject a fixed sequence.
  using RandomSource = std::function<double()>;

  /// 5 attempts, a total deadline of 300 s, backoff from 0.5 s up to 30 s, `Retry-After` honoured
  /// up to 120 s, a random source seeded from the system.
  RetryPolicy();

  /// A policy that never retries (one attempt).
  static RetryPolicy NoRetries();

  /// The largest number of sends of one request, the first included; at least 1.
  int max_attempts() const { return max_attempts_; }
  /// Sets max_attempts(); values below 1 are taken as 1 (no retry).
  void set_max_attempts(int attempts) { max_attempts_ = attempts < 1 ? 1 : attempts; }
  /// No retry starts whose wait would end later than this after the first send; 0 or less: no
  /// deadline.
  double total_deadline_seconds() const { return total_deadline_seconds_; }
  /// Sets total_deadline_seconds().
  void set_total_deadline_seconds(double seconds) { total_deadline_seconds_ = seconds; }
  /// The backoff ceiling of the first retry; doubles with each further one.
  double base_backoff_seconds() const { return base_backoff_seconds_; }
  /// Sets base_backoff_seconds() (negative values are taken as 0).
  void set_base_backoff_seconds(double seconds) {
    base_backoff_seconds_ = seconds < 0 ? 0 : seconds;
  }
  /// The highest backoff ceiling.
  double max_backoff_seconds() const { return max_backoff_seconds_; }
  /// Sets max_backoff_seconds() (negative values are taken as 0).
  void set_max_backoff_seconds(double seconds) { max_backoff_seconds_ = seconds < 0 ? 0 : seconds; }
  /// The longest `Retry-After` wait honoured; longer ones are cut to it.
  double retry_after_cap_seconds() const { return retry_after_cap_seconds_; }
  /// Sets retry_after_cap_seconds() (negative values are taken as 0).
  void set_retry_after_cap_seconds(double seconds) {
    retry_after_cap_seconds_ = seconds < 0 ? 0 : seconds;
  }
  /// Replaces the random source of the jitter; an empty one restores the system-seeded default.
  void set_random_source(RandomSource source);

  /// Whether the outcome of one send of a request with `method` (a ConnectionMethod value) is worth
  /// another send: `status` as in NetworkResponseInfo, `network_code` the network layer's code
  /// (kestrel::net::status; 0 when unknown). See the class description.
  bool IsTransient(std::uint32_t method, std::int32_t status, std::uint32_t network_code) const;

  /// The jittered backoff before retry number `retry` (1 for the first retry).
  double BackoffSeconds(int retry) const;

  /// The wait before retry number `retry` after an answer with the header lines `headers` (may be
  /// null): its `Retry-After` when usable (capped), else BackoffSeconds(). `now_unix_seconds` is
  /// the current time, for an HTTP-date.
  double DelayBeforeRetry(int retry, const std::vector<QString>* headers,
                          double now_unix_seconds) const;

  /// Reads a `Retry-After` value: delta-seconds (digits only; absurdly long numbers count as very
  /// large), or an HTTP-date (IMF-fixdate "Sun, 06 Nov 1994 08:49:37 GMT", the obsolete RFC 850
  /// form "Sunday, 06-Nov-94 08:49:37 GMT" or the asctime form "Sun Nov  6 08:49:37 1994"), taken
  /// relative to `now_unix_seconds` (a past date gives 0). Blanks around the value are ignored.
  /// Returns false, leaving `*seconds` alone, for anything else (empty, negative, fractions, junk,
  /// impossible dates). `seconds` must not be null. The result is not capped.
  static bool ParseRetryAfter(const QString& value, double now_unix_seconds, double* seconds);

  /// The value of the first line of `headers` (may be null) named `name`, compared without regard
  /// to case, with blanks around the value removed; empty when there is none.
  static QString HeaderValue(const std::vector<QString>* headers, const QString& name);

 private:
  int max_attempts_;
  double total_deadline_seconds_;
  double base_backoff_seconds_;
  double max_backoff_seconds_;
  double retry_after_cap_seconds_;
  RandomSource random_;
};

}  // namespace quire
}  // namespace kestrel
