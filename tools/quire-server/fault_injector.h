// Applies the configured faults (see FaultOptions). Thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/quire-server/fault_options.h"
#include "tools/quire-server/http_response.h"

namespace quire_server {

// The faults chosen for one request.
struct RequestFaults {
  // Answer 503 (with Retry-After) without doing anything.
  bool fail = false;
  // Cut the connection part-way through a body; `cut_point` (in [0, 1)) says how far into it.
  bool cut = false;
  double cut_point = 0;
};

class FaultInjector {
 public:
  static constexpr std::uint64_t kUnlimited = ~std::uint64_t{0};

  explicit FaultInjector(const FaultOptions& options) : options_(options) {}

  const FaultOptions& options() const { return options_; }
  // Counts one request and chooses its faults: a 503 for every k-th request and, from the seed
  // and the request's number, the random 503s and cuts.
  RequestFaults NextRequest();
  // The answer of an injected 503.
  HttpResponse Unavailable() const;
  std::uint64_t RequestByteLimit() const;
  std::uint64_t ResponseByteLimit() const;
  std::chrono::milliseconds AnswerDelay() const {
    return std::chrono::milliseconds(options_.delay_ms);
  }
  // How long a keep-alive connection may wait for its next request.
  std::chrono::milliseconds IdleTimeout(std::chrono::milliseconds normal) const;
  // The Range value of a 308 answer for a session that holds `held` bytes; empty when the answer
  // carries none.
  std::optional<std::string> RangeFor(std::uint64_t held) const;
  // With a body file set, gives a 2xx answer that file's bytes as its body; an answer of another
  // status is left alone. A body file that can no longer be read turns the answer into a 500.
  void ReplaceBody(HttpResponse* response) const;

 private:
  const FaultOptions options_;
  std::atomic<std::uint64_t> requests_{0};
};

}  // namespace quire_server
