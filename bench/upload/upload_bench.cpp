// A 1 GiB resumable upload through Connection over the scripted transport, against a server that
// answers at once: throughput, peak resident memory against the data's size, and heap allocations
// per chunk (our code's, counted by the memory manager; Qt's and the standard library's own are not
// counted). Run with 8 MiB and 1 MiB chunks, the allocations per chunk must stay the same.
//
// Two servers: "instant" takes the body as given without touching it (the cost of the upload
// machinery alone); "reading" folds every byte it receives into a checksum, as a transport that
// writes the bytes to a socket would have to read them (a word sum, bound by memory bandwidth).
//
// Usage: upload_bench [size_in_MiB] [repetitions]
#include <QByteArray>
#include <QString>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/suite/bench_common.h"
#include "kestrel/base/main_loop.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/scripted_transport.h"
#include "kestrel/net/transport_registry.h"
#include "quire/connection/connection.h"
#include "quire/upload/connection_utils.h"

namespace {

using kestrel::net::HttpRequest;
using kestrel::net::ScriptedTransport;
using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses
using quire_bench::ResetPeakRss;
using quire_bench::StatusKiB;

constexpr long long kMiB = 1024 * 1024;

QString LineValue(const ScriptedTransport::Seen& seen, const char* name) {
  const QString key = QString::fromLatin1(name) + QStringLiteral(": ");
  for (const auto& header : seen.headers) {
    if (header.name.startsWith(key)) return header.name.mid(key.size());
  }
  return QString();
}

// Answers the POST with an upload address, and each PUT with 308 and the range held so far, or 201
// once the last byte is in.
class InstantServer {
 public:
  explicit InstantServer(bool read_bodies) : read_bodies_(read_bodies) {}

  ScriptedTransport::Answer Respond(const ScriptedTransport::Seen& seen) {
    ScriptedTransport::Answer answer;
    answer.has_body = false;
    if (seen.method == HttpRequest::kPost) {
      answer.code = kestrel::net::status::FromHttp(200);
      answer.headers = {QStringLiteral("Location: https://upload.quire.example/session/1")};
      return answer;
    }
    ++puts_;
    if (read_bodies_) {
      // Reads every byte at memory speed: a sum of 64-bit words, then the tail.
      std::uint64_t sum = checksum_;
      std::size_t i = 0;
      for (; i + 8 <= seen.body_size; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, seen.body_data + i, 8);
        sum += word;
      }
      for (; i < seen.body_size; ++i) sum += static_cast<unsigned char>(seen.body_data[i]);
      checksum_ = sum;
    }
    // "Content-Range: bytes F-L/T"
    const QString range = LineValue(seen, "Content-Range");
    const auto dash = range.indexOf(QLatin1Char('-'));
    const auto slash = range.indexOf(QLatin1Char('/'));
    const long long last = range.mid(dash + 1, slash - dash - 1).toLongLong();
    const long long total = range.mid(slash + 1).toLongLong();
    if (last >= total - 1) {
      answer.code = kestrel::net::status::FromHttp(201);
      answer.has_body = true;
      answer.body = "<entry/>";
    } else {
      answer.code = kestrel::net::status::FromHttp(308);
      answer.headers = {QStringLiteral("Range: bytes=0-%1").arg(last)};
    }
    return answer;
  }

  long long puts() const { return puts_; }
  std::uint64_t checksum() const { return checksum_; }

 private:
  bool read_bodies_;
  long long puts_ = 0;
  std::uint64_t checksum_ = 0;
};

struct Result {
  double seconds = 0;
  long long puts = 0;
  long long allocations = 0;
  long long peak_kib = 0;
  int status = -1;
};

Result RunUpload(const QByteArray& data, std::uint32_t chunk_size, bool read_bodies) {
  ScriptedTransport transport;
  transport.set_record_bodies(false);
  transport.set_record_requests(false);
  InstantServer server(read_bodies);
  transport.SetResponder(
      [&server](const ScriptedTransport::Seen& seen) { return server.Respond(seen); });
  kestrel::net::TransportRegistry::SetDefault(&transport);

  Result result;
  {
    Connection connection;
    connection.Init({QStringLiteral("Quire-Version: 3.0")});
    ConnectionUtils utils(chunk_size, &connection);
    auto* memory = kestrel::MemoryManager::Default();
    bool done = false;
    ResetPeakRss();
    const long long allocations_before = memory->total_allocations();
    const auto start = std::chrono::steady_clock::now();
    utils.ResumableUpload(
        QStringLiteral("https://docs.quire.example/upload/create-session/default"),
        QStringLiteral("<entry xmlns=\"http://www.w3.org/2005/Atom\"/>"),
        QStringLiteral("application/octet-stream"), data,
        [&](NetworkResponseInfo info, QByteArray) {
          result.status = info.status;
          done = true;
        });
    kestrel::MainLoop::Default()->RunUntil([&done] { return done; }, 600.0);
    const auto end = std::chrono::steady_clock::now();
    result.allocations = memory->total_allocations() - allocations_before;
    result.peak_kib = StatusKiB("VmHWM");
    result.seconds = std::chrono::duration<double>(end - start).count();
    result.puts = server.puts();
  }
  kestrel::MainLoop::Default()->RunUntilIdle();
  kestrel::net::TransportRegistry::SetDefault(nullptr);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const long long size_mib = argc > 1 ? std::atoll(argv[1]) : 1024;
  const int repetitions = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
  const long long size = size_mib * kMiB;

  const long long rss_before_kib = StatusKiB("VmRSS");
  QByteArray data(static_cast<decltype(data.size())>(size), Qt::Uninitialized);
  // Touch every page so that the data is resident before anything is measured.
  quire_bench::FillPseudoRandom(data.data(), size, 0);
  const long long data_kib = size / 1024;
  std::printf("resumable upload of %lld MiB through Connection over the scripted transport\n",
              size_mib);
  std::printf("process resident before the data: %.1f MiB; peak-RSS reset %s\n",
              static_cast<double>(rss_before_kib) / 1024.0,
              ResetPeakRss() ? "available" : "NOT available (peaks are process-wide)");
  std::printf("%-8s %-7s %6s %10s %10s %9s %10s %10s %10s %10s\n", "server", "chunk", "PUTs",
              "seconds", "GB/s", "us/PUT", "peak MiB", "data MiB", "peak-data", "allocs/PUT");

  bool ok = true;
  for (const bool read_bodies : {false, true}) {
    for (const long long chunk_mib : {8LL, 1LL}) {
      for (int r = 0; r < repetitions; ++r) {
        const Result result =
            RunUpload(data, static_cast<std::uint32_t>(chunk_mib * kMiB), read_bodies);
        ok = ok && result.status == 0;
        const double gbps = static_cast<double>(size) / result.seconds / 1e9;
        const double peak_mib = static_cast<double>(result.peak_kib) / 1024.0;
        const double data_mib = static_cast<double>(data_kib) / 1024.0;
        std::printf("%-8s %4lld MiB %6lld %10.4f %10.1f %9.2f %10.1f %10.1f %10.1f %10.2f%s\n",
                    read_bodies ? "reading" : "instant", chunk_mib, result.puts, result.seconds,
                    gbps, result.seconds * 1e6 / static_cast<double>(result.puts), peak_mib,
                    data_mib, peak_mib - data_mib,
                    static_cast<double>(result.allocations) / static_cast<double>(result.puts),
                    result.status == 0 ? "" : "  (upload FAILED)");
      }
    }
  }
  return ok ? 0 : 1;
}
