#include "local_emulator.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QStandardPaths>

namespace desktop_example {

LocalEmulator::~LocalEmulator() {
  if (process_.state() != QProcess::NotRunning) {
    process_.terminate();
    if (!process_.waitForFinished(5000)) process_.kill();
    process_.waitForFinished(5000);
  }
}

bool LocalEmulator::Start(const QString& program, QString* error) {
  QString binary = program;
  if (binary.isEmpty()) {
    const QString beside =
        QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("quire-server"));
    binary = QFileInfo(beside).isExecutable()
                 ? beside
                 : QStandardPaths::findExecutable(QStringLiteral("quire-server"));
  }
  if (binary.isEmpty()) {
    *error = QStringLiteral(
        "No quire-server was found beside this program or on PATH; install "
        "it, or give the service's address with --server.");
    return false;
  }
  if (!data_.isValid()) {
    *error =
        QStringLiteral("Cannot make a data folder for the emulator: %1.").arg(data_.errorString());
    return false;
  }
  process_.setProcessChannelMode(QProcess::SeparateChannels);
  process_.setStandardErrorFile(data_.filePath(QStringLiteral("server.log")));
  process_.start(binary, {QStringLiteral("--data"), data_.filePath(QStringLiteral("data")),
                          QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0")});
  if (!process_.waitForStarted(5000)) {
    *error = QStringLiteral("Cannot start %1: %2.").arg(binary, process_.errorString());
    return false;
  }
  // "quire-server listening on https://127.0.0.1:PORT"
  QElapsedTimer clock;
  clock.start();
  QByteArray output;
  while (!output.contains('\n') && clock.elapsed() < 15000) {
    if (!process_.waitForReadyRead(500) && process_.state() == QProcess::NotRunning) break;
    output += process_.readAllStandardOutput();
  }
  const QString line = QString::fromLocal8Bit(output).section(QLatin1Char('\n'), 0, 0).trimmed();
  const int at = line.indexOf(QLatin1String("https://"));
  if (at < 0) {
    *error = QStringLiteral("The emulator %1 did not start: %2").arg(binary, line);
    return false;
  }
  address_ = line.mid(at + 8);
  return true;
}

}  // namespace desktop_example
