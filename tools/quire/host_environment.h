// What the command takes from the process that hosts it: its output streams, whether a person
// watches the standard error, the token variable, and how to make the network transport. Tests run
// the command in-process with streams of their own and a scripted transport.
#pragma once

#include <QString>
#include <functional>
#include <memory>
#include <ostream>

#include "kestrel/net/i_transport.h"
#include "tools/quire/client_options.h"
#include "tools/quire/proxy_environment.h"

namespace quire_cli {

struct HostEnvironment {
  using TransportFactory =
      std::function<std::shared_ptr<kestrel::net::ITransport>(const ClientOptions& options)>;

  // Results go to `out`, messages and the progress bar to `err` (both borrowed).
  std::ostream* out = nullptr;
  std::ostream* err = nullptr;
  // Whether `err` is a terminal: only then is a progress bar drawn.
  bool err_is_terminal = false;
  // The value of QUIRE_TOKEN (null when unset).
  QString token_variable;
  // The proxy variables (https_proxy, http_proxy, no_proxy and their upper-case forms).
  ProxyEnvironment proxy_variables;
  // The value of QUIRE_PROFILE (null when unset): the profile of the configuration file to use.
  QString profile_variable;
  // The configuration file with the profiles (ConfigFile::DefaultPath); empty for none.
  QString config_path;
  // Makes the transport that carries the requests, configured from the global options. The
  // transport must outlive the requests made through it; the command keeps the pointer until it
  // ends.
  TransportFactory make_transport;
  // The folder of the running quire program (where quire-server is looked for first).
  QString program_dir;
};

}  // namespace quire_cli
