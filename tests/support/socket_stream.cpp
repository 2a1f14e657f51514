#include "tests/support/socket_stream.h"

#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>

namespace quire_test {
namespace {

// OpenSSL counts in int.
constexpr std::size_t kMostPerCall = std::size_t{1} << 30;

}  // namespace

long SocketStream::Read(char* out, std::size_t size) {
  if (ssl_ != nullptr) return SSL_read(ssl_, out, static_cast<int>(std::min(size, kMostPerCall)));
  return ::recv(fd_, out, size, 0);
}

bool SocketStream::Write(const char* data, std::size_t size) {
  while (size > 0) {
    const long n = ssl_ != nullptr
                       ? SSL_write(ssl_, data, static_cast<int>(std::min(size, kMostPerCall)))
                       : ::send(fd_, data, size, MSG_NOSIGNAL);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

void SocketStream::CloseNotify() {
  if (ssl_ != nullptr) SSL_shutdown(ssl_);
}

void IgnoreSigpipe() { ::signal(SIGPIPE, SIG_IGN); }

}  // namespace quire_test
