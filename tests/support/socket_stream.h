// Reads and writes one accepted connection, through TLS when it has an OpenSSL session, else on the
// plain socket. Writes never raise SIGPIPE on the plain socket; TLS writes go through write(2), so
// servers that speak TLS ignore SIGPIPE (see IgnoreSigpipe()).
#pragma once

#include <cstddef>
#include <string>

typedef struct ssl_st SSL;

namespace quire_test {

class SocketStream {
 public:
  // `ssl` is borrowed and may be null.
  SocketStream(int fd, SSL* ssl) : fd_(fd), ssl_(ssl) {}

  // Up to `size` bytes into `out`; the count read, or 0 or less at the end of the stream or on an
  // error.
  long Read(char* out, std::size_t size);
  // All `size` bytes of `data`; false when the connection failed first.
  bool Write(const char* data, std::size_t size);
  bool Write(const std::string& bytes) { return Write(bytes.data(), bytes.size()); }
  // Sends TLS close_notify; nothing on a plain socket.
  void CloseNotify();

 private:
  int fd_;
  SSL* ssl_;
};

// Makes a peer that hangs up while a TLS server writes (as a client that refuses the certificate
// does) cost a failed write instead of the test process.
void IgnoreSigpipe();

}  // namespace quire_test
