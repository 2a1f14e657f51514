#include "tools/quire/transport_installation.h"

#include "kestrel/base/main_loop.h"
#include "kestrel/net/transport_registry.h"
#include "tools/quire/cli_failure.h"

namespace quire_cli {
namespace {

std::shared_ptr<kestrel::net::ITransport> Make(const HostEnvironment::TransportFactory& factory,
                                               const ClientOptions& options) {
  std::shared_ptr<kestrel::net::ITransport> transport;
  if (factory) transport = factory(options);
  if (!transport) {
    throw CliFailure(ExitCode::kLocal,
                     "no network transport is available in this program; use the quire program "
                     "built with the project");
  }
  return transport;
}

}  // namespace

TransportInstallation::TransportInstallation(const HostEnvironment::TransportFactory& factory,
                                             const ClientOptions& options, std::ostream* log)
    : transport_(Make(factory, options)),
      log_(options.verbosity > 0 && log != nullptr
               ? new RequestLog(transport_.get(), log, options.verbosity)
               : nullptr),
      diagnostics_(log_ ? static_cast<kestrel::net::ITransport*>(log_.get()) : transport_.get(),
                   options.timeout_seconds),
      previous_(kestrel::net::TransportRegistry::Default()),
      classifier_(&diagnostics_, options.timeout_seconds) {
  kestrel::net::TransportRegistry::SetDefault(&diagnostics_);
}

TransportInstallation::~TransportInstallation() {
  kestrel::MainLoop::Default()->RunUntilIdle();
  kestrel::net::TransportRegistry::SetDefault(previous_);
}

}  // namespace quire_cli
