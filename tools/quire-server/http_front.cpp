#include "tools/quire-server/http_front.h"

#include <boost/asio/strand.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "tools/quire-server/http_connection.h"

namespace quire_server {
namespace {

namespace beast = boost::beast;
namespace net = boost::asio;
using tcp = net::ip::tcp;

}  // namespace

HttpFront::HttpFront(const FrontOptions& options, const ConnectionContext& context)
    : context_(context),
      options_(options),
      io_(options.threads),
      acceptor_(io_),
      retry_timer_(io_) {
  if (options_.tls) {
    ssl_.emplace(net::ssl::context::tls_server);
    ssl_->set_options(net::ssl::context::default_workarounds | net::ssl::context::no_sslv2 |
                      net::ssl::context::no_sslv3 | net::ssl::context::no_tlsv1 |
                      net::ssl::context::no_tlsv1_1 | net::ssl::context::single_dh_use);
    boost::system::error_code ec;
    ssl_->use_certificate_chain_file(options_.cert_file, ec);
    if (ec) throw std::runtime_error("cannot load certificate " + options_.cert_file);
    ssl_->use_private_key_file(options_.key_file, net::ssl::context::pem, ec);
    if (ec) throw std::runtime_error("cannot load key " + options_.key_file);
  }
  boost::system::error_code ec;
  net::ip::address address = net::ip::make_address(options_.address, ec);
  if (ec) throw std::runtime_error("not an IP address: " + options_.address);
  tcp::endpoint endpoint(address, options_.port);
  acceptor_.open(endpoint.protocol());
  acceptor_.set_option(net::socket_base::reuse_address(true));
  acceptor_.bind(endpoint, ec);
  if (ec) {
    throw std::runtime_error("cannot listen on " + options_.address + ":" +
                             std::to_string(options_.port) + ": " + ec.message());
  }
  acceptor_.listen(net::socket_base::max_listen_connections);
  port_ = acceptor_.local_endpoint().port();
}

HttpFront::~HttpFront() { Stop(); }

void HttpFront::Start() {
  Accept();
  for (int i = 0; i < options_.threads; ++i) {
    threads_.emplace_back([this] { io_.run(); });
  }
}

void HttpFront::Stop() {
  io_.stop();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

void HttpFront::Accept() {
  acceptor_.async_accept(net::make_strand(io_),
                         beast::bind_front_handler(&HttpFront::OnAccept, this));
}

void HttpFront::OnAccept(boost::system::error_code ec, tcp::socket socket) {
  if (ec) {
    if (!acceptor_.is_open()) return;
    // Out of descriptors, say: try again shortly rather than spin.
    retry_timer_.expires_after(std::chrono::milliseconds(50));
    retry_timer_.async_wait([this](boost::system::error_code) { Accept(); });
    return;
  }
  boost::system::error_code ignored;
  socket.set_option(tcp::no_delay(true), ignored);
  if (ssl_) {
    std::make_shared<HttpConnection<beast::ssl_stream<beast::tcp_stream>>>(
        beast::ssl_stream<beast::tcp_stream>(std::move(socket), *ssl_), context_)
        ->Start();
  } else {
    std::make_shared<HttpConnection<beast::tcp_stream>>(beast::tcp_stream(std::move(socket)),
                                                        context_)
        ->Start();
  }
  Accept();
}

}  // namespace quire_server
