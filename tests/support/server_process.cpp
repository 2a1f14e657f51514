#include "tests/support/server_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

extern char** environ;

namespace quire_test {
namespace {

constexpr int kStartTimeoutMs = 30000;
constexpr int kStopTimeoutMs = 15000;

// Appends what `fd` gives to `*text` until `enough` holds for it, the stream ends, or `timeout_ms`
// have passed.
void ReadFor(int fd, int timeout_ms, std::string* text, bool (*enough)(const std::string&)) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!enough(*text)) {
    const int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          deadline - std::chrono::steady_clock::now())
                                          .count());
    if (left <= 0) break;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, left) <= 0) continue;
    char buffer[256];
    const ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n <= 0) break;
    text->append(buffer, static_cast<std::size_t>(n));
  }
}

}  // namespace

ServerProcess::ServerProcess(const std::vector<std::string>& args,
                             const std::vector<std::string>& environment, bool capture_errors) {
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) return;
  int err[2] = {-1, -1};
  if (capture_errors && ::pipe2(err, O_CLOEXEC) != 0) {
    ::close(out[0]);
    ::close(out[1]);
    return;
  }
  std::vector<std::string> argv_text;
  argv_text.push_back(QUIRE_SERVER_BINARY);
  argv_text.insert(argv_text.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& arg : argv_text) argv.push_back(arg.data());
  argv.push_back(nullptr);
  std::vector<std::string> env_text;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    bool replaced = false;
    for (const std::string& extra : environment) {
      if (entry.compare(0, extra.find('=') + 1, extra, 0, extra.find('=') + 1) == 0) {
        replaced = true;
      }
    }
    if (!replaced) env_text.push_back(entry);
  }
  env_text.insert(env_text.end(), environment.begin(), environment.end());
  std::vector<char*> envp;
  for (std::string& entry : env_text) envp.push_back(entry.data());
  envp.push_back(nullptr);

  // fork/exec rather than posix_spawn, to have the server killed if the test process dies (a
  // crash or a time-out must not leave servers behind). Between fork and exec only system calls.
  pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);
    ::dup2(out[1], STDOUT_FILENO);
    if (err[1] >= 0) ::dup2(err[1], STDERR_FILENO);
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  ::close(out[1]);
  if (err[1] >= 0) ::close(err[1]);
  if (pid_ < 0) {
    ::close(out[0]);
    if (err[0] >= 0) ::close(err[0]);
    pid_ = -1;
    return;
  }
  stdout_fd_ = out[0];
  stderr_fd_ = err[0];

  std::string line;
  ReadFor(stdout_fd_, kStartTimeoutMs, &line,
          [](const std::string& text) { return text.find('\n') != std::string::npos; });
  first_line_ = line.substr(0, line.find('\n'));
  const std::string prefix = "quire-server listening on ";
  if (first_line_.compare(0, prefix.size(), prefix) == 0) {
    std::string url = first_line_.substr(prefix.size());
    scheme_ = url.substr(0, url.find("://"));
    std::string port_text = url.substr(url.rfind(':') + 1);
    port_ = std::atoi(port_text.c_str());
  }
}

ServerProcess::~ServerProcess() {
  if (pid_ > 0) Terminate();
  if (stdout_fd_ >= 0) ::close(stdout_fd_);
  if (stderr_fd_ >= 0) ::close(stderr_fd_);
}

void ServerProcess::Kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  Reap(kStopTimeoutMs);
}

int ServerProcess::Terminate() {
  if (pid_ <= 0) return -1;
  ::kill(pid_, SIGTERM);
  return Reap(kStopTimeoutMs);
}

int ServerProcess::WaitForExit(int timeout_ms) { return Reap(timeout_ms); }

std::string ServerProcess::ErrorOutput(int timeout_ms) {
  std::string text;
  if (stderr_fd_ < 0) return text;
  ReadFor(stderr_fd_, timeout_ms, &text, [](const std::string&) { return false; });
  return text;
}

int ServerProcess::Reap(int timeout_ms) {
  if (pid_ <= 0) return -1;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (true) {
    int status = 0;
    pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      pid_ = -1;
      port_ = 0;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      pid_ = -1;
      port_ = 0;
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace quire_test
