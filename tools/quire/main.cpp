// The quire program: the command line of the document service, over the HTTPS transport.
#include <unistd.h>

#include <QFileInfo>
#include <cstdlib>
#include <iostream>

#include "tools/quire/command_line.h"
#include "tools/quire/config_file.h"
#include "tools/quire/curl_transport_factory.h"
#include "tools/quire/host_environment.h"
#include "tools/quire/interrupt_handler.h"
#include "tools/quire/token_source.h"

namespace {

// The folder of the running program, from /proc (argv[0] may be a bare name found on PATH).
QString ProgramDir(const char* argv0) {
  const QFileInfo self(QStringLiteral("/proc/self/exe"));
  if (self.exists()) return QFileInfo(self.symLinkTarget()).absolutePath();
  return QFileInfo(QString::fromLocal8Bit(argv0)).absolutePath();
}

}  // namespace

int main(int argc, char** argv) {
  quire_cli::InterruptHandler::Install();
  std::ios::sync_with_stdio(false);

  quire_cli::HostEnvironment host;
  host.out = &std::cout;
  host.err = &std::cerr;
  host.err_is_terminal = ::isatty(STDERR_FILENO) == 1;
  const char* token = std::getenv(quire_cli::TokenSource::kEnvironmentVariable);
  host.token_variable = token != nullptr ? QString::fromLocal8Bit(token) : QString();
  host.proxy_variables = quire_cli::ProxyEnvironment::FromProcess();
  const char* profile = std::getenv("QUIRE_PROFILE");
  host.profile_variable = profile != nullptr ? QString::fromLocal8Bit(profile) : QString();
  host.config_path = quire_cli::ConfigFile::DefaultPath(qEnvironmentVariable("XDG_CONFIG_HOME"),
                                                        qEnvironmentVariable("HOME"));
  host.make_transport = &quire_cli::CurlTransportFactory::Make;
  host.program_dir = ProgramDir(argv[0]);

  quire_cli::CommandLine command_line(&host);
  return command_line.Run(argc, argv);
}
