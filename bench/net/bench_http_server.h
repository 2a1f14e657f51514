// A small, fast HTTP/1.1 server on 127.0.0.1 for the network benchmarks: one thread per connection,
// blocking sockets, large buffers, keep-alive. Plain TCP, or TLS when given an OpenSSL context.
//   GET /bytes/<n>   200 with n bytes;
//   GET /small       200 with a two-byte body;
//   PUT or POST      reads the body (answering "Expect: 100-continue" at once) and discards it;
//                    200 with "received <n>".
#pragma once

#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/tcp_listener.h"

typedef struct ssl_ctx_st SSL_CTX;

namespace quire_bench::net {

class BenchHttpServer {
 public:
  // `tls` is borrowed; null serves plain HTTP.
  explicit BenchHttpServer(SSL_CTX* tls);
  ~BenchHttpServer();
  BenchHttpServer(const BenchHttpServer&) = delete;
  BenchHttpServer& operator=(const BenchHttpServer&) = delete;

  int port() const { return listener_.port(); }

 private:
  void AcceptLoop();
  void Serve(int fd);

  SSL_CTX* tls_;
  quire_test::TcpListener listener_;
  std::thread acceptor_;
  std::mutex mutex_;
  bool stopping_ = false;
  std::set<int> open_fds_;
  std::vector<std::thread> workers_;
};

}  // namespace quire_bench::net
