// A bare TCP connection to a plain-HTTP emulator, for requests that HTTP client libraries refuse
// to send (malformed framing, chunked uploads with exact control) and for watching the connection
// itself (when the server closes it).
#pragma once

#include <string>

namespace quire_test::server {

class RawConnection {
 public:
  explicit RawConnection(int port);
  ~RawConnection();
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool connected() const { return fd_ >= 0; }
  bool Send(const std::string& bytes);
  // Reads one answer (status line, fields, Content-Length body); "" when the connection closed
  // or nothing complete arrived within the time limit.
  std::string ReadAnswer(int timeout_ms = 10000);
  // Whether the server has closed the connection (end of stream or reset) within the time limit.
  bool ClosedWithin(int timeout_ms);

 private:
  int fd_ = -1;
  std::string pending_;
};

// The status code of an answer read by ReadAnswer (0 when there is none).
int StatusOf(const std::string& answer);
// The body of such an answer.
std::string BodyOf(const std::string& answer);

}  // namespace quire_test::server
