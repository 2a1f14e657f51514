#include "tools/quire/interrupt_handler.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

namespace quire_cli {
namespace {

// Two buffers: the handler reads the one that the pointer names, SetMessage fills the other and
// then swaps the pointer, so that a signal never sees a half-written line.
char g_buffers[2][1024];
std::atomic<const char*> g_message{nullptr};
std::atomic<int> g_child{-1};
std::atomic<bool> g_cancellable{false};
std::atomic<bool> g_cancel_requested{false};

constexpr char kPlain[] = "quire: interrupted\n";

void OnSignal(int) {
  // A cancellable operation stops by itself, once; a second signal does not wait for it.
  if (g_cancellable.load() && !g_cancel_requested.exchange(true)) return;
  const int child = g_child.load();
  if (child > 0) ::kill(child, SIGTERM);
  const char* message = g_message.load();
  if (message == nullptr) message = kPlain;
  ssize_t ignored = ::write(STDERR_FILENO, "\n", 1);
  ignored = ::write(STDERR_FILENO, message, std::strlen(message));
  (void)ignored;
  ::_exit(130);
}

}  // namespace

void InterruptHandler::Install() {
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGHUP, &action, nullptr);
}

void InterruptHandler::SetMessage(const std::string& message) {
  if (message.empty()) {
    g_message.store(nullptr);
    return;
  }
  char* buffer = g_message.load() == g_buffers[0] ? g_buffers[1] : g_buffers[0];
  std::string line = "quire: " + message;
  if (line.size() > sizeof g_buffers[0] - 2) line.resize(sizeof g_buffers[0] - 2);
  std::memcpy(buffer, line.data(), line.size());
  buffer[line.size()] = '\n';
  buffer[line.size() + 1] = '\0';
  g_message.store(buffer);
}

}  // namespace quire_cli

namespace quire_cli {

void InterruptHandler::SetChild(int pid) { g_child.store(pid); }

void InterruptHandler::SetCancellable(bool cancellable) {
  g_cancel_requested.store(false);
  g_cancellable.store(cancellable);
}

bool InterruptHandler::CancelRequested() { return g_cancel_requested.load(); }

}  // namespace quire_cli
