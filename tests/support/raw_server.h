// A server on 127.0.0.1 that answers with exact bytes, for what a regular server will not do and to
// witness what a client put on the wire: header lines in a chosen order and spelling, interim
// responses, closing a connection mid-body or while it is idle, never answering, a TLS handshake
// with a certificate the client must refuse. It records every byte it receives (after TLS, when it
// speaks TLS) and the head of every request. Connections are served one after the other on a
// thread of its own; a request is its head, then a body as long as its Content-Length.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/tcp_listener.h"

typedef struct ssl_ctx_st SSL_CTX;

namespace quire_test {

class SocketStream;

class RawServer {
 public:
  struct Reply {
    enum After {
      kKeepOpen,     // wait for the next request on the same connection
      kClose,        // close the connection at once (no TLS close_notify)
      kCloseNotify,  // end TLS with close_notify (when it speaks TLS), then close
      kHang,         // send nothing more and keep the connection until the server stops
      kDrain,        // send nothing more; read (and drop) what comes until the client closes
    };
    std::string bytes;
    After after = kKeepOpen;
  };

  // Scripted: every request consumes the next reply; when none is left, the server closes the
  // connection without answering. TLS with the given certificate chain and key (PEM files); empty
  // paths give plain TCP.
  RawServer(const std::string& certificate_file, const std::string& key_file,
            std::vector<Reply> replies);
  // Answers every request with `reply` and then ends the connection (with close_notify under
  // TLS), so `reply` should say "Connection: close".
  explicit RawServer(const std::string& reply, const std::string& certificate_file = std::string(),
                     const std::string& key_file = std::string());
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  // An answer with this status, a Location line when `location` is not empty, no body, and
  // "Connection: close".
  static std::string Answer(int status, const std::string& location = std::string());
  // A 200 answer with this body and "Connection: close".
  static std::string AnswerWithBody(const std::string& content_type, const std::string& body);

  bool ok() const { return listener_.ok() && certificate_ok_; }
  int port() const { return listener_.port(); }

  // TCP connections accepted.
  int connections() const;
  // Connections closed by either side (after their TLS handshake failed, too).
  int closed_connections() const;
  // Connections whose TLS handshake failed.
  int failed_handshakes() const;
  // The request heads received (request line and header lines, up to the blank line), in order.
  std::vector<std::string> requests() const;
  // Requests read whole and answered completely.
  int answered() const;
  // Every byte received, in order of arrival.
  std::string received() const;
  // Waits until `count` connections have been closed; false after `seconds`.
  bool WaitForClosedConnections(int count, double seconds) const;

 private:
  RawServer(const std::string& certificate_file, const std::string& key_file,
            std::vector<Reply> replies, bool repeat_last);
  void Serve();
  void ServeConnection(int fd);
  void ServeRequests(SocketStream* stream);
  long Read(SocketStream* stream, char* out, std::size_t size);

  TcpListener listener_;
  SSL_CTX* tls_ = nullptr;
  bool certificate_ok_ = true;
  std::thread thread_;
  std::vector<Reply> replies_;
  const bool repeat_last_;
  std::size_t next_reply_ = 0;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool stopping_ = false;
  int current_fd_ = -1;
  int connections_ = 0;
  int closed_ = 0;
  int failed_handshakes_ = 0;
  int answered_ = 0;
  std::vector<std::string> requests_;
  std::string received_;
};

}  // namespace quire_test
