// `quire demo`: starts the emulator on a free loopback port with a fresh data folder and
// certificate, points the commands' code at it, and walks the whole story with one line per step.
#pragma once

#include <QString>
#include <chrono>
#include <functional>
#include <string>

#include "tools/quire/host_environment.h"

namespace quire_cli {

class DemoRunner {
 public:
  // The size of the generated file that is uploaded.
  static constexpr std::int64_t kUploadSize = 20 * 1024 * 1024;
  // The chunk size of that upload.
  static constexpr std::uint32_t kChunkSize = 1024 * 1024;

  // `host` is borrowed; `server_binary` is the emulator program (empty: look for it).
  DemoRunner(HostEnvironment* host, const QString& server_binary);

  // Runs every step. Throws CliFailure carrying the failed step's name and message (the emulator
  // is stopped on the way out).
  void Run();

 private:
  // Runs `step` as step `number`, printing its name and then its result (the text it returns).
  void Step(int number, const std::string& name, const std::function<std::string()>& step);

  HostEnvironment* host_;
  QString server_binary_;
  std::chrono::steady_clock::time_point start_;
};

}  // namespace quire_cli
