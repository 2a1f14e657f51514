// One accepted HTTP/1.1 connection (plain or TLS): reads requests one after another, hands each
// head to the protocol logic, streams the body to the exchange it chose, and writes the answer.
// Keep-alive is honoured; an answer given before its body was read is followed by reading and
// discarding a small body, or by closing the connection. Faults (byte limits, delays, idle
// closes, 503s, random cuts) are applied here. All work of one connection runs on its own strand.
#pragma once

#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/serializer.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/quire-server/connection_context.h"
#include "tools/quire-server/http_response.h"
#include "tools/quire-server/i_exchange.h"
#include "tools/quire-server/limited_stream.h"

namespace quire_server {

// Stream is boost::beast::tcp_stream or boost::beast::ssl_stream<boost::beast::tcp_stream>.
template <class Stream>
class HttpConnection : public std::enable_shared_from_this<HttpConnection<Stream>> {
 public:
  HttpConnection(Stream&& stream, const ConnectionContext& context);
  ~HttpConnection();
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  void Start();

 private:
  using Parser = boost::beast::http::request_parser<boost::beast::http::buffer_body>;
  template <class Body>
  struct Outgoing;

  boost::beast::tcp_stream& Lowest();
  void OnHandshake(boost::beast::error_code ec);
  void ReadHeader();
  void OnHeader(boost::beast::error_code ec, std::size_t bytes);
  // Arranges an injected cut at `point` (in [0, 1)) of the request's body, or of the answer's
  // when the request has none.
  void CutAfterHeader(double point);
  void OnContinueSent(boost::beast::error_code ec, std::size_t bytes);
  void ReadBody();
  void OnBody(boost::beast::error_code ec, std::size_t bytes);
  // The exchange's answer (500 if it fails); the exchange is gone afterwards.
  HttpResponse FinishExchange();
  void AbortExchange();
  void Answer(HttpResponse response);
  void Send(HttpResponse response);
  template <class Body>
  void WriteSome(std::shared_ptr<Outgoing<Body>> outgoing);
  void OnSent();
  void CloseGracefully();
  void Linger();
  void OnLinger(boost::beast::error_code ec, std::size_t bytes);
  void Drop();

  LimitedStream<Stream> stream_;
  const ConnectionContext& context_;
  boost::asio::steady_timer timer_;
  boost::beast::flat_buffer buffer_;
  std::optional<Parser> parser_;
  std::unique_ptr<IExchange> exchange_;
  // The answer to send once an unwanted body has been read and discarded.
  std::optional<HttpResponse> deferred_;
  std::vector<char> body_buffer_;
  std::size_t body_filled_ = 0;
  std::uint64_t lingered_ = 0;
  std::string log_line_;
  unsigned version_ = 11;
  bool first_request_ = true;
  bool keep_alive_ = false;
  bool head_ = false;
  // Part of the current request's body is still unread.
  bool unread_body_ = false;
  std::shared_ptr<void> continue_;
  // Where to cut the current answer's body (an injected fault), if at all.
  std::optional<double> cut_answer_;
};

}  // namespace quire_server
