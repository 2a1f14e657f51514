/// @file
/// An IConnection whose requests report byte progress and can be stopped on the wire.
#pragma once

#include <QByteArray>
#include <cstdint>
#include <functional>

#include "kestrel/net/network_request.h"
#include "quire/connection/i_connection.h"
#include "quire/quire_export.h"

namespace kestrel {
namespace quire {

/// The completion of a request made with ITransferConnection::StartTransfer(): what a
/// ResponseCallback receives, plus the network layer's own completion code (see
/// kestrel/net/network_status.h), which tells apart the failures that status 2 lumps together
/// (connection refused, name not resolved, reset, time-out, cancelled, ...). The code is 0 when the
/// connection cannot know it (a host's own IConnection underneath).
using TransferCallback =
    std::function<void(NetworkResponseInfo info, QByteArray body, std::uint32_t network_code)>;

/// Hears how far a request's transfer has got: the request's id and the byte counts so far.
/// Called on the main loop's thread, never after the request's completion.
using ProgressCallback =
    std::function<void(std::uint32_t request_id, const kestrel::net::TransferProgress& progress)>;

/// An IConnection whose requests report byte progress and can be stopped on the wire. Connection
/// and RetryingConnection are such connections; ResumableUploader and RetryingConnection use these
/// abilities when the connection they are given has them, and do without otherwise.
///
/// Threading and ownership as for IConnection.
class QUIRE_EXPORT ITransferConnection : public IConnection {
 public:
  /// Requests in flight are the implementation's business, as for IConnection.
  ~ITransferConnection() override;

  /// Issues the request like Request() and returns its id at once. `callback` is called exactly
  /// once, later, on the main thread, with what Request()'s callback would receive and the network
  /// layer's code. `progress`, when not empty, hears of the transfer's bytes while it moves (at
  /// least whenever 256 KiB more have moved or 100 ms have passed, never flooding the main loop).
  virtual unsigned int StartTransfer(const ConnectionParams& params, TransferCallback callback,
                                     ProgressCallback progress) = 0;
  /// Stops every request in flight under `request_id` on the wire, releasing what it holds. Each
  /// still ends in exactly one call of its callback, later, on the main thread, never inside
  /// this call; the implementation documents the status it carries. An unknown or finished id is
  /// ignored.
  virtual void Abort(unsigned int request_id) = 0;
};

}  // namespace quire
}  // namespace kestrel
