// Puts the command's transport in place for the duration of a command: made from the global
// options, wrapped in NetworkDiagnostics, installed as the network layer's default (so that the
// services' connections use it) and taken away again when this object goes.
#pragma once

#include <memory>

#include "tools/quire/client_options.h"
#include "tools/quire/failure_classifier.h"
#include "tools/quire/host_environment.h"
#include "tools/quire/network_diagnostics.h"
#include "tools/quire/request_log.h"

namespace quire_cli {

class TransportInstallation {
 public:
  // Makes the transport with `factory` and installs it. Throws CliFailure when the factory refuses
  // the options.
  // With options.verbosity above 0, the requests are told on `log` (see RequestLog).
  TransportInstallation(const HostEnvironment::TransportFactory& factory,
                        const ClientOptions& options, std::ostream* log = nullptr);
  // Lets the main loop finish with the requests' remains, then restores the previous default.
  ~TransportInstallation();
  TransportInstallation(const TransportInstallation&) = delete;
  TransportInstallation& operator=(const TransportInstallation&) = delete;

  // Classifies failures with the diagnostics of this transport.
  const FailureClassifier& classifier() const { return classifier_; }

 private:
  std::shared_ptr<kestrel::net::ITransport> transport_;
  std::unique_ptr<RequestLog> log_;
  NetworkDiagnostics diagnostics_;
  kestrel::net::ITransport* previous_;
  FailureClassifier classifier_;
};

}  // namespace quire_cli
