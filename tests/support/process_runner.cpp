#include "tests/support/process_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace quire_test {
namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// Moves whatever the terminal has to `sink`, without blocking.
void Drain(int terminal, std::string* sink) {
  char buffer[4096];
  for (;;) {
    pollfd ready{terminal, POLLIN, 0};
    if (::poll(&ready, 1, 0) <= 0 || (ready.revents & POLLIN) == 0) return;
    const ssize_t got = ::read(terminal, buffer, sizeof buffer);
    if (got <= 0) return;
    sink->append(buffer, static_cast<std::size_t>(got));
  }
}

}  // namespace

ProcessRunner::ProcessRunner(std::string program, std::string scratch_dir)
    : program_(std::move(program)), scratch_dir_(std::move(scratch_dir)) {
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    const std::size_t equals = text.find('=');
    if (equals != std::string::npos) env_[text.substr(0, equals)] = text.substr(equals + 1);
  }
}

void ProcessRunner::SetEnv(const std::string& name, const std::string& value) {
  env_[name] = value;
}

void ProcessRunner::UnsetEnv(const std::string& name) { env_.erase(name); }

ProcessRunner::Child ProcessRunner::Start(const std::vector<std::string>& args,
                                          bool stderr_on_terminal) {
  Child child;
  const std::string stem = scratch_dir_ + "/run" + std::to_string(++runs_);
  child.out_path = stem + ".out";
  child.err_path = stem + ".err";

  std::vector<std::string> storage = {program_};
  storage.insert(storage.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& arg : storage) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  std::vector<std::string> env_storage;
  for (const auto& [name, value] : env_) env_storage.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (std::string& entry : env_storage) envp.push_back(&entry[0]);
  envp.push_back(nullptr);

  int terminal_child = -1;
  if (stderr_on_terminal) {
    if (::openpty(&child.terminal, &terminal_child, nullptr, nullptr, nullptr) != 0) {
      throw std::runtime_error("openpty failed");
    }
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, child.out_path.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (stderr_on_terminal) {
    posix_spawn_file_actions_adddup2(&actions, terminal_child, STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, child.terminal);
    posix_spawn_file_actions_addclose(&actions, terminal_child);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, child.err_path.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
  }
  const int spawned =
      ::posix_spawn(&child.pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (terminal_child >= 0) ::close(terminal_child);
  if (spawned != 0) {
    throw std::runtime_error("cannot start " + program_ + ": " + std::strerror(spawned));
  }
  return child;
}

ProcessResult ProcessRunner::Wait(Child* child, double timeout_seconds) {
  ProcessResult result;
  const auto start = std::chrono::steady_clock::now();
  const auto deadline = start + std::chrono::duration<double>(timeout_seconds);
  std::string terminal_text;
  int status = 0;
  for (;;) {
    if (child->terminal >= 0) Drain(child->terminal, &terminal_text);
    const pid_t ended = ::waitpid(child->pid, &status, WNOHANG);
    if (ended == child->pid) break;
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(child->pid, SIGKILL);
      ::waitpid(child->pid, &status, 0);
      result.timed_out = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (child->terminal >= 0) {
    Drain(child->terminal, &terminal_text);
    ::close(child->terminal);
    child->terminal = -1;
    result.err = terminal_text;
  } else {
    result.err = ReadFile(child->err_path);
  }
  result.out = ReadFile(child->out_path);
  if (result.timed_out) {
    result.exit_code = -1;
  } else if (WIFEXITED(status)) {
    result.exit_code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.exit_code = 128 + WTERMSIG(status);
  }
  return result;
}

ProcessResult ProcessRunner::Run(const std::vector<std::string>& args, double timeout_seconds,
                                 bool stderr_on_terminal) {
  Child child = Start(args, stderr_on_terminal);
  return Wait(&child, timeout_seconds);
}

}  // namespace quire_test
