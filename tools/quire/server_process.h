// A quire-server (the local emulator of the service) run as a child process: started on a free
// loopback port with a data folder of its own, and stopped again.
#pragma once

#include <sys/types.h>
#include <QString>
#include <QStringList>

namespace quire_cli {

class ServerProcess {
 public:
  struct Settings {
    // The emulator program.
    QString program;
    // Its data folder (documents, sessions and the TLS certificate it creates).
    QString data_dir;
    // Where its standard output and error go.
    QString log_file;
    // The account it serves: e-mail address and bearer token.
    QString account;
    QString token;
    // Further arguments (fault injection, for instance).
    QStringList extra_arguments;
    // How long it may take to announce that it listens.
    double start_timeout_seconds = 15;
  };

  // The emulator program: `explicit_path` when given; else quire-server in `program_dir`; else
  // the one this program was built with; else the first on PATH. Throws CliFailure (local failure)
  // when there is none.
  static QString Find(const QString& program_dir, const QString& explicit_path);

  explicit ServerProcess(const Settings& settings);
  // Stops the emulator if it still runs.
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // Starts the emulator on 127.0.0.1 with a port chosen by the system and waits for the line in
  // which it announces its address. Throws CliFailure (local failure), with the emulator's last
  // line of output, when it does not start in time.
  void Start();
  // Asks the emulator to stop (SIGTERM), waits up to 5 s, then kills it. Returns true when it had
  // ended by itself, within the wait, with exit status 0.
  bool Stop();
  // Kills the emulator at once (SIGKILL), as a crash would.
  void Kill();

  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  // The address it announced, e.g. "https://127.0.0.1:40123".
  const QString& url() const { return url_; }
  // The certificate it serves, to trust with --cacert.
  QString certificate() const;
  // Everything it printed so far.
  QString Log() const;

 private:
  // The last non-empty line of the log.
  QString LastLogLine() const;

  Settings settings_;
  pid_t pid_ = -1;
  QString url_;
};

}  // namespace quire_cli
