// A transport that passes every request on to another and tells, on the command's error stream,
// what went over the wire: with verbosity 1 one line per request (method, URL, status, bytes sent
// and received, time, attempt), with 2 also its header lines, the values of Authorization,
// Proxy-Authorization, Cookie and Set-Cookie masked. Never anything of a body, never a token.
#pragma once

#include <QString>
#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>
#include <vector>

#include "kestrel/net/i_transport.h"

namespace quire_cli {

class RequestLog : public kestrel::net::ITransport {
 public:
  // `inner` and `log` are borrowed and must outlive this object. `verbosity` is 1 or more.
  RequestLog(kestrel::net::ITransport* inner, std::ostream* log, int verbosity);
  // Reports the requests that have completed and drops the references still held (requests in
  // flight complete as usual, unreported).
  ~RequestLog() override;
  RequestLog(const RequestLog&) = delete;
  RequestLog& operator=(const RequestLog&) = delete;

  // Takes a reference on the request until its completion has been reported, writes its header
  // lines (verbosity 2), and starts it on the inner transport. The line of a request is written
  // once the main loop has delivered its completion, in the order the requests complete.
  void Start(kestrel::net::NetworkRequest* request, const kestrel::net::ServerInfo& server,
             const kestrel::net::ConnectionOptions& options) override;

  // The header line "Name: value" as it may be shown: the value of a credential header replaced
  // by its scheme (when it has one) and "<masked>".
  static QString MaskHeaderLine(const QString& line);
  // A short name for a completion code of the network layer: "200" for an HTTP status, else what
  // failed ("connection refused", "timed out", ...).
  static std::string DescribeCode(std::uint32_t code);

 private:
  struct Entry {
    kestrel::net::NetworkRequest* request;
    std::chrono::steady_clock::time_point start;
    int attempt;
  };

  // Reports and drops the completed requests; while some are in flight, looks again shortly.
  void Poll();
  // Has Poll() run shortly on the main loop, unless it is queued already.
  void QueuePoll();
  void Report(const Entry& entry);

  kestrel::net::ITransport* inner_;
  std::ostream* log_;
  int verbosity_;
  std::vector<Entry> running_;
  // What identifies a repeated request (method, URL, body size, Content-Range), and how many
  // times in a row it was started.
  QString last_key_;
  int last_attempt_ = 0;
  bool poll_queued_ = false;
  // Polls queued on the main loop check it before touching this object.
  std::shared_ptr<bool> alive_;
};

}  // namespace quire_cli
