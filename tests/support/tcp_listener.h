// A listening TCP socket on 127.0.0.1 at a port the system picks: the accept side that every test
// and benchmark server shares. Accept() waits a bounded time so that a serving thread can look at
// its stop flag between connections.
#pragma once

#include <functional>

namespace quire_test {

class TcpListener {
 public:
  // Binds and listens; ok() tells whether that worked.
  TcpListener();
  ~TcpListener();
  TcpListener(const TcpListener&) = delete;
  TcpListener& operator=(const TcpListener&) = delete;

  bool ok() const { return port_ > 0; }
  int port() const { return port_; }

  // A newly accepted connection (close-on-exec), or -1 when none came within `wait_ms`.
  int Accept(int wait_ms) const;
  // The next connection, or -1 as soon as `stopping()` is true; `stopping` is asked before each
  // wait of 20 ms. The accept loop of a serving thread.
  int AcceptUntil(const std::function<bool()>& stopping) const;

 private:
  int fd_ = -1;
  int port_ = -1;
};

}  // namespace quire_test
