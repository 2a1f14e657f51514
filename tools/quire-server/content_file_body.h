// An HTTP body type that sends a document's content (or a range of it) from an open file, in large
// reads with pread(), so that downloads run at the speed of the connection and never hold the
// content in memory.
#pragma once

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/optional.hpp>
#include <cstdint>
#include <memory>
#include <utility>

#include "tools/quire-server/unique_fd.h"

namespace quire_server {

struct ContentFileBody {
  class value_type {
   public:
    // Sends `size` bytes of the file from `offset` on.
    void Reset(UniqueFd file, std::uint64_t offset, std::uint64_t size) {
      file_ = std::move(file);
      offset_ = offset;
      size_ = size;
    }
    int fd() const { return file_.get(); }
    std::uint64_t offset() const { return offset_; }
    std::uint64_t size() const { return size_; }

   private:
    UniqueFd file_;
    std::uint64_t offset_ = 0;
    std::uint64_t size_ = 0;
  };

  static std::uint64_t size(const value_type& body) { return body.size(); }

  class writer {
   public:
    using const_buffers_type = boost::asio::const_buffer;

    template <bool isRequest, class Fields>
    writer(boost::beast::http::header<isRequest, Fields>&, value_type& body)
        : body_(body), offset_(body.offset()), remain_(body.size()) {}

    void init(boost::beast::error_code& ec);
    boost::optional<std::pair<const_buffers_type, bool>> get(boost::beast::error_code& ec);

   private:
    value_type& body_;
    std::uint64_t offset_;
    std::uint64_t remain_;
    std::unique_ptr<char[]> buffer_;
  };
};

}  // namespace quire_server
