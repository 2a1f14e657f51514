#include "tools/quire/server_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tools/quire/cli_failure.h"
#include "tools/quire/interrupt_handler.h"

extern char** environ;

namespace quire_cli {
namespace {

constexpr char kProgramName[] = "quire-server";

bool IsExecutable(const QString& path) {
  const QFileInfo info(path);
  return info.isFile() && info.isExecutable();
}

// Waits up to `seconds` for `pid` to end; returns its wait status, or -1 when it still runs.
int WaitFor(pid_t pid, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    int status = 0;
    const pid_t ended = ::waitpid(pid, &status, WNOHANG);
    if (ended == pid) return status;
    if (ended < 0) return 0;  // not our child any more
    if (std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace

QString ServerProcess::Find(const QString& program_dir, const QString& explicit_path) {
  if (!explicit_path.isEmpty()) {
    if (IsExecutable(explicit_path)) return QFileInfo(explicit_path).absoluteFilePath();
    throw CliFailure(ExitCode::kLocal, explicit_path.toStdString() +
                                           " is not an executable program; give the path of "
                                           "quire-server with --server-binary");
  }
  QStringList candidates;
  if (!program_dir.isEmpty()) candidates << program_dir + QLatin1Char('/') + kProgramName;
#ifdef QUIRE_SERVER_PATH
  candidates << QStringLiteral(QUIRE_SERVER_PATH);
#endif
  for (const QString& candidate : candidates) {
    if (IsExecutable(candidate)) return QFileInfo(candidate).absoluteFilePath();
  }
  const QString on_path = QStandardPaths::findExecutable(QString::fromLatin1(kProgramName));
  if (!on_path.isEmpty()) return on_path;
  throw CliFailure(ExitCode::kLocal,
                   "cannot find the emulator quire-server (looked next to quire, where it was "
                   "built and on PATH); build the project (scripts/demo does) or give "
                   "--server-binary PATH");
}

ServerProcess::ServerProcess(const Settings& settings) : settings_(settings) {}

ServerProcess::~ServerProcess() {
  if (running()) Stop();
}

void ServerProcess::Start() {
  QDir().mkpath(settings_.data_dir);
  QStringList arguments = {QStringLiteral("--listen"),  QStringLiteral("127.0.0.1:0"),
                           QStringLiteral("--data"),    settings_.data_dir,
                           QStringLiteral("--account"), settings_.account,
                           QStringLiteral("--token"),   settings_.token};
  arguments << settings_.extra_arguments;

  std::vector<std::string> storage;
  storage.push_back(settings_.program.toStdString());
  for (const QString& argument : arguments) storage.push_back(argument.toStdString());
  std::vector<char*> argv;
  for (std::string& text : storage) argv.push_back(&text[0]);
  argv.push_back(nullptr);
  const std::string log = settings_.log_file.toStdString();

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  pid_t pid = -1;
  const int spawned = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    throw CliFailure(ExitCode::kLocal, "cannot start " + settings_.program.toStdString() + " (" +
                                           std::strerror(spawned) +
                                           "); check that it is an executable program");
  }
  pid_ = pid;
  InterruptHandler::SetChild(pid_);

  // The emulator announces itself with a line "... listening on https://127.0.0.1:PORT".
  static const QRegularExpression kAnnouncement(QStringLiteral("listening on (https?://\\S+)"));
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration<double>(settings_.start_timeout_seconds);
  for (;;) {
    const QRegularExpressionMatch match = kAnnouncement.match(Log());
    if (match.hasMatch()) {
      url_ = match.captured(1);
      while (url_.endsWith(QLatin1Char('/'))) url_.chop(1);
      return;
    }
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      InterruptHandler::SetChild(-1);
      throw CliFailure(ExitCode::kLocal, "quire-server ended before it listened (\"" +
                                             LastLogLine().toStdString() + "\"); see its log " +
                                             log);
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      Kill();
      throw CliFailure(ExitCode::kLocal,
                       "quire-server did not start listening within " +
                           std::to_string(static_cast<int>(settings_.start_timeout_seconds)) +
                           " s (last line: \"" + LastLogLine().toStdString() + "\"); see its log " +
                           log);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

bool ServerProcess::Stop() {
  if (!running()) return false;
  ::kill(pid_, SIGTERM);
  int status = WaitFor(pid_, 5.0);
  bool clean = status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (status < 0) {
    ::kill(pid_, SIGKILL);
    WaitFor(pid_, 5.0);
    clean = false;
  }
  pid_ = -1;
  InterruptHandler::SetChild(-1);
  return clean;
}

void ServerProcess::Kill() {
  if (!running()) return;
  ::kill(pid_, SIGKILL);
  WaitFor(pid_, 5.0);
  pid_ = -1;
  InterruptHandler::SetChild(-1);
}

QString ServerProcess::certificate() const {
  return settings_.data_dir + QStringLiteral("/tls/cert.pem");
}

QString ServerProcess::Log() const {
  QFile file(settings_.log_file);
  if (!file.open(QIODevice::ReadOnly)) return QString();
  return QString::fromUtf8(file.readAll());
}

QString ServerProcess::LastLogLine() const {
  const QStringList lines = Log().split(QLatin1Char('\n'), Qt::SkipEmptyParts);
  return lines.isEmpty() ? QString() : lines.last().trimmed();
}

}  // namespace quire_cli
