#include "tools/quire-server/content_file_body.h"

#include <unistd.h>

#include <algorithm>
#include <boost/beast/http/error.hpp>
#include <cerrno>

namespace quire_server {
namespace {

constexpr std::size_t kReadSize = 256 * 1024;

}  // namespace

void ContentFileBody::writer::init(boost::beast::error_code& ec) {
  buffer_.reset(new char[kReadSize]);
  ec = {};
}

boost::optional<std::pair<ContentFileBody::writer::const_buffers_type, bool>>
ContentFileBody::writer::get(boost::beast::error_code& ec) {
  if (remain_ == 0) {
    ec = {};
    return boost::none;
  }
  std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(remain_, kReadSize));
  ssize_t n;
  do {
    n = ::pread(body_.fd(), buffer_.get(), want, static_cast<off_t>(offset_));
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    ec.assign(errno, boost::system::system_category());
    return boost::none;
  }
  if (n == 0) {
    // The file is shorter than the size announced in Content-Length.
    ec = boost::beast::http::error::partial_message;
    return boost::none;
  }
  offset_ += static_cast<std::uint64_t>(n);
  remain_ -= static_cast<std::uint64_t>(n);
  ec = {};
  return std::make_pair(const_buffers_type(buffer_.get(), static_cast<std::size_t>(n)),
                        remain_ > 0);
}

}  // namespace quire_server
