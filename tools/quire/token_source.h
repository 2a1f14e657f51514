// Where the command finds the bearer token: the QUIRE_TOKEN environment variable or a file named
// with --token-file. A token is never taken from the command line (other users can read a
// process's arguments) and never printed.
#pragma once

#include <QString>

namespace quire_cli {

class TokenSource {
 public:
  // The environment variable that holds the token.
  static constexpr const char* kEnvironmentVariable = "QUIRE_TOKEN";

  // The token: the contents of `token_file` when it is not empty (surrounding blanks and line
  // breaks removed), else `environment_value` (the value of QUIRE_TOKEN, null when unset). Throws
  // CliFailure (usage) when there is none, when the file cannot be read or is empty, or when the
  // token holds blanks or control characters (it goes into a header line as it stands). The
  // messages name the file but never the token.
  static QString Read(const QString& token_file, const QString& environment_value);

  // The same, with the value of QUIRE_TOKEN read from the process environment.
  static QString Read(const QString& token_file);
};

}  // namespace quire_cli
