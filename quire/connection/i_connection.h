// The door through which every request of the library reaches the network.
#pragma once

#include <QByteArray>
#include <QString>
#include <functional>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "quire/connection/connection_params.h"
#include "quire/connection/network_response_info.h"
#include "quire/quire_export.h"

namespace kestrel {
namespace quire {

// The completion of a transport-level request. The body is valid only during the call (it may be a
// view of the network layer's buffer): a callback that keeps it must take a deep copy.
using ResponseCallback = std::function<void(NetworkResponseInfo, QByteArray)>;

// A host may implement this interface and hand it to a service. Instances are allocated through the
// default memory manager (also with plain `new`), so the service that owns one may delete it.
//
// Threading: every call happens on the host's main thread, and every completion must be delivered
// there, later, never inside Request.
class QUIRE_EXPORT IConnection {
  KESTREL_MANAGED_ALLOCATION

 public:
  virtual ~IConnection();
  // Adds header lines sent with every later request, ahead of each request's own lines.
  virtual void Init(const std::vector<QString>& headers) = 0;
  // Issues the request and returns its id at once. `callback` is called exactly once, later.
  virtual unsigned int Request(const ConnectionParams& params, ResponseCallback callback) = 0;
  // Asks that the request with this id be stopped; what that means is up to the implementation.
  virtual void Cancel(unsigned int request_id) = 0;
};

}  // namespace quire
}  // namespace kestrel
