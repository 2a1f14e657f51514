// Issuing and completing requests through Connection over the scripted transport: requests per
// second, and heap allocations per request taken from the memory manager's counters (our code's
// allocations; Qt's and the standard library's own are not counted).
#include <benchmark/benchmark.h>

#include <vector>

#include "kestrel/base/main_loop.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/scripted_transport.h"
#include "kestrel/net/transport_registry.h"
#include "quire/connection/connection.h"

namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses

void RunRequests(benchmark::State& state, bool collect_headers, int batch) {
  kestrel::net::ScriptedTransport transport;
  transport.set_record_requests(false);
  const QByteArray answer_body(static_cast<int>(state.range(0)), 'a');
  transport.SetResponder([&](const kestrel::net::ScriptedTransport::Seen&) {
    kestrel::net::ScriptedTransport::Answer answer;
    answer.body = answer_body;
    answer.headers = {QStringLiteral("Content-Type: application/atom+xml"),
                      QStringLiteral("Range: bytes=0-100")};
    return answer;
  });
  kestrel::net::TransportRegistry::SetDefault(&transport);
  {
    Connection connection;
    connection.Init({QStringLiteral("Quire-Version: 3.0")});
    const std::vector<QString> auth = {QStringLiteral("Authorization: Bearer token")};
    ConnectionParams params{0,
                            QStringLiteral("https://docs.quire.example/feeds/default/private/full"),
                            nullptr,
                            &auth,
                            collect_headers,
                            0};
    long long completed = 0;
    auto* mm = kestrel::MemoryManager::Default();
    const long long allocations_before = mm->total_allocations();
    long long issued = 0;
    for (auto _ : state) {
      for (int i = 0; i < batch; ++i) {
        connection.Request(params, [&completed](NetworkResponseInfo info, QByteArray body) {
          benchmark::DoNotOptimize(body.constData());
          completed += info.status == 0 ? 1 : 0;
        });
      }
      issued += batch;
      kestrel::MainLoop::Default()->RunUntilIdle();
    }
    const long long allocations = mm->total_allocations() - allocations_before;
    state.counters["requests/s"] =
        benchmark::Counter(static_cast<double>(issued), benchmark::Counter::kIsRate);
    state.counters["allocs/request"] =
        static_cast<double>(allocations) / static_cast<double>(issued);
    if (completed != issued) state.SkipWithError("not every request completed successfully");
  }
  kestrel::net::TransportRegistry::SetDefault(nullptr);
}

void BM_RequestNoHeaders(benchmark::State& state) { RunRequests(state, false, 64); }
void BM_RequestCollectHeaders(benchmark::State& state) { RunRequests(state, true, 64); }

BENCHMARK(BM_RequestNoHeaders)->Arg(0)->Arg(4096);
BENCHMARK(BM_RequestCollectHeaders)->Arg(0)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
