// Runs a program as a child process for the end-to-end tests: chosen environment, standard output
// and error captured (the error optionally on a pseudo-terminal, as a person would see it), bounded
// in time.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace quire_test {

struct ProcessResult {
  // The exit status, 128 + the signal for a process ended by a signal, -1 when it timed out.
  int exit_code = -1;
  bool timed_out = false;
  std::string out;
  std::string err;
  double seconds = 0;
};

class ProcessRunner {
 public:
  // `program` is the path of the executable; outputs are kept under `scratch_dir`.
  ProcessRunner(std::string program, std::string scratch_dir);

  // Sets (or, with `unset`, removes) a variable of the child's environment, which starts as a copy
  // of this process's.
  void SetEnv(const std::string& name, const std::string& value);
  void UnsetEnv(const std::string& name);

  // A started child.
  struct Child {
    pid_t pid = -1;
    std::string out_path;
    std::string err_path;
    int terminal = -1;  // the pseudo-terminal's controlling side when stderr is on one
  };

  // Starts the program with `args`; with `stderr_on_terminal` its standard error is a terminal.
  Child Start(const std::vector<std::string>& args, bool stderr_on_terminal = false);
  // Waits up to `timeout_seconds` for `child` (killing it when the time is up) and collects what
  // it printed.
  ProcessResult Wait(Child* child, double timeout_seconds);
  // Start and Wait.
  ProcessResult Run(const std::vector<std::string>& args, double timeout_seconds = 60,
                    bool stderr_on_terminal = false);

 private:
  std::string program_;
  std::string scratch_dir_;
  std::map<std::string, std::string> env_;
  int runs_ = 0;
};

}  // namespace quire_test
