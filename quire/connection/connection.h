/// @file
/// The library's own IConnection, over the host's network layer (kestrel::net).
#pragma once

#include <QString>
#include <vector>

#include "kestrel/base/i_job_executor.h"
#include "kestrel/net/connection_manager.h"
#include "kestrel/net/request_header.h"
#include "quire/connection/i_transfer_connection.h"

namespace kestrel {
namespace quire {

/// The library's own IConnection, over the host's network layer (kestrel::net): the connection a
/// service creates when the host hands it none.
///
/// Usage: construct, Init() once, then any number of Request() calls on the main thread. Every
/// request ends in exactly one call of its callback, on the main loop's thread, never inside
/// Request(). Cancel() is accepted and does nothing: an issued request always completes. Abort()
/// is the way to stop a request on the wire; StartTransfer() issues a request that reports its
/// byte progress.
///
/// A request's state lives in a callback adaptor owned by the network layer, not in the connection:
/// deleting a connection with requests in flight is allowed, and their callbacks still arrive.
///
/// Ownership: allocated through the default memory manager (plain `new` and `delete` do that). A
/// service that is handed a connection owns it. Threading: main thread only; no locks.
class QUIRE_EXPORT Connection : public ITransferConnection {
 public:
  /// A connection without connection manager or fixed lines, whose first automatic request id
  /// is 1. It sends nothing until Init().
  Connection();
  /// Deletes the connection manager. Requests in flight are not stopped: their callbacks still
  /// arrive, so whatever they refer to must still be alive.
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Creates the network layer's connection manager (replacing one made by an earlier call) and
  /// appends `headers` to the fixed lines. A second call adds its lines after those of the first,
  /// so that both sets are sent.
  void Init(const std::vector<QString>& headers) override;
  /// Sends the request: method (values beyond DELETE are sent as GET), the fixed lines then the
  /// request's own lines, the body shared without copying. Returns the request's id (see
  /// ComputeRequestId()) at once; `params` need only live during the call. Must not be called
  /// before Init().
  ///
  /// `callback` is called exactly once, later, on the main loop's thread, with the request's id
  /// and one of these statuses (never 1, which only services set):
  /// - 0: any answer below the 3xx range (every 2xx);
  /// - 300, 302, 308: that HTTP redirection (redirects are never followed);
  /// - 400 to 416, 500 to 505: that HTTP error;
  /// - 2: any other HTTP status (301, 303, 304, 305, 307, 417, 506 and the rest), or a failure
  ///   without an HTTP answer (name resolution, connection, TLS, time-out, a malformed URL or
  ///   header line).
  ///
  /// The body is the answer's body whatever the status (often empty on failures), as a view of the
  /// network layer's buffer valid only during the call. The header lines are given only when
  /// `params.collect_response_headers` was true (an empty list when none arrived), else null; they
  /// too live only during the call.
  unsigned int Request(const ConnectionParams& params, ResponseCallback callback) override;
  /// Does nothing; the request's callback still arrives.
  void Cancel(unsigned int request_id) override;

  /// Issues the request exactly as Request() does; `callback` also receives the network layer's
  /// completion code (status 2 covers many of them), and `progress`, when not empty, hears of the
  /// transfer's bytes (see ITransferConnection::StartTransfer()). Must not be called before Init().
  unsigned int StartTransfer(const ConnectionParams& params, TransferCallback callback,
                             ProgressCallback progress) override;
  /// Stops every request of this connection in flight under `request_id` on the wire
  /// (kestrel::net::ConnectionManager::CancelRequest()): the built-in transport takes it off the
  /// wire and frees its memory within 100 ms. Each such request still ends in exactly one call of
  /// its callback, later, on the main loop's thread, with status 2 (the network layer's code
  /// kestrel::net::status::kErrorCancelled for StartTransfer() callbacks), no response header
  /// lines (an empty list when they were asked for) and an empty body, also when the answer had
  /// arrived but not yet been reported. Ids of finished or unknown requests are ignored.
  void Abort(unsigned int request_id) override;

  /// A header record that carries `line` whole: type 0, the line as the first string, the second
  /// string null. The line is not split, trimmed or checked.
  static kestrel::net::RequestHeader GetNetHeaderFromString(const QString& line);
  /// Fills `out` (emptied first) with the fixed lines, then the lines of `extra` (may be null).
  void SetUpHeaders(const std::vector<QString>* extra, kestrel::net::RequestHeaderList* out);
  /// `requested` when it is not 0; otherwise the counter's value, after which the counter advances,
  /// skipping 0 when it wraps. Ids run 1, 2, ..., 4294967295, 1, ...
  unsigned int ComputeRequestId(unsigned int requested);

  /// The id that the next automatic request id will be.
  unsigned int next_request_id() const { return next_request_id_; }
  /// Sets the counter (0 is stored as 1), to restore the numbering of an earlier connection, say.
  void set_next_request_id(unsigned int next) { next_request_id_ = next == 0 ? 1 : next; }

  /// The requests of a connection not yet completed (defined where Connection is implemented).
  struct InFlight;

 private:
  unsigned int Issue(const ConnectionParams& params, ResponseCallback callback,
                     TransferCallback transfer_callback, ProgressCallback progress);

  kestrel::net::ConnectionManager* connection_manager_;
  kestrel::net::RequestHeaderList fixed_headers_;
  unsigned int next_request_id_;
  kestrel::IJobExecutor* job_executor_;
  InFlight* in_flight_;  // the requests not yet completed, for Abort(); shared with them
};

}  // namespace quire
}  // namespace kestrel
