// The quire desktop application: the documents of an account in a window (Qt Widgets), with
// upload, download, delete and refresh. The library's callbacks run from Qt's event loop through
// kestrel::quire::QtEventLoopDriver.
//
//   desktop [--server https://HOST:PORT --cacert FILE] [--token-file FILE] [--server-binary PATH]
//
// Without --server it starts a local emulator (quire-server) of its own and signs in to it.
#include <QApplication>
#include <QCommandLineParser>
#include <QFile>
#include <QMessageBox>
#include <QUrl>

#include <kestrel/net/curl_transport.h>
#include <quire/qt/qt_event_loop_driver.h>

#include "local_emulator.h"
#include "main_window.h"

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  QApplication::setApplicationName(QStringLiteral("quire-desktop"));
  // Runs the library's callbacks from this application's event loop.
  kestrel::quire::QtEventLoopDriver driver;

  QCommandLineParser parser;
  parser.setApplicationDescription(QStringLiteral("The documents of a quire account."));
  parser.addHelpOption();
  const QCommandLineOption server({QStringLiteral("server")},
                                  QStringLiteral("The service's address (https://HOST:PORT)."),
                                  QStringLiteral("URL"));
  const QCommandLineOption cacert({QStringLiteral("cacert")},
                                  QStringLiteral("Also trust the certificates in this PEM file."),
                                  QStringLiteral("FILE"));
  const QCommandLineOption token_file({QStringLiteral("token-file")},
                                      QStringLiteral("Read the token from this file instead of "
                                                     "QUIRE_TOKEN."),
                                      QStringLiteral("FILE"));
  const QCommandLineOption server_binary(
      {QStringLiteral("server-binary")},
      QStringLiteral("The emulator to start when no --server is given."), QStringLiteral("PATH"));
  parser.addOptions({server, cacert, token_file, server_binary});
  parser.process(app);

  const auto fail = [](const QString& text) {
    QMessageBox::critical(nullptr, QStringLiteral("quire"), text);
    return 1;
  };
  desktop_example::LocalEmulator emulator;
  QString address;
  QString certificate = parser.value(cacert);
  QString token = qEnvironmentVariable("QUIRE_TOKEN");
  if (parser.isSet(token_file)) {
    QFile file(parser.value(token_file));
    if (!file.open(QIODevice::ReadOnly)) {
      return fail(QStringLiteral("Cannot read the token file %1.").arg(file.fileName()));
    }
    token = QString::fromUtf8(file.readAll()).trimmed();
  }
  if (parser.isSet(server)) {
    const QUrl url(parser.value(server));
    if (url.scheme() != QLatin1String("https") || url.host().isEmpty()) {
      return fail(
          QStringLiteral("--server takes an https address such as https://127.0.0.1:8443."));
    }
    address = url.host() + QLatin1Char(':') + QString::number(url.port(443));
  } else {
    QString error;
    if (!emulator.Start(parser.value(server_binary), &error)) return fail(error);
    address = emulator.address();
    certificate = emulator.certificate();
    token = desktop_example::LocalEmulator::Token();
  }
  if (token.isEmpty()) {
    return fail(QStringLiteral("No token: set QUIRE_TOKEN or give --token-file."));
  }

  // The library's endpoints are fixed: their hosts go to the chosen address, and the certificate
  // is still checked against them.
  kestrel::net::CurlTransportConfig config;
  const QString host = address.section(QLatin1Char(':'), 0, -2);
  const int port = address.section(QLatin1Char(':'), -1).toInt();
  for (const char* name : {"docs.quire.example", "api.quire.example"}) {
    config.host_mappings.push_back({QString::fromLatin1(name), host, port});
  }
  if (!certificate.isEmpty()) config.extra_ca_certificate_files.push_back(certificate);
  if (!kestrel::net::CurlTransport::Default()->Configure(config)) {
    return fail(QStringLiteral("Cannot use the certificate file %1.").arg(certificate));
  }

  desktop_example::MainWindow window(token, 8 * 1024 * 1024);
  window.show();
  return app.exec();
}
