#include "tools/quire-server/fault_injector.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace quire_server {
namespace {

// SplitMix64's finaliser: a good 64-bit mix of a counter.
std::uint64_t Mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

// A number in [0, 1) drawn for request `n`; `draw` tells apart the draws of one request. It depends
// only on the seed, n and draw, so a run is repeated exactly whatever the threads do.
double Uniform(std::uint64_t seed, std::uint64_t n, std::uint64_t draw) {
  std::uint64_t bits = Mix(Mix(seed) ^ Mix(n * 4 + draw));
  return static_cast<double>(bits >> 11) * (1.0 / 9007199254740992.0);
}

}  // namespace

RequestFaults FaultInjector::NextRequest() {
  std::uint64_t n = requests_.fetch_add(1) + 1;
  RequestFaults faults;
  faults.fail = (options_.fail_every != 0 && n % options_.fail_every == 0) ||
                (options_.fail_share > 0 && Uniform(options_.seed, n, 0) < options_.fail_share);
  if (!faults.fail && options_.cut_share > 0 && Uniform(options_.seed, n, 1) < options_.cut_share) {
    faults.cut = true;
    faults.cut_point = Uniform(options_.seed, n, 2);
  }
  return faults;
}

HttpResponse FaultInjector::Unavailable() const {
  HttpResponse busy =
      HttpResponse::Error(503, "serviceUnavailable", "injected fault: the service is busy");
  busy.Set("Retry-After", std::to_string(options_.retry_after_s));
  return busy;
}

std::uint64_t FaultInjector::RequestByteLimit() const {
  return options_.close_request_after != 0 ? options_.close_request_after : kUnlimited;
}

std::uint64_t FaultInjector::ResponseByteLimit() const {
  return options_.close_response_after != 0 ? options_.close_response_after : kUnlimited;
}

std::chrono::milliseconds FaultInjector::IdleTimeout(std::chrono::milliseconds normal) const {
  return options_.idle_close_ms != 0 ? std::chrono::milliseconds(options_.idle_close_ms) : normal;
}

std::optional<std::string> FaultInjector::RangeFor(std::uint64_t held) const {
  if (options_.omit_range) return std::nullopt;
  std::uint64_t reported = held + options_.range_beyond;
  if (reported == 0) return std::nullopt;
  return "bytes=0-" + std::to_string(reported - 1);
}

void FaultInjector::ReplaceBody(HttpResponse* response) const {
  if (options_.body_file.empty() || response->status < 200 || response->status > 299) return;
  UniqueFd file(::open(options_.body_file.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat info {};
  if (!file.valid() || ::fstat(file.get(), &info) != 0) {
    *response = HttpResponse::Error(500, "internalError", "injected fault: body file unreadable");
    return;
  }
  response->body.clear();
  response->file = std::move(file);
  response->file_offset = 0;
  response->file_size = static_cast<std::uint64_t>(info.st_size);
}

}  // namespace quire_server
