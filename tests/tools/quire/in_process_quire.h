// Runs the quire command in-process, as its in-process tests do: with streams of the test's own and
// a transport the test keeps (lent to the command for the run, never deleted by it).
#pragma once

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "kestrel/net/i_transport.h"
#include "tools/quire/client_options.h"
#include "tools/quire/command_line.h"
#include "tools/quire/host_environment.h"

namespace quire_test {

// What one run of the command gave: its exit code and what it wrote to each stream.
struct QuireRun {
  int code;
  std::string out;
  std::string err;
};

// Runs `quire args...` with `host` (whose out and err streams it replaces with its own) over
// `transport`; `on_transport` sees the options of every transport the command asks for.
inline QuireRun RunQuireInProcess(quire_cli::HostEnvironment host,
                                  kestrel::net::ITransport* transport,
                                  std::function<void(const quire_cli::ClientOptions&)> on_transport,
                                  std::vector<std::string> args) {
  std::ostringstream out;
  std::ostringstream err;
  host.out = &out;
  host.err = &err;
  host.make_transport = [transport, on_transport](const quire_cli::ClientOptions& options) {
    on_transport(options);
    return std::shared_ptr<kestrel::net::ITransport>(transport, [](kestrel::net::ITransport*) {});
  };
  args.insert(args.begin(), "quire");
  quire_cli::CommandLine command_line(&host);
  const int code = command_line.Run(args);
  return QuireRun{code, out.str(), err.str()};
}

}  // namespace quire_test
