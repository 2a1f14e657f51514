// The exit codes of the quire command: one per class of failure, so that scripts can tell a refused
// token from a document that is not there or a service that is down.
#pragma once

#include <string>

namespace quire_cli {

enum class ExitCode : int {
  kOk = 0,
  // A local file could not be read, written or uploaded, or the emulator could not be started.
  kLocal = 1,
  // The command line was wrong: unknown command or option, missing argument, no token, an
  // ambiguous document title.
  kUsage = 2,
  // The service could not be reached: connection refused, name not resolved, TLS failure, time-out.
  kNetwork = 3,
  // The service refused the token (HTTP 401 or 403).
  kTokenRefused = 4,
  // The document (or the upload session) does not exist (HTTP 404 or 410).
  kNotFound = 5,
  // The document changed since its entity tag was read (HTTP 412).
  kEntityTagChanged = 6,
  // The service answered with another error status.
  kServerError = 7,
  // The service's answer could not be read (not the document it should be).
  kUnreadableAnswer = 8,
  // Interrupted by a signal (Ctrl-C); an interrupted upload can be resumed.
  kInterrupted = 130,
};

class ExitCodes {
 public:
  // The process exit status of `code`.
  static int Value(ExitCode code) { return static_cast<int>(code); }
  // A short name of the class, e.g. "token refused".
  static const char* Name(ExitCode code);
  // The table of every exit code with its meaning, one per line, as `quire --help` and the README
  // show it.
  static std::string Table();
};

}  // namespace quire_cli
