// Issues requests on the host's network layer.
#pragma once

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/connection_options.h"
#include "kestrel/net/i_transport.h"
#include "kestrel/net/network_request.h"
#include "kestrel/net/server_info.h"

namespace kestrel {
namespace net {

class KESTREL_EXPORT ConnectionManager {
  KESTREL_MANAGED_ALLOCATION

 public:
  // The arguments are those of ConnectionOptions, in its order: connections per host, idle
  // connections kept per host, keep-alive, the stall time-out in seconds, and the age in seconds
  // after which an idle connection is not reused. The manager sends through the transport that
  // TransportRegistry::Default() names at construction.
  ConnectionManager(int max_connections_per_host, int max_idle_connections_per_host,
                    bool keep_alive, double stall_timeout_seconds, int idle_connection_seconds);
  virtual ~ConnectionManager();
  ConnectionManager(const ConnectionManager&) = delete;
  ConnectionManager& operator=(const ConnectionManager&) = delete;

  // Starts a request to `server` described by `info` and returns the new request object, whose
  // single reference belongs to the network layer until completion. The completion reaches
  // `info.callback` later, on the main loop's thread, exactly once. Requests in flight when the
  // manager is deleted still complete.
  virtual NetworkRequest* StartRequest(ServerInfo& server, NetworkRequest::Info& info);

  const ConnectionOptions& options() const { return options_; }
  ITransport* transport() const { return transport_; }

 private:
  ConnectionOptions options_;
  ITransport* transport_;
};

}  // namespace net
}  // namespace kestrel
