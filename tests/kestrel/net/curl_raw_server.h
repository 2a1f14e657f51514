// A server on 127.0.0.1 that answers with exact bytes, for what a regular server will not do:
// header lines in a chosen order and spelling, interim responses, closing a connection mid-body or
// while it is idle, or never answering. Connections are served one after the other on one thread.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

typedef struct ssl_ctx_st SSL_CTX;

namespace curl_test {

class CurlRawServer {
 public:
  struct Reply {
    enum After {
      kKeepOpen,  // wait for the next request on the same connection
      kClose,     // close the connection at once (no TLS close_notify)
      kHang,      // send nothing more and keep the connection until the server stops
      kDrain,     // send nothing more; read (and drop) what comes until the client closes
    };
    std::string bytes;
    After after = kKeepOpen;
  };

  // TLS with the given files; empty paths give plain TCP. Every request consumes the next reply;
  // when none is left, the server closes the connection without answering.
  CurlRawServer(const std::string& certificate_file, const std::string& key_file,
                std::vector<Reply> replies);
  ~CurlRawServer();
  CurlRawServer(const CurlRawServer&) = delete;
  CurlRawServer& operator=(const CurlRawServer&) = delete;

  bool ok() const { return port_ > 0; }
  int port() const { return port_; }

  int connections() const;
  int closed_connections() const;
  // The request heads received (request line and header lines, up to the blank line), in order.
  std::vector<std::string> requests() const;
  // Waits until `count` connections have been closed by either side; false after `seconds`.
  bool WaitForClosedConnections(int count, double seconds) const;

 private:
  void Serve();
  void ServeConnection(int fd);

  SSL_CTX* tls_ = nullptr;
  int listener_ = -1;
  int port_ = -1;
  std::thread thread_;
  std::vector<Reply> replies_;
  std::size_t next_reply_ = 0;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool stopping_ = false;
  int current_fd_ = -1;
  int connections_ = 0;
  int closed_ = 0;
  std::vector<std::string> requests_;
};

}  // namespace curl_test
