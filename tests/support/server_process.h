// Runs the quire-server binary as a child process for a test: starts it with the given arguments,
// waits (bounded) for its "listening on" line, and stops it with SIGTERM or SIGKILL. The server is
// killed when the thread that started it ends (so also when the test process dies): start servers
// from the test's main thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace quire_test {

class ServerProcess {
 public:
  // Starts the server. `environment` entries ("NAME=value") are added to the inherited ones.
  // Check started() afterwards. With `capture_errors`, the server's standard error goes to a pipe
  // that ErrorOutput() reads (for servers that are expected to write little and exit, e.g. on a
  // refused command line); otherwise it is the test's.
  explicit ServerProcess(const std::vector<std::string>& args,
                         const std::vector<std::string>& environment = {},
                         bool capture_errors = false);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  bool started() const { return port_ != 0; }
  int port() const { return port_; }
  // "http" or "https", as printed.
  const std::string& scheme() const { return scheme_; }
  // The line printed on start (without the line break), or what was read before failing.
  const std::string& first_line() const { return first_line_; }
  pid_t pid() const { return pid_; }

  // SIGKILL, then waits for the process.
  void Kill();
  // SIGTERM, then waits (bounded; SIGKILL after the timeout). Returns the exit status, or -1
  // when it had to be killed or died of a signal.
  int Terminate();
  // Waits (bounded) for the process to exit by itself; returns its exit status, or -1.
  int WaitForExit(int timeout_ms);
  // Everything the server wrote to standard error, read until it closed it (bounded by
  // `timeout_ms`). Empty unless constructed with `capture_errors`.
  std::string ErrorOutput(int timeout_ms = 10000);

 private:
  int Reap(int timeout_ms);

  pid_t pid_ = -1;
  int stdout_fd_ = -1;
  int stderr_fd_ = -1;
  int port_ = 0;
  std::string scheme_;
  std::string first_line_;
};

}  // namespace quire_test
