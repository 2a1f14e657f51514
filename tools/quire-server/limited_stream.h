// A stream layer that lets through at most a set number of bytes in each direction and then fails
// every further read or write, as a connection that breaks would. It sits on top of the HTTP
// connection's stream (above TLS), so the counts are bytes of HTTP messages. Used to inject the
// faults "close after N bytes of a request/response"; unlimited by default.
#pragma once

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_prefix.hpp>
#include <boost/beast/core/error.hpp>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace quire_server {

template <class NextLayer>
class LimitedStream {
 public:
  using executor_type = typename NextLayer::executor_type;
  using next_layer_type = NextLayer;
  static constexpr std::uint64_t kUnlimited = ~std::uint64_t{0};

  explicit LimitedStream(NextLayer&& next) : next_(std::move(next)) {}

  executor_type get_executor() noexcept { return next_.get_executor(); }
  NextLayer& next_layer() noexcept { return next_; }
  const NextLayer& next_layer() const noexcept { return next_; }

  // Bytes that may still be read / written from now on.
  void LimitReads(std::uint64_t bytes) { read_left_ = bytes; }
  void LimitWrites(std::uint64_t bytes) { write_left_ = bytes; }

  template <class MutableBufferSequence, class ReadHandler>
  void async_read_some(const MutableBufferSequence& buffers, ReadHandler&& handler) {
    Counted(&read_left_, buffers, std::forward<ReadHandler>(handler),
            [this](const auto& prefix, auto&& done) {
              next_.async_read_some(prefix, std::forward<decltype(done)>(done));
            });
  }

  template <class ConstBufferSequence, class WriteHandler>
  void async_write_some(const ConstBufferSequence& buffers, WriteHandler&& handler) {
    Counted(&write_left_, buffers, std::forward<WriteHandler>(handler),
            [this](const auto& prefix, auto&& done) {
              next_.async_write_some(prefix, std::forward<decltype(done)>(done));
            });
  }

 private:
  // The first `size` bytes of a buffer sequence (a single buffer stays a single buffer).
  template <class Buffers>
  static auto Prefix(std::size_t size, const Buffers& buffers) {
    if constexpr (std::is_convertible_v<Buffers, boost::asio::mutable_buffer>) {
      boost::asio::mutable_buffer buffer(buffers);
      return boost::asio::mutable_buffer(buffer.data(), std::min(size, buffer.size()));
    } else if constexpr (std::is_convertible_v<Buffers, boost::asio::const_buffer>) {
      boost::asio::const_buffer buffer(buffers);
      return boost::asio::const_buffer(buffer.data(), std::min(size, buffer.size()));
    } else {
      return boost::beast::buffers_prefix(size, buffers);
    }
  }

  // Starts `operation` (a read or a write of the next layer) on at most `*left` bytes of
  // `buffers` and takes the bytes it moved off `*left`; fails at once when nothing is left.
  template <class Buffers, class Handler, class Operation>
  void Counted(std::uint64_t* left, const Buffers& buffers, Handler&& handler,
               Operation operation) {
    using Decayed = std::decay_t<Handler>;
    if (*left == 0) {
      Fail(Decayed(std::forward<Handler>(handler)));
      return;
    }
    operation(Prefix(Allowance(*left), buffers),
              [left, h = Decayed(std::forward<Handler>(handler))](boost::beast::error_code ec,
                                                                  std::size_t n) mutable {
                if (*left != kUnlimited) *left -= n;
                h(ec, n);
              });
  }

  static std::size_t Allowance(std::uint64_t left) {
    return left > std::uint64_t{~std::size_t{0}} ? ~std::size_t{0} : static_cast<std::size_t>(left);
  }

  template <class Handler>
  void Fail(Handler&& handler) {
    boost::asio::post(next_.get_executor(), [h = std::forward<Handler>(handler)]() mutable {
      h(boost::beast::error_code(boost::asio::error::connection_aborted), std::size_t{0});
    });
  }

  NextLayer next_;
  std::uint64_t read_left_ = kUnlimited;
  std::uint64_t write_left_ = kUnlimited;
};

}  // namespace quire_server
