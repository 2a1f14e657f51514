/// @file
/// What a connection manager asks of the transport for its requests.
#pragma once

namespace kestrel {
namespace net {

/// What a connection manager asks of the transport for its requests. The defaults are the values
/// that the quire library's Connection passes.
struct ConnectionOptions {
  /// At most this many connections are open to one host at a time; further requests wait.
  int max_connections_per_host = 4;
  /// At most this many idle connections per host are kept open for reuse.
  int max_idle_connections_per_host = 2;
  /// HTTP/1.1 keep-alive: reuse connections between requests.
  bool keep_alive = true;
  /// A request fails with status::kErrorTimedOut when connecting takes longer than this, or when
  /// no byte moves in either direction for this long. A slow but moving transfer never times out.
  double stall_timeout_seconds = 60.0;
  /// An idle connection older than this many seconds is not reused.
  int idle_connection_seconds = 60;
};

}  // namespace net
}  // namespace kestrel
