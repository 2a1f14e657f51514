// The quire command: its command line (CLI11), the commands behind it, and the single place where
// a failure becomes its last line of output and its exit code.
#pragma once

#include <QString>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/quire/client_options.h"
#include "tools/quire/effective_settings.h"
#include "tools/quire/host_environment.h"

namespace CLI {
class App;
}  // namespace CLI

namespace quire_cli {

class Client;
class RetryTally;
class TransportInstallation;

class CommandLine {
 public:
  // `host` is borrowed for the lifetime of this object.
  explicit CommandLine(HostEnvironment* host);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // Parses the arguments (argv[0] is the program) and runs the command. Returns the exit code:
  // 0, or the code of the failure's class after one line "quire: <what went wrong>; <what to do>"
  // on the error stream.
  int Run(int argc, char** argv);
  int Run(const std::vector<std::string>& args);

  // The text of `quire --help`.
  std::string Help();

  // Parses a chunk size: a number of bytes, optionally followed by K, KiB, M, MiB, G or GiB (powers
  // of 1024). Throws CliFailure (usage) for anything else, or outside 2 bytes .. 1 GiB.
  static std::uint32_t ParseChunkSize(const std::string& text);
  // Checks --server: an https address of a host with an optional port and nothing else. Throws
  // CliFailure (usage) otherwise.
  static void CheckServer(const QString& server);

 private:
  void Build(CLI::App* app);
  void Dispatch(CLI::App* app);

  void Whoami();
  void List();
  void Get();
  void Put();
  void Replace();
  void Remove();
  void Upload();
  void Demo();
  void Config();

  // Puts the transport for the global options in place (until this object goes).
  void InstallTransport();
  // Puts the transport in place and returns a client of the service that sends `token`.
  Client Connect(const QString& token);
  QString Token();
  QString StatePath() const;
  std::ostream& out() { return *host_->out; }
  std::ostream& err() { return *host_->err; }

  HostEnvironment* host_;
  ClientOptions options_;

  // Parsed arguments. The options every command takes:
  std::string token_on_command_line_;
  std::string server_;
  std::string cacert_;
  std::string token_file_;
  std::string proxy_;
  std::string profile_;
  // The document and the file that get, put, replace, rm and upload name:
  std::string doc_;
  std::string file_;
  // ls:
  bool json_ = false;
  bool titles_ = false;
  // get:
  std::string output_;
  bool continue_ = false;
  // rm:
  bool force_ = false;
  std::string if_match_;
  // upload:
  std::string title_;
  std::string type_;
  std::string chunk_size_;
  std::string to_;
  bool resume_ = false;
  std::string state_file_;
  // demo:
  std::string server_binary_;
  EffectiveSettings settings_;

  std::unique_ptr<TransportInstallation> transport_;
  // The retries of the running command (from --retries); the last line tells of them.
  std::unique_ptr<RetryTally> retries_;
  bool retried_said_ = false;
};

}  // namespace quire_cli
