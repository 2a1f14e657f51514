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
