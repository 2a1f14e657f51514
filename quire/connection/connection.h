// The library's own IConnection, over the host's network layer (kestrel::net).
#pragma once

#include <QString>
#include <vector>

#include "kestrel/base/i_job_executor.h"
#include "kestrel/net/connection_manager.h"
#include "kestrel/net/request_header.h"
#include "quire/connection/i_connection.h"

namespace kestrel {
namespace quire {

// Usage: construct, Init() once, then any number of Request() calls on the main thread. Every
// request ends in exactly one call of its callback, on the main loop's thread, never inside
// Request(). Cancel() is accepted and does nothing: an issued request always completes.
//
// A request's state lives in a callback adaptor owned by the network layer, not in the connection:
// deleting a connection with requests in flight is allowed, and their callbacks still arrive.
class QUIRE_EXPORT Connection : public IConnection {
 public:
  Connection();
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Creates the network layer's connection manager (replacing one made by an earlier call) and
  // appends `headers` to the fixed lines. A second call adds its lines after those of the first, so
  // that both sets are sent.
  void Init(const std::vector<QString>& headers) override;
  // Sends the request: method (values beyond DELETE are sent as GET), the fixed lines then the
  // request's own lines, the body shared without copying. Returns the request's id. Must not be
  // called before Init().
  unsigned int Request(const ConnectionParams& params, ResponseCallback callback) override;
  // Does nothing; the request's callback still arrives.
  void Cancel(unsigned int request_id) override;

  // A header record that carries `line` whole: type 0, the line as the first string, the second
  // string null. The line is not split, trimmed or checked.
  static kestrel::net::RequestHeader GetNetHeaderFromString(const QString& line);
  // Fills `out` (emptied first) with the fixed lines, then the lines of `extra` (may be null).
  void SetUpHeaders(const std::vector<QString>* extra, kestrel::net::RequestHeaderList* out);
  // `requested` when it is not 0; otherwise the counter's value, after which the counter advances,
  // skipping 0 when it wraps. Ids run 1, 2, ..., 4294967295, 1, ...
  unsigned int ComputeRequestId(unsigned int requested);

  // The counter's current value, and a way to set it (0 is stored as 1), e.g. to restore the
  // numbering of an earlier connection.
  unsigned int next_request_id() const { return next_request_id_; }
  void set_next_request_id(unsigned int next) { next_request_id_ = next == 0 ? 1 : next; }

 private:
  kestrel::net::ConnectionManager* connection_manager_;
  kestrel::net::RequestHeaderList fixed_headers_;
  unsigned int next_request_id_;
  kestrel::IJobExecutor* job_executor_;
};

}  // namespace quire
}  // namespace kestrel
