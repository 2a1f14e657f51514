#include "tools/quire/network_diagnostics.h"

#include "kestrel/net/network_request.h"

namespace quire_cli {

using kestrel::net::NetworkRequest;

NetworkDiagnostics::NetworkDiagnostics(kestrel::net::ITransport* inner,
                                       double stall_timeout_seconds)
    : inner_(inner), stall_timeout_seconds_(stall_timeout_seconds) {}

NetworkDiagnostics::~NetworkDiagnostics() {
  for (NetworkRequest* request : watched_) NetworkRequest::ReleaseRef(request);
}

void NetworkDiagnostics::Start(NetworkRequest* request, const kestrel::net::ServerInfo& server,
                               const kestrel::net::ConnectionOptions& options) {
  Harvest();
  NetworkRequest::AddRef(request);
  watched_.push_back(request);
  if (stall_timeout_seconds_ > 0) {
    kestrel::net::ConnectionOptions adjusted = options;
    adjusted.stall_timeout_seconds = stall_timeout_seconds_;
    inner_->Start(request, server, adjusted);
  } else {
    inner_->Start(request, server, options);
  }
}

NetworkDiagnostics::Outcome NetworkDiagnostics::LastCompleted() {
  Harvest();
  return last_;
}

void NetworkDiagnostics::Harvest() {
  std::vector<NetworkRequest*> still_running;
  for (NetworkRequest* request : watched_) {
    if (request->completed()) {
      last_.known = true;
      last_.code = request->GetHttpRequest()->GetResponseStatus();
      last_.url = request->GetHttpRequest()->url();
      NetworkRequest::ReleaseRef(request);
    } else {
      still_running.push_back(request);
    }
  }
  watched_.swap(still_running);
}

}  // namespace quire_cli
