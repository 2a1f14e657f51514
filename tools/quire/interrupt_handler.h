// What happens on Ctrl-C (SIGINT), SIGTERM or SIGHUP: the command stops at once with exit code 130
// and one line that says whether an upload can continue where it stopped.
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
  // A child process (the demo's emulator) to stop with SIGTERM before exiting; -1 for none.
  static void SetChild(int pid);
};

}  // namespace quire_cli
