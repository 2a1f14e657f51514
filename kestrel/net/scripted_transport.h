// A deterministic in-memory transport for tests and benchmarks. A test scripts the answers (a
// completion code, a body, header lines) and reads back every request as the transport saw it.
// Every request completes later, from the main loop, never inside the call that issued it.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/net/i_transport.h"
#include "kestrel/net/network_status.h"

namespace kestrel {
namespace net {

class KESTREL_EXPORT ScriptedTransport : public ITransport {
 public:
  struct Answer {
    std::uint32_t code = status::FromHttp(200);
    QByteArray body;
    // False: the request completes without a response buffer at all.
    bool has_body = true;
    std::vector<QString> headers;
    // Completion comes after this long (0: on the next turn of the main loop).
    double delay_seconds = 0;
  };

  // One request as the transport received it.
  struct Seen {
    HttpRequest::MethodType method = HttpRequest::kGet;
    QString url;
    std::vector<RequestHeader> headers;
    // The body as given (shares its bytes; empty when bodies are not recorded).
    QByteArray body;
    // Where the body's bytes were when the request reached the transport, and how many there were.
    const char* body_data = nullptr;
    std::size_t body_size = 0;
    bool server_valid = false;
    QString host;
    int port = 0;
    ConnectionOptions options;
    NetworkRequest::Info::DefaultHeaders default_headers = NetworkRequest::Info::kNoDefaultHeaders;
    bool keep_response_headers = false;
    void* user_data = nullptr;
  };

  using Responder = std::function<Answer(const Seen&)>;

  ScriptedTransport();
  ~ScriptedTransport() override;

  // Answers are used first in, first out; when none is queued the responder answers; without one
  // the request fails with status::kErrorUnknown.
  void Enqueue(Answer answer);
  void Enqueue(std::uint32_t code, const QByteArray& body = QByteArray(),
               std::vector<QString> headers = {});
  void SetResponder(Responder responder);
  // Whether Seen::body keeps a reference to each request body (default true). Benchmarks that move
  // large bodies turn it off.
  void set_record_bodies(bool record) { record_bodies_ = record; }
  // Whether Seen records are kept at all (default true).
  void set_record_requests(bool record) { record_requests_ = record; }

  const std::vector<Seen>& requests() const { return requests_; }
  std::size_t started() const { return started_; }
  std::size_t completed() const;
  std::size_t in_flight() const { return started_ - completed(); }
  // Where the body of the most recently completed answer was placed (the response buffer).
  const char* last_response_data() const;

  void Start(NetworkRequest* request, const ServerInfo& server,
             const ConnectionOptions& options) override;

 private:
  struct Shared {
    std::size_t completed = 0;
    const char* last_response_data = nullptr;
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
