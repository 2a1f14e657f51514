#include "tools/quire-server/fault_injector.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace quire_server {

bool FaultInjector::NextRequestFails() {
  std::uint64_t n = requests_.fetch_add(1) + 1;
  return options_.fail_every != 0 && n % options_.fail_every == 0;
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
