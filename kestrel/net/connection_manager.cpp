#include "kestrel/net/connection_manager.h"

#include "kestrel/net/transport_registry.h"

namespace kestrel {
namespace net {

ConnectionManager::ConnectionManager(int max_connections_per_host,
                                     int max_idle_connections_per_host, bool keep_alive,
                                     double stall_timeout_seconds, int idle_connection_seconds)
    : transport_(TransportRegistry::Default()) {
  options_.max_connections_per_host = max_connections_per_host;
  options_.max_idle_connections_per_host = max_idle_connections_per_host;
  options_.keep_alive = keep_alive;
  options_.stall_timeout_seconds = stall_timeout_seconds;
  options_.idle_connection_seconds = idle_connection_seconds;
}

ConnectionManager::~ConnectionManager() = default;

NetworkRequest* ConnectionManager::StartRequest(ServerInfo& server, NetworkRequest::Info& info) {
  auto* request = new NetworkRequest(&info);
  transport_->Start(request, server, options_);
  return request;
}

void ConnectionManager::CancelRequest(NetworkRequest* request) {
  if (request == nullptr || request->completed() || request->cancelled()) return;
  request->MarkCancelled();
  transport_->Cancel(request);
}

}  // namespace net
}  // namespace kestrel
