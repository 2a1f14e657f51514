#include "tools/quire-server/http_connection.h"

#include <algorithm>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <exception>
#include <iostream>
#include <sstream>
#include <type_traits>

#include "tools/quire-server/content_file_body.h"
#include "tools/quire-server/fault_injector.h"
#include "tools/quire-server/request_head.h"
#include "tools/quire-server/service_handler.h"
#include "tools/quire-server/timestamp.h"

namespace quire_server {
namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace net = boost::asio;

// Request bodies are handed on in pieces of this size.
constexpr std::size_t kBodyPiece = 1u << 20;
// Reads from the connection go through a buffer of this size (Beast reads no more than the
// buffer's spare capacity, so a small buffer would mean many small reads).
constexpr std::size_t kReadBuffer = 256 * 1024;
// An unwanted body up to this size is read and dropped to keep the connection; a larger one
// closes it.
constexpr std::uint64_t kDiscardLimit = 8u << 20;
// After an answer that closes the connection early, this much more of the request is read (and
// dropped) before the close, so the client gets to read the answer instead of a reset.
constexpr std::uint64_t kLingerLimit = 64u << 20;
constexpr std::chrono::seconds kLingerTime(2);
constexpr std::chrono::seconds kFirstRequestTimeout(30);
constexpr std::chrono::seconds kShutdownTimeout(1);
constexpr std::uint32_t kHeaderLimit = 64 * 1024;

bool IsHttpError(const beast::error_code& ec) {
  return ec.category() == http::make_error_code(http::error::bad_target).category();
}

}  // namespace

template <class Stream>
template <class Body>
struct HttpConnection<Stream>::Outgoing {
  http::response<Body> message;
  std::optional<http::response_serializer<Body>> serializer;
};

template <class Stream>
HttpConnection<Stream>::HttpConnection(Stream&& stream, const ConnectionContext& context)
    : stream_(std::move(stream)), context_(context), timer_(stream_.get_executor()) {}

template <class Stream>
HttpConnection<Stream>::~HttpConnection() {
  AbortExchange();
}

template <class Stream>
beast::tcp_stream& HttpConnection<Stream>::Lowest() {
  return beast::get_lowest_layer(stream_);
}

template <class Stream>
void HttpConnection<Stream>::Start() {
  if constexpr (std::is_same_v<Stream, beast::tcp_stream>) {
    ReadHeader();
  } else {
    Lowest().expires_after(kFirstRequestTimeout);
    stream_.next_layer().async_handshake(
        net::ssl::stream_base::server,
        beast::bind_front_handler(&HttpConnection::OnHandshake, this->shared_from_this()));
  }
}

template <class Stream>
void HttpConnection<Stream>::OnHandshake(beast::error_code ec) {
  if (ec) return Drop();
  ReadHeader();
}

template <class Stream>
void HttpConnection<Stream>::ReadHeader() {
  parser_.emplace();
  parser_->header_limit(kHeaderLimit);
  // Sizes are checked by the protocol logic. (A disengaged limit is not used: some Beast
  // versions compare the length against it as an optional and then always fail.)
  parser_->body_limit(~std::uint64_t{0});
  body_filled_ = 0;
  deferred_.reset();
  unread_body_ = false;
  cut_answer_.reset();
  stream_.LimitReads(context_.faults->RequestByteLimit());
  Lowest().expires_after(first_request_ ? std::chrono::milliseconds(kFirstRequestTimeout)
                                        : context_.faults->IdleTimeout(context_.idle_timeout));
  http::async_read_header(
      stream_, buffer_, *parser_,
      beast::bind_front_handler(&HttpConnection::OnHeader, this->shared_from_this()));
}

template <class Stream>
void HttpConnection<Stream>::OnHeader(beast::error_code ec, std::size_t) {
  if (ec) {
    if (ec == http::error::end_of_stream || !IsHttpError(ec) ||
        ec == http::error::partial_message) {
      return Drop();
    }
    // A malformed request: answer, then close (what follows cannot be framed).
    keep_alive_ = false;
    unread_body_ = true;
    first_request_ = false;
    head_ = false;
    log_line_ = "(malformed request)";
    if (ec == http::error::header_limit) {
      return Answer(HttpResponse::Error(431, "headerTooLarge", "the request header is too large"));
    }
    return Answer(HttpResponse::Error(400, "badRequest", "malformed request: " + ec.message()));
  }
  first_request_ = false;
  auto& request = parser_->get();
  version_ = request.version();
  keep_alive_ = request.keep_alive();
  head_ = request.method() == http::verb::head;
  unread_body_ = !parser_->is_done();

  RequestHead head;
  head.method = std::string(request.method_string());
  head.target = std::string(request.target());
  for (const auto& field : request) {
    head.fields.emplace_back(std::string(field.name_string()), std::string(field.value()));
  }
  if (auto length = parser_->content_length()) head.content_length = *length;
  head.chunked = parser_->chunked();
  if (context_.verbose) log_line_ = head.method + " " + head.target;
  bool expect_continue = beast::iequals(request[http::field::expect], "100-continue");

  ServiceHandler::Decision decision;
  RequestFaults faults = context_.faults->NextRequest();
  if (faults.fail) {
    if (context_.verbose) log_line_ += " (injected 503)";
    decision.answer = context_.faults->Unavailable();
  } else {
    decision = context_.handler->Begin(head);
    if (faults.cut) CutAfterHeader(faults.cut_point);
  }

  if (decision.exchange) {
    exchange_ = std::move(decision.exchange);
    if (!unread_body_) {
      // No body: go straight to the answer.
      body_filled_ = 0;
      return OnBody({}, 0);
    }
    if (expect_continue && version_ >= 11) {
      auto interim =
          std::make_shared<http::response<http::empty_body>>(http::status::continue_, version_);
      continue_ = interim;
      Lowest().expires_after(context_.io_timeout);
      return http::async_write(
          stream_, *interim,
          beast::bind_front_handler(&HttpConnection::OnContinueSent, this->shared_from_this()));
    }
    return ReadBody();
  }

  HttpResponse answer = std::move(*decision.answer);
  if (unread_body_ && !expect_continue && parser_->content_length() &&
      *parser_->content_length() <= kDiscardLimit) {
    deferred_ = std::move(answer);
    return ReadBody();
  }
  Answer(std::move(answer));
}

template <class Stream>
void HttpConnection<Stream>::CutAfterHeader(double point) {
  if (!unread_body_) {
    // No body to cut in the request: its answer's body is cut instead (see Send).
    cut_answer_ = point;
    return;
  }
  // A body of unknown length (chunked) is cut within its first MiB. Bytes that arrived with the
  // header are in the buffer already and always get through.
  std::uint64_t length = parser_->content_length().value_or(kBodyPiece);
  std::uint64_t keep = static_cast<std::uint64_t>(point * static_cast<double>(length));
  std::uint64_t buffered = buffer_.size();
  stream_.LimitReads(keep > buffered ? keep - buffered : 0);
  if (context_.verbose) log_line_ += " (injected cut after " + std::to_string(keep) + " bytes)";
}

template <class Stream>
void HttpConnection<Stream>::OnContinueSent(beast::error_code ec, std::size_t) {
  continue_.reset();
  if (ec) {
    AbortExchange();
    return Drop();
  }
  ReadBody();
}

template <class Stream>
void HttpConnection<Stream>::ReadBody() {
  if (body_buffer_.empty()) body_buffer_.resize(kBodyPiece);
  if (buffer_.capacity() < kReadBuffer) buffer_.reserve(kReadBuffer);
  auto& body = parser_->get().body();
  body.data = body_buffer_.data() + body_filled_;
  body.size = body_buffer_.size() - body_filled_;
  Lowest().expires_after(context_.io_timeout);
  http::async_read_some(
      stream_, buffer_, *parser_,
      beast::bind_front_handler(&HttpConnection::OnBody, this->shared_from_this()));
}

template <class Stream>
void HttpConnection<Stream>::OnBody(beast::error_code ec, std::size_t) {
  if (ec == http::error::need_buffer) ec = {};
  if (unread_body_) body_filled_ = body_buffer_.size() - parser_->get().body().size;
  if (ec) {
    // What did arrive still goes to the exchange: an upload session keeps it.
    if (exchange_ && body_filled_ > 0) {
      try {
        exchange_->OnBody(body_buffer_.data(), body_filled_);
      } catch (const std::exception&) {
      }
    }
    AbortExchange();
    if (IsHttpError(ec) && ec != http::error::partial_message) {
      keep_alive_ = false;
      return Answer(HttpResponse::Error(400, "badRequest", "malformed body: " + ec.message()));
    }
    return Drop();
  }
  bool done = parser_->is_done();
  if (done || body_filled_ == body_buffer_.size()) {
    if (exchange_ && body_filled_ > 0) {
      bool more;
      try {
        more = exchange_->OnBody(body_buffer_.data(), body_filled_);
      } catch (const std::exception& error) {
        AbortExchange();
        HttpResponse failure = HttpResponse::Error(500, "internalError", error.what());
        failure.close = true;
        return Answer(std::move(failure));
      }
      if (!more) {
        HttpResponse refusal = FinishExchange();
        refusal.close = true;
        unread_body_ = !done;
        return Answer(std::move(refusal));
      }
    }
    body_filled_ = 0;
  }
  if (!done) return ReadBody();
  unread_body_ = false;
  if (exchange_) return Answer(FinishExchange());
  HttpResponse answer = std::move(*deferred_);
  deferred_.reset();
  Answer(std::move(answer));
}

template <class Stream>
HttpResponse HttpConnection<Stream>::FinishExchange() {
  HttpResponse answer;
  try {
    answer = exchange_->Finish();
  } catch (const std::exception& error) {
    answer = HttpResponse::Error(500, "internalError", error.what());
  }
  exchange_.reset();
  return answer;
}

template <class Stream>
void HttpConnection<Stream>::AbortExchange() {
  if (!exchange_) return;
  try {
    exchange_->Abort();
  } catch (const std::exception& error) {
    std::cerr << "quire-server: " << error.what() << std::endl;
  }
  exchange_.reset();
}

template <class Stream>
void HttpConnection<Stream>::Answer(HttpResponse response) {
  auto delay = context_.faults->AnswerDelay();
  if (delay.count() == 0) return Send(std::move(response));
  Lowest().expires_never();
  timer_.expires_after(delay);
  timer_.async_wait([self = this->shared_from_this(), response = std::move(response)](
                        beast::error_code) mutable { self->Send(std::move(response)); });
}

template <class Stream>
void HttpConnection<Stream>::Send(HttpResponse response) {
  context_.faults->ReplaceBody(&response);
  keep_alive_ = keep_alive_ && !response.close && !unread_body_;
  if (context_.verbose) {
    std::cerr << "quire-server: " << log_line_ << " -> " << response.status << std::endl;
  }
  auto prepare = [this, &response](auto& message) {
    message.version(version_);
    message.result(static_cast<unsigned>(response.status));
    message.set(http::field::server, "quire-server");
    message.set(http::field::date, Timestamp::HttpDate(Timestamp::NowMillis()));
    for (auto& field : response.fields) message.insert(field.first, field.second);
    message.keep_alive(keep_alive_);
  };
  stream_.LimitWrites(context_.faults->ResponseByteLimit());
  // An injected cut lets the header and part of the body go out, then breaks the connection.
  auto cut = [this](const auto& message, std::uint64_t body_size) {
    if (!cut_answer_ || body_size == 0 || head_) return;
    std::ostringstream header;
    header << message.base();
    std::uint64_t keep = static_cast<std::uint64_t>(*cut_answer_ * static_cast<double>(body_size));
    stream_.LimitWrites(std::min(context_.faults->ResponseByteLimit(), header.str().size() + keep));
    if (context_.verbose) {
      std::cerr << "quire-server: " << log_line_ << " (injected cut after " << keep
                << " bytes of the answer)" << std::endl;
    }
  };

  if (response.file.valid() && !head_) {
    auto outgoing = std::make_shared<Outgoing<ContentFileBody>>();
    prepare(outgoing->message);
    cut(outgoing->message, response.file_size);
    outgoing->message.body().Reset(std::move(response.file), response.file_offset,
                                   response.file_size);
    outgoing->message.content_length(response.file_size);
    outgoing->serializer.emplace(outgoing->message);
    return WriteSome(std::move(outgoing));
  }
  auto outgoing = std::make_shared<Outgoing<http::string_body>>();
  prepare(outgoing->message);
  if (head_) {
    // The length of the body that a GET would carry, and no body.
    outgoing->message.content_length(response.file.valid() ? response.file_size
                                                           : response.body.size());
  } else {
    outgoing->message.body() = std::move(response.body);
    outgoing->message.content_length(outgoing->message.body().size());
    cut(outgoing->message, outgoing->message.body().size());
  }
  outgoing->serializer.emplace(outgoing->message);
  WriteSome(std::move(outgoing));
}

template <class Stream>
template <class Body>
void HttpConnection<Stream>::WriteSome(std::shared_ptr<Outgoing<Body>> outgoing) {
  Lowest().expires_after(context_.io_timeout);
  auto& serializer = *outgoing->serializer;
  http::async_write_some(stream_, serializer,
                         [self = this->shared_from_this(), outgoing = std::move(outgoing)](
                             beast::error_code ec, std::size_t) mutable {
                           if (ec) return self->Drop();
                           if (!outgoing->serializer->is_done())
                             return self->WriteSome(std::move(outgoing));
                           outgoing.reset();
                           self->OnSent();
                         });
}

template <class Stream>
void HttpConnection<Stream>::OnSent() {
  if (keep_alive_) return ReadHeader();
  if (unread_body_) return Linger();
  CloseGracefully();
}

template <class Stream>
void HttpConnection<Stream>::CloseGracefully() {
  if constexpr (std::is_same_v<Stream, beast::tcp_stream>) {
    beast::error_code ignored;
    Lowest().socket().shutdown(net::ip::tcp::socket::shutdown_send, ignored);
    Lowest().close();
  } else {
    Lowest().expires_after(kShutdownTimeout);
    stream_.next_layer().async_shutdown(
        [self = this->shared_from_this()](beast::error_code) { self->Lowest().close(); });
  }
}

template <class Stream>
void HttpConnection<Stream>::Linger() {
  // Half-close, then read and drop what the client still sends, for a short while.
  beast::error_code ignored;
  Lowest().socket().shutdown(net::ip::tcp::socket::shutdown_send, ignored);
  body_buffer_.resize(kBodyPiece);
  lingered_ = 0;
  Lowest().expires_after(kLingerTime);
  Lowest().async_read_some(
      net::buffer(body_buffer_),
      beast::bind_front_handler(&HttpConnection::OnLinger, this->shared_from_this()));
}

template <class Stream>
void HttpConnection<Stream>::OnLinger(beast::error_code ec, std::size_t bytes) {
  lingered_ += bytes;
  if (ec || lingered_ > kLingerLimit) return Lowest().close();
  Lowest().async_read_some(
      net::buffer(body_buffer_),
      beast::bind_front_handler(&HttpConnection::OnLinger, this->shared_from_this()));
}

template <class Stream>
void HttpConnection<Stream>::Drop() {
  AbortExchange();
  beast::error_code ignored;
  Lowest().socket().close(ignored);
}

template class HttpConnection<beast::tcp_stream>;
template class HttpConnection<beast::ssl_stream<beast::tcp_stream>>;

}  // namespace quire_server
