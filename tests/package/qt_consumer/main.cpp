// Uses the installed Qt integration: a request over the scripted transport whose callback runs
// from QCoreApplication::exec(), woken by the main loop's hook.
#include <kestrel/base/main_loop.h>
#include <kestrel/net/scripted_transport.h>
#include <kestrel/net/transport_registry.h>
#include <quire/qt/qt_event_loop_driver.h>
#include <quire/quire.h>

#include <QCoreApplication>
#include <QTimer>
#include <cstdio>

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  kestrel::quire::QtEventLoopDriver driver;
  kestrel::net::ScriptedTransport transport;
  transport.Enqueue(kestrel::net::status::FromHttp(200), QByteArray("hello"));
  kestrel::net::TransportRegistry::SetDefault(&transport);
  int calls = 0;
  {
    kestrel::quire::Connection connection;
    connection.Init({QStringLiteral("Quire-Version: 3.0")});
    kestrel::quire::ConnectionParams params{
        0, QString::fromLatin1(kestrel::quire::DocsFeedUrl), nullptr, nullptr, false, 0};
    connection.Request(params, [&](kestrel::quire::NetworkResponseInfo info, QByteArray body) {
      calls += info.status == 0 && body == "hello" ? 1 : 100;
      QCoreApplication::quit();
    });
    QTimer::singleShot(10000, &app, &QCoreApplication::quit);
    app.exec();
  }
  kestrel::net::TransportRegistry::SetDefault(nullptr);
  if (calls != 1 || driver.wake_ups() < 1) {
    std::fprintf(stderr, "qt_consumer: the callback did not run from Qt's loop (calls=%d)\n",
                 calls);
    return 1;
  }
  std::printf("qt_consumer: ok\n");
  return 0;
}
