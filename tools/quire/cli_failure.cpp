#include "tools/quire/cli_failure.h"

namespace quire_cli {
namespace {

// A failure message is one line: line breaks that came with a detail (a server's error text, a
// file name) are turned into blanks.
std::string OneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return text;
}

}  // namespace

CliFailure::CliFailure(ExitCode code, const std::string& message)
    : std::runtime_error(OneLine(message)), code_(code), message_(OneLine(message)) {}

}  // namespace quire_cli
