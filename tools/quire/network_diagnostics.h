// A transport that passes every request on to another, with the command's time-out, and remembers
// how the last one ended, so that a failure that reaches the command only as the library's generic
// status 2 can still be explained (connection refused, certificate not trusted, time-out, an
// unusual HTTP status).
#pragma once

#include <QString>
#include <cstdint>
#include <vector>

#include "kestrel/net/i_transport.h"

namespace quire_cli {

class NetworkDiagnostics : public kestrel::net::ITransport {
 public:
  struct Outcome {
    // False until a request has completed.
    bool known = false;
    // The network layer's completion code (kestrel/net/network_status.h).
    std::uint32_t code = 0;
    // The request's URL.
    QString url;
  };

  // `inner` is borrowed and must outlive this object and every request started through it. With a
  // `stall_timeout_seconds` above 0, every request is started with that time-out in place of the
  // connection manager's (which the library fixes).
  explicit NetworkDiagnostics(kestrel::net::ITransport* inner, double stall_timeout_seconds = 0);
  // Drops the references still held (requests in flight complete as usual).
  ~NetworkDiagnostics() override;
  NetworkDiagnostics(const NetworkDiagnostics&) = delete;
  NetworkDiagnostics& operator=(const NetworkDiagnostics&) = delete;

  // Takes a reference on the request (kept until it has completed and its code has been read) and
  // starts it on the inner transport, with the time-out given at construction.
  void Start(kestrel::net::NetworkRequest* request, const kestrel::net::ServerInfo& server,
             const kestrel::net::ConnectionOptions& options) override;

  // The outcome of the most recently started request that has completed. Valid inside the
  // request's own completion callback too.
  Outcome LastCompleted();

 private:
  // Reads the code of every completed request, newest last, and drops their references.
  void Harvest();

  kestrel::net::ITransport* inner_;
  double stall_timeout_seconds_;
  std::vector<kestrel::net::NetworkRequest*> watched_;
  Outcome last_;
};

}  // namespace quire_cli
