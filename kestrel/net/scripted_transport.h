/// @file
/// A deterministic in-memory transport for tests and benchmarks. It lives in the testing library
/// (quire_testing: find_package(Quire COMPONENTS testing) and Quire::testing, or pkg-config
/// quire-testing), not in libkestrel.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "kestrel/net/i_transport.h"
#include "kestrel/net/network_status.h"

namespace kestrel {
namespace net {

/// A deterministic in-memory transport for tests and benchmarks. A test scripts the answers (a
/// completion code, a body, header lines) and reads back every request as the transport saw it.
/// Every request completes later, from kestrel::MainLoop::Default(), never inside the call that
/// issued it. A request with a response sink receives the body of a 2xx answer through it, in
/// pieces and with the sink's back-pressure (see Answer::piece_size).
///
/// Install it with TransportRegistry::SetDefault() before creating the connection managers that
/// should use it; it must outlive every request started on it. Main loop's thread only.
///
/// Part of the static testing library (Quire::testing, pkg-config quire-testing), which a host's
/// tests link beside the libraries; the shipped shared libraries do not contain it.
class ScriptedTransport : public ITransport {
 public:
  /// One scripted answer.
  struct Answer {
    /// The completion code (see network_status.h).
    std::uint32_t code = status::FromHttp(200);
    /// The response body.
    QByteArray body;
    /// False: the request completes without a response buffer at all.
    bool has_body = true;
    /// Response header lines ("Name: value"), kept only when the request asks for them.
    std::vector<QString> headers;
    /// Completion comes after this long (0: on the next turn of the main loop).
    double delay_seconds = 0;
    /// For a request with a response sink: the HTTP status of the answer's head as the sink sees
    /// it (0: the status of `code` when it is an HTTP one). Set it with a failure `code` to script
    /// an answer cut off in the middle of its body: the sink receives the head and `body`, then the
    /// request fails with `code`.
    int head_status = 0;
    /// For a request with a response sink: the body goes to the sink in pieces of this many bytes
    /// (0: in one piece), offered back to back as a fast network would; when the sink is full the
    /// delivery waits until the sink has room, as the built-in transport does.
    std::size_t piece_size = 0;
    /// Progress reports delivered before the completion, to a request that asked for progress:
    /// each is given after its `first` seconds (figures as given in `second`). Whatever the list,
    /// such a request hears one last report (everything sent, the whole body received) just before
    /// it completes.
    std::vector<std::pair<double, TransferProgress>> progress;
  };

  /// One request as the transport received it.
  struct Seen {
    /// The method.
    HttpRequest::MethodType method = HttpRequest::kGet;
    /// The URL as given.
    QString url;
    /// The header records as given, in order.
    std::vector<RequestHeader> headers;
    /// The body as given (shares its bytes; empty when bodies are not recorded).
    QByteArray body;
    /// Where the body's bytes were when the request reached the transport.
    const char* body_data = nullptr;
    /// How many body bytes there were.
    std::size_t body_size = 0;
    /// Whether the server parsed from the URL was valid.
    bool server_valid = false;
    /// The server's host, lower case.
    QString host;
    /// The server's port.
    int port = 0;
    /// The connection manager's options.
    ConnectionOptions options;
    /// Which standard lines the request asked for.
    NetworkRequest::Info::DefaultHeaders default_headers = NetworkRequest::Info::kNoDefaultHeaders;
    /// Whether the request keeps response header lines.
    bool keep_response_headers = false;
    /// The request's opaque pointer.
    void* user_data = nullptr;
  };

  /// Makes the answer to a request when none is queued.
  using Responder = std::function<Answer(const Seen&)>;

  /// No answers queued, no responder.
  ScriptedTransport();
  /// Requests still in flight complete all the same, with their scripted answers: their
  /// completions wait in the main loop and do not refer to the transport.
  ~ScriptedTransport() override;

  /// Queues `answer`. Answers are used first in, first out; when none is queued the responder
  /// answers; without one the request fails with status::kErrorUnknown (no body). A request to an
  /// invalid server takes no answer and fails with status::kErrorInvalidRequest.
  void Enqueue(Answer answer);
  /// Queues an answer made of `code`, `body` and `headers`, delivered on the next turn of the
  /// main loop.
  void Enqueue(std::uint32_t code, const QByteArray& body = QByteArray(),
               std::vector<QString> headers = {});
  /// Sets the function that answers when no answer is queued; it runs inside Start().
  void SetResponder(Responder responder);
  /// Whether Seen::body keeps a reference to each request body (default true). Benchmarks that
  /// move large bodies turn it off.
  void set_record_bodies(bool record) { record_bodies_ = record; }
  /// Whether Seen records are kept at all (default true).
  void set_record_requests(bool record) { record_requests_ = record; }

  /// Every request received so far, in order (while recording is on).
  const std::vector<Seen>& requests() const { return requests_; }
  /// The number of requests started.
  std::size_t started() const { return started_; }
  /// The number of requests completed.
  std::size_t completed() const;
  /// The number of requests started and not yet completed.
  std::size_t in_flight() const { return started_ - completed(); }
  /// The number of queued answers that no request has taken yet.
  std::size_t queued() const { return answers_.size(); }
  /// How many times a response sink was full so that a delivery had to wait for it.
  std::size_t sink_pauses() const;
  /// Where the body of the most recently completed answer was placed (the response buffer), or
  /// null when it had none.
  const char* last_response_data() const;

  /// The number of requests that Cancel() dropped.
  std::size_t cancelled() const;

  /// Records the request and schedules its answer on the main loop (see ITransport::Start()).
  void Start(NetworkRequest* request, const ServerInfo& server,
             const ConnectionOptions& options) override;
  /// Drops the request's scheduled answer and progress reports and completes it on the next turn
  /// of the main loop (as cancelled). The answer it had taken from the queue is not used again.
  void Cancel(NetworkRequest* request) override;

 private:
  struct Shared {
    std::size_t completed = 0;
    std::size_t sink_pauses = 0;
    std::size_t cancelled = 0;
    const char* last_response_data = nullptr;
    /// A request that has not completed nor been cancelled.
    struct Pending {
      /// Tells the request from a later one at the same address.
      std::uint64_t serial = 0;
      /// Its main-loop timers (progress reports, a delayed answer).
      std::vector<std::uint64_t> timers;
    };
    // Every request not yet completed nor cancelled.
    std::map<NetworkRequest*, Pending> pending;
    std::uint64_t next_serial = 1;
  };

  std::deque<Answer> answers_;
  Responder responder_;
  std::vector<Seen> requests_;
  bool record_bodies_ = true;
  bool record_requests_ = true;
  std::size_t started_ = 0;
  std::shared_ptr<Shared> shared_;
};

}  // namespace net
}  // namespace kestrel
