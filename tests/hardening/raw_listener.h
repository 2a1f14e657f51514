// A server on 127.0.0.1 that records every byte it receives (after TLS, when it speaks TLS) and
// answers each request with fixed bytes: the witness of what a client put on the wire, and of
// whether it connected at all. Connections are served one after the other on a thread of its own;
// each carries one request (head, then a body as long as its Content-Length) and is closed after
// the answer, which should therefore say "Connection: close".
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

typedef struct ssl_ctx_st SSL_CTX;

namespace quire_hardening {

class RawListener {
 public:
  // Plain TCP when `certificate_file` is empty, else TLS with that chain and key (PEM).
  explicit RawListener(std::string reply, const std::string& certificate_file = std::string(),
                       const std::string& key_file = std::string());
  ~RawListener();
  RawListener(const RawListener&) = delete;
  RawListener& operator=(const RawListener&) = delete;

  // An answer with this status, a Location line when `location` is not empty, and no body.
  static std::string Answer(int status, const std::string& location = std::string());
  // A 200 answer with this body.
  static std::string AnswerWithBody(const std::string& content_type, const std::string& body);

  bool ok() const { return port_ > 0; }
  int port() const { return port_; }

  // TCP connections accepted.
  int connections() const;
  // Connections whose TLS handshake failed.
  int failed_handshakes() const;
  // Requests read whole and answered.
  int requests() const;
  // Every byte received, in order of arrival.
  std::string received() const;
  // Waits until `count` connections have been dealt with (answered or dropped); false after
  // `seconds`.
  bool WaitForConnectionsDone(int count, double seconds) const;

 private:
  void Serve();
  void ServeConnection(int fd);

  const std::string reply_;
  SSL_CTX* tls_ = nullptr;
  int listener_ = -1;
  int port_ = -1;
  std::thread thread_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool stopping_ = false;
  int connections_ = 0;
  int done_ = 0;
  int failed_handshakes_ = 0;
  int requests_ = 0;
  std::string received_;
};

}  // namespace quire_hardening
