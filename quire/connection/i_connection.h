/// @file
/// The door through which every request of the library reaches the network.
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

/// The completion of a transport-level request. The body is valid only during the call (it may be a
/// view of the network layer's buffer): a callback that keeps it must take a deep copy.
using ResponseCallback = std::function<void(NetworkResponseInfo, QByteArray)>;

/// The door through which every request of the library reaches the network. Connection is the
/// library's own implementation; a host may implement this interface itself (to add tracing, to
/// report progress, to route through an HTTP stack of its own) and hand it to a service or to
/// ConnectionUtils. A decorator that wraps another IConnection and forwards every call is the usual
/// shape.
///
/// Ownership: instances are allocated through the default memory manager (also with plain `new`),
/// so the service that owns one may delete it. A service owns the connection it is handed;
/// ConnectionUtils only borrows it.
///
/// Threading: every call happens on the host's main thread, and every completion must be delivered
/// there, later, never inside Request().
class QUIRE_EXPORT IConnection {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// Requests in flight are the implementation's business; the library's services never delete
  /// their connection while one of their requests is outstanding (that is the host's duty).
  virtual ~IConnection();
  /// Adds header lines sent with every later request, ahead of each request's own lines. A service
  /// calls it once, from its constructor, with the version line ("Quire-Version: 3.0").
  virtual void Init(const std::vector<QString>& headers) = 0;
  /// Issues the request and returns its id at once. `params` and what it points to need only live
  /// during the call, so an implementation copies what it keeps.
  ///
  /// `callback` must be called exactly once, later, on the main thread, with a NetworkResponseInfo
  /// whose `request_id` is the returned id and whose `status` follows the table of
  /// NetworkResponseInfo (0 for success, 2 for a failure without a usable HTTP answer, or the HTTP
  /// number), and with the response body. The header list it passes is null unless
  /// `params.collect_response_headers` was set; the list and the body need only live during the
  /// call of `callback`.
  virtual unsigned int Request(const ConnectionParams& params, ResponseCallback callback) = 0;
  /// Asks that the request with this id be stopped; what that means is up to the implementation.
  /// The library's Connection ignores it. The services and ConnectionUtils count on every request
  /// completing exactly once, so an implementation that stops a request still calls its callback,
  /// with a failure status.
  virtual void Cancel(unsigned int request_id) = 0;
};

}  // namespace quire
}  // namespace kestrel
