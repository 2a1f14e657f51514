// Faults the emulator can inject for tests of clients; every one is off by default (zero/false).
#pragma once

#include <cstdint>
#include <string>

namespace quire_server {

struct FaultOptions {
  // Close the connection (without an answer) once a request has sent this many bytes.
  std::uint64_t close_request_after = 0;
  // Close the connection once this many bytes of an answer went out.
  std::uint64_t close_response_after = 0;
  // Answer 503 to every k-th request, before doing anything with it.
  std::uint32_t fail_every = 0;
  // Answer 503 to this share (0 to 1) of requests, chosen at random, before doing anything.
  double fail_share = 0;
  // Cut the connection of this share (0 to 1) of requests, chosen at random, in the middle of a
  // body: of the request's when it has one, else of the answer's.
  double cut_share = 0;
  // Seed of the random choices above: the same seed and the same sequence of requests give the
  // same faults.
  std::uint64_t seed = 1;
  // The Retry-After value (seconds) of every injected 503.
  std::uint32_t retry_after_s = 1;
  // Answer 308 without a Range field.
  bool omit_range = false;
  // Report this many bytes more in the Range field of a 308 than the session holds.
  std::uint64_t range_beyond = 0;
  // Wait this long before every answer.
  std::uint32_t delay_ms = 0;
  // Close keep-alive connections that sit idle this long between requests.
  std::uint32_t idle_close_ms = 0;
  // Every 2xx answer carries the bytes of this file as its body instead of its own (status and
  // header fields kept): a malformed or hostile document, or a huge one, in place of the feed, an
  // entry, the user information or a content download.
  std::string body_file;
};

}  // namespace quire_server
