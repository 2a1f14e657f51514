// A failure of a command: what went wrong and what to do, and the exit code of its class.
#pragma once

#include <stdexcept>
#include <string>

#include "tools/quire/exit_codes.h"

namespace quire_cli {

// Thrown by the command implementations and caught once, in CommandLine::Run, which prints the
// message as the last line of the standard error and exits with the code. The message is one line
// of the form "<what went wrong>; <what to do>" and never holds the token.
class CliFailure : public std::runtime_error {
 public:
  CliFailure(ExitCode code, const std::string& message);

  ExitCode code() const { return code_; }
  const std::string& message() const { return message_; }

 private:
  ExitCode code_;
  std::string message_;
};

}  // namespace quire_cli
