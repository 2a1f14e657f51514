#include "tools/quire/exit_codes.h"

#include <cstdio>

namespace quire_cli {
namespace {

struct Row {
  ExitCode code;
  const char* name;
  const char* meaning;
};

constexpr Row kRows[] = {
    {ExitCode::kOk, "success", "the command did what it was asked"},
    {ExitCode::kLocal, "local failure",
     "a local file could not be read, written or uploaded, or the emulator did not start"},
    {ExitCode::kUsage, "usage",
     "wrong command line, no token, or a document title that names several documents"},
    {ExitCode::kNetwork, "network",
     "the service could not be reached (refused, unresolved, TLS failure, time-out)"},
    {ExitCode::kTokenRefused, "token refused", "the service refused the token (HTTP 401 or 403)"},
    {ExitCode::kNotFound, "not found", "no such document or upload session (HTTP 404 or 410)"},
    {ExitCode::kEntityTagChanged, "entity tag changed",
     "the document changed since it was listed (HTTP 412)"},
    {ExitCode::kServerError, "server error", "the service answered with another error status"},
    {ExitCode::kUnreadableAnswer, "unreadable answer", "the service's answer could not be read"},
    {ExitCode::kInterrupted, "interrupted",
     "stopped by Ctrl-C or a signal; an upload can continue with upload --resume"},
};

}  // namespace

const char* ExitCodes::Name(ExitCode code) {
  for (const Row& row : kRows) {
    if (row.code == code) return row.name;
  }
  return "unknown";
}

std::string ExitCodes::Table() {
  std::string table;
  for (const Row& row : kRows) {
    char line[256];
    std::snprintf(line, sizeof line, "  %3d  %-19s %s\n", Value(row.code), row.name, row.meaning);
    table += line;
  }
  return table;
}

}  // namespace quire_cli
