/// @file
/// Issues requests on the host's network layer.
#pragma once

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/connection_options.h"
#include "kestrel/net/i_transport.h"
#include "kestrel/net/network_request.h"
#include "kestrel/net/server_info.h"

namespace kestrel {
namespace net {

/// Issues requests on the host's network layer: wraps each description in a NetworkRequest and
/// hands it to the transport that TransportRegistry::Default() named when the manager was made.
///
/// Allocated through the default memory manager (plain `new` and `delete` do that). Used from the
/// main loop's thread.
class KESTREL_EXPORT ConnectionManager {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// The arguments are those of ConnectionOptions, in its order: connections per host, idle
  /// connections kept per host, keep-alive, the stall time-out in seconds, and the age in seconds
  /// after which an idle connection is not reused. The manager sends through the transport that
  /// TransportRegistry::Default() names at construction; that transport is borrowed.
  ConnectionManager(int max_connections_per_host, int max_idle_connections_per_host,
                    bool keep_alive, double stall_timeout_seconds, int idle_connection_seconds);
  /// Requests in flight are not stopped: they still complete, and their callbacks still run.
  virtual ~ConnectionManager();
  ConnectionManager(const ConnectionManager&) = delete;
  ConnectionManager& operator=(const ConnectionManager&) = delete;

  /// Starts a request to `server` described by `info` and returns the new request object, whose
  /// single reference belongs to the network layer until completion; a caller that keeps the
  /// pointer takes a reference of its own (NetworkRequest::AddRef()) before it returns to the main
  /// loop. The request takes the body (shared) and the header list (moved) out of `info`; both
  /// arguments need only live during the call. The completion reaches `info.callback` later, on
  /// the main loop's thread, exactly once, also when the request cannot be sent (an invalid
  /// `server` completes with status::kErrorInvalidRequest). Requests in flight when the manager is
  /// deleted still complete.
  virtual NetworkRequest* StartRequest(ServerInfo& server, NetworkRequest::Info& info);

  /// Cancels `request`, one that this manager's StartRequest() returned and whose pointer the
  /// caller still holds a reference to: the request is marked cancelled and its transport stops
  /// the transfer (ITransport::Cancel(); the built-in transport takes it off the wire and frees its
  /// memory within 100 ms). Its callback is still called exactly once, later, on the main loop's
  /// thread, never inside this call, with status::kErrorCancelled and no response (no body, no
  /// header lines), also when the answer had already arrived but not yet been reported. Does
  /// nothing for null or for a request that has already completed. Main loop's thread only.
  virtual void CancelRequest(NetworkRequest* request);

  /// The options given at construction, which every request of this manager carries.
  const ConnectionOptions& options() const { return options_; }
  /// The transport this manager sends through (borrowed).
  ITransport* transport() const { return transport_; }

 private:
  ConnectionOptions options_;
  ITransport* transport_;
};

}  // namespace net
}  // namespace kestrel
