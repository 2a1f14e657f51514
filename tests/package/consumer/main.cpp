// Uses the installed library through its umbrella header: one request over the scripted transport.
#include <quire/quire.h>

#include <kestrel/base/main_loop.h>
#include <kestrel/net/scripted_transport.h>
#include <kestrel/net/transport_registry.h>

#include <cstdio>

int main() {
  kestrel::net::ScriptedTransport transport;
  transport.Enqueue(kestrel::net::status::FromHttp(200), QByteArray("hello"));
  kestrel::net::TransportRegistry::SetDefault(&transport);
  int calls = 0;
  QByteArray seen;
  {
    kestrel::quire::Connection connection;
    connection.Init({QStringLiteral("Quire-Version: 3.0")});
    kestrel::quire::ConnectionParams params{
        0, QString::fromLatin1(kestrel::quire::DocsFeedUrl), nullptr, nullptr, false, 0};
    connection.Request(params, [&](kestrel::quire::NetworkResponseInfo info, QByteArray body) {
      calls += info.status == 0 ? 1 : 100;
      seen = QByteArray(body.constData(), body.size());
    });
    kestrel::MainLoop::Default()->RunUntil([&] { return calls > 0; }, 5.0);
  }
  kestrel::net::TransportRegistry::SetDefault(nullptr);
  if (calls != 1 || seen != "hello") {
    std::fprintf(stderr, "consumer: unexpected result (calls=%d)\n", calls);
    return 1;
  }
  std::puts("consumer: ok");
  return 0;
}
