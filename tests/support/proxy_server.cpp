#include "tests/support/proxy_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

namespace quire_test {
namespace {

constexpr char kBinary[] = "/usr/bin/tinyproxy";

// A port that nothing listens on now (the kernel's choice for a socket bound to port 0).
int FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

bool Accepts(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  ::close(fd);
  return ok;
}

}  // namespace

bool ProxyServer::Available() { return ::access(kBinary, X_OK) == 0; }

ProxyServer::ProxyServer(const Options& options) {
  char folder[] = "/tmp/quire-proxy-XXXXXX";
  if (::mkdtemp(folder) == nullptr) return;
  folder_ = folder;
  // Another process may take the free port between the check and tinyproxy's bind: try again.
  for (int attempt = 0; attempt < 5 && port_ == 0; ++attempt) {
    const int port = FreePort();
    if (port != 0 && Launch(port, options)) port_ = port;
  }
}

bool ProxyServer::Launch(int port, const Options& options) {
  const std::string config = folder_ + "/tinyproxy.conf";
  {
    std::ofstream out(config, std::ios::trunc);
    out << "Port " << port << "\n"
        << "Listen 127.0.0.1\n"
        << "Timeout 60\n"
        << "MaxClients 32\n"
        << "LogFile \"" << folder_ << "/tinyproxy.log\"\n"
        << "LogLevel Connect\n"
        << "Allow 127.0.0.1\n"
        << "DisableViaHeader Yes\n";
    if (options.refuse_connect) out << "ConnectPort 1\n";
    if (!options.user.empty())
      out << "BasicAuth " << options.user << " " << options.password << "\n";
    if (!out) return false;
  }
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);
    const std::string log = folder_ + "/stderr.log";
    std::FILE* sink = std::freopen(log.c_str(), "w", stdout);
    if (sink != nullptr) ::dup2(::fileno(stdout), STDERR_FILENO);
    ::execl(kBinary, kBinary, "-d", "-c", config.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  if (pid < 0) return false;
  pid_ = pid;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {  // it ended: the port was taken, or worse
      pid_ = -1;
      return false;
    }
    if (Accepts(port)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  Stop();
  return false;
}

ProxyServer::~ProxyServer() {
  Stop();
  if (!folder_.empty()) {
    for (const char* name : {"/tinyproxy.conf", "/tinyproxy.log", "/stderr.log"}) {
      ::unlink((folder_ + name).c_str());
    }
    ::rmdir(folder_.c_str());
  }
}

std::string ProxyServer::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

std::string ProxyServer::log() const {
  std::ifstream in(folder_ + "/tinyproxy.log");
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

int ProxyServer::connect_requests() const {
  const std::string text = log();
  int count = 0;
  for (std::size_t at = text.find("): CONNECT "); at != std::string::npos;
       at = text.find("): CONNECT ", at + 1)) {
    ++count;
  }
  return count;
}

void ProxyServer::Stop() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int status = 0;
  while (::waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  pid_ = -1;
}

}  // namespace quire_test
