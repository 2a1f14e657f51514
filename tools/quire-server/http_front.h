// The listening side: one TCP listener (TLS by default, plain HTTP on request), a pool of threads
// running the I/O, and one HttpConnection per accepted connection.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/quire-server/connection_context.h"

namespace quire_server {

struct FrontOptions {
  std::string address = "127.0.0.1";
  std::uint16_t port = 0;
  bool tls = true;
  std::string cert_file;
  std::string key_file;
  int threads = 8;
};

class HttpFront {
 public:
  // Binds the listener (port 0 picks a free port). Throws on failure.
  HttpFront(const FrontOptions& options, const ConnectionContext& context);
  ~HttpFront();
  HttpFront(const HttpFront&) = delete;
  HttpFront& operator=(const HttpFront&) = delete;

  // The bound port.
  std::uint16_t port() const { return port_; }
  // Starts accepting and the I/O threads; returns at once.
  void Start();
  // Stops accepting and the I/O threads (connections in progress are cut); waits for them.
  void Stop();

 private:
  void Accept();
  void OnAccept(boost::system::error_code ec, boost::asio::ip::tcp::socket socket);

  const ConnectionContext context_;
  const FrontOptions options_;
  // Declared before the I/O context so that it outlives the connections destroyed with it.
  std::optional<boost::asio::ssl::context> ssl_;
  boost::asio::io_context io_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer retry_timer_;
  std::uint16_t port_ = 0;
  std::vector<std::thread> threads_;
};

}  // namespace quire_server
