// What every connection shares: the protocol logic, the faults to inject and the timeouts.
#pragma once

#include <chrono>

namespace quire_server {

class FaultInjector;
class ServiceHandler;

struct ConnectionContext {
  ServiceHandler* handler = nullptr;
  FaultInjector* faults = nullptr;
  // How long a keep-alive connection may wait for its next request.
  std::chrono::milliseconds idle_timeout{std::chrono::seconds(60)};
  // How long one read or write may make no progress.
  std::chrono::milliseconds io_timeout{std::chrono::seconds(60)};
  // One line per request on standard error.
  bool verbose = false;
};

}  // namespace quire_server
