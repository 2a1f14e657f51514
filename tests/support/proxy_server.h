// A real HTTP proxy (tinyproxy, from Debian's package) on 127.0.0.1 for one test: started with a
// configuration of the test's choosing on a free port, stopped (and killed if the test process
// dies) when the object goes. It tunnels https through CONNECT to any port unless told to refuse,
// and can demand credentials (Basic). Its log tells which tunnels it opened.
#pragma once

#include <sys/types.h>

#include <string>

namespace quire_test {

class ProxyServer {
 public:
  struct Options {
    // Answer every CONNECT with 403 (tinyproxy allows tunnels to port 1 only).
    bool refuse_connect = false;
    // When not empty, every request must carry these credentials, else the answer is 407.
    std::string user;
    std::string password;
  };

  // Whether tinyproxy is installed; tests that need it are skipped without it.
  static bool Available();

  explicit ProxyServer(const Options& options);
  ProxyServer() : ProxyServer(Options()) {}
  ~ProxyServer();
  ProxyServer(const ProxyServer&) = delete;
  ProxyServer& operator=(const ProxyServer&) = delete;

  // Whether it is listening (the constructor waits, bounded, until it accepts connections).
  bool started() const { return port_ != 0; }
  int port() const { return port_; }
  // "http://127.0.0.1:PORT".
  std::string url() const;
  // How many CONNECT requests the proxy has received so far (from its log).
  int connect_requests() const;
  // The whole log so far, for failure messages.
  std::string log() const;

  // Stops it (SIGTERM, then SIGKILL after a bounded wait); the port then refuses connections.
  void Stop();

 private:
  bool Launch(int port, const Options& options);

  std::string folder_;
  pid_t pid_ = -1;
  int port_ = 0;
};

}  // namespace quire_test
