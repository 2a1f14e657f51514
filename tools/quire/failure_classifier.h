// Turns the status that a library callback received into a failure a person can act on: its class
// (and so the exit code), what went wrong and what to do.
#pragma once

#include <string>

#include "tools/quire/cli_failure.h"

namespace quire_cli {

class NetworkDiagnostics;

class FailureClassifier {
 public:
  struct Diagnosis {
    ExitCode code;
    // What went wrong, e.g. "the service refused the token (HTTP 401) while listing the documents".
    std::string what;
    // What to do about it, e.g. "check QUIRE_TOKEN or the file given to --token-file".
    std::string todo;
  };

  // `diagnostics` (borrowed, may be null) explains the library's generic failure status;
  // `timeout_seconds` is quoted when a request timed out.
  FailureClassifier(NetworkDiagnostics* diagnostics, double timeout_seconds)
      : diagnostics_(diagnostics), timeout_seconds_(timeout_seconds) {}

  // Diagnoses a status other than 0 (a NetworkResponseInfo::status) met while doing `action` (a
  // phrase such as "listing the documents").
  Diagnosis Diagnose(int status, const std::string& action) const;
  // The same as a failure, with the message "<what>; <todo>".
  CliFailure Classify(int status, const std::string& action) const;

 private:
  Diagnosis DiagnoseGenericFailure(const std::string& action) const;

  NetworkDiagnostics* diagnostics_;
  double timeout_seconds_;
};

}  // namespace quire_cli
