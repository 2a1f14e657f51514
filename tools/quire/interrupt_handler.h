// What happens on Ctrl-C (SIGINT), SIGTERM or SIGHUP: the command stops with exit code 130 and one
// line that says whether an upload can continue where it stopped. Outside a cancellable operation
// the process ends at once, from the signal handler. During one (an upload), the first signal only
// asks it to stop: the operation cancels its transfer, keeps its state and ends through the
// command's own failure path; a second signal ends the process at once.
#pragma once

#include <string>

namespace quire_cli {

class InterruptHandler {
 public:
  // Installs the handler for SIGINT, SIGTERM and SIGHUP. Call once, early in main.
  static void Install();
  // The line printed when a signal arrives (without "quire: " and the line break); empty restores
  // the plain "interrupted". Safe to call at any time on the main thread.
  static void SetMessage(const std::string& message);
  // Starts (true) or ends (false) a cancellable operation. Ending it also forgets a request to
  // cancel that was not taken up.
  static void SetCancellable(bool cancellable);
  // Whether a signal asked the running cancellable operation to stop. Safe to poll often.
  static bool CancelRequested();
  // A child process (the demo's emulator) to stop with SIGTERM before exiting; -1 for none.
  static void SetChild(int pid);
};

}  // namespace quire_cli
