// A small HTTPS server on 127.0.0.1 for the transport's tests, run on threads of its own:
//   GET  /status/<n>   answers status n with the body "status <n>" (none for 204 and 304), the line
//                      "X-Status: <n>", and "Location: /status/200" for 3xx;
//   GET  /bytes/<n>    answers 200 with n bytes of the test pattern; with ?from=<k>, the pattern's
//                      bytes [k, k + n) instead of [0, n);
//   GET  /truncated    announces 1 MiB and closes the connection after 64 KiB;
//   PUT or POST /upload  checks that the body is the test pattern and answers "match <size>" or
//                      "mismatch at <offset> of <size>";
//   anything else      404.
// It records every request it answered: the number, the client ports seen (one per connection) and
// the request lines of the last request.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace quire_test::curl {

class CurlTestServer {
 public:
  // TLS with the given files; empty paths give plain HTTP.
  CurlTestServer(const std::string& certificate_file, const std::string& key_file);
  ~CurlTestServer();
  CurlTestServer(const CurlTestServer&) = delete;
  CurlTestServer& operator=(const CurlTestServer&) = delete;

  // Whether the server listens; port() is then its port on 127.0.0.1.
  bool ok() const { return port_ > 0; }
  int port() const { return port_; }

  int requests() const;
  std::set<int> client_ports() const;
  // Header names (lower case) and values of the most recent request.
  std::multimap<std::string, std::string> last_headers() const;
  std::string last_method() const;
  std::string last_path() const;

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = -1;
  mutable std::mutex mutex_;
  int requests_ = 0;
  std::set<int> client_ports_;
  std::multimap<std::string, std::string> last_headers_;
  std::string last_method_;
  std::string last_path_;
};

}  // namespace quire_test::curl
