// A quire-server (the local emulator of the service) started by the application when it is given
// no service address: a fresh data folder, a free loopback port, its own certificate.
#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

namespace desktop_example {

class LocalEmulator {
 public:
  LocalEmulator() = default;
  // Stops the emulator.
  ~LocalEmulator();
  LocalEmulator(const LocalEmulator&) = delete;
  LocalEmulator& operator=(const LocalEmulator&) = delete;

  // Starts `program` (empty: quire-server beside this program, else on PATH) and waits up to
  // 15 s for the line that gives its address. On failure returns false and sets `error`.
  bool Start(const QString& program, QString* error);

  QString address() const { return address_; }  // "127.0.0.1:PORT"
  QString certificate() const { return data_.filePath(QStringLiteral("data/tls/cert.pem")); }
  // The emulator's default account's token.
  static QString Token() { return QStringLiteral("quire-demo-token"); }

 private:
  QTemporaryDir data_;
  QProcess process_;
  QString address_;
};

}  // namespace desktop_example
