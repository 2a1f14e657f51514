// A host on Qt's event loop (QtEventLoopDriver) beside one on the main loop's RunUntil(), in the
// same run: wake-ups of an idle host, the latency from a completion posted on another thread to
// its callback, and the throughput of a resumable upload to the emulator. Rows for bench_report.
//
//   qt_loop_bench --service https://127.0.0.1:PORT --ca FILE [--out FILE] [--rounds N]
//                 [--size MiB] [--chunk KiB] [--idle SECONDS]
#include <dirent.h>
#include <unistd.h>

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <QUrl>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/suite/bench_common.h"
#include "bench/suite/bench_service.h"
#include "kestrel/base/main_loop.h"
#include "kestrel/net/curl_transport.h"
#include "quire/connection/connection.h"
#include "quire/model/docs_entry.h"
#include "quire/qt/qt_event_loop_driver.h"
#include "quire/services/docs_service.h"
#include "quire/upload/connection_utils.h"

namespace {

using kestrel::MainLoop;
using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses
using quire_bench::Clock;
using quire_bench::Median;
using quire_bench::SecondsSince;

struct Options : quire_bench::ServiceOptions {
  long long size_mib = 64;
  long long chunk_kib = 256;
  double idle_seconds = 3;
  std::string address;
  int port = 0;
};

// Voluntary context switches of every thread of the process: each one is a sleep that ended, so
// their count over a quiet interval is how often the process woke.
long long ThreadSwitches(const std::string& task) {
  std::ifstream in("/proc/self/task/" + task + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return std::atoll(line.c_str() + 24);
  }
  return 0;
}

long long MainThreadSwitches() { return ThreadSwitches(std::to_string(::getpid())); }

// Runs Qt's event loop until `done()` holds (checked before the loop sleeps) or `seconds` pass.
bool RunQt(const std::function<bool()>& done, double seconds) {
  QEventLoop loop;
  QTimer deadline;
  deadline.setSingleShot(true);
  QObject::connect(&deadline, &QTimer::timeout, &loop, &QEventLoop::quit);
  deadline.start(static_cast<int>(seconds * 1000));
  const QMetaObject::Connection check = QObject::connect(
      QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock, &loop, [&] {
        if (done()) loop.quit();
      });
  if (!done()) loop.exec();
  QObject::disconnect(check);
  return done();
}

// How a host waits for its callbacks.
enum class Host { kQt, kRunUntil };

bool Wait(Host host, const std::function<bool()>& done, double seconds) {
  if (host == Host::kQt) return RunQt(done, seconds);
  return MainLoop::Default()->RunUntil(done, seconds);
}

class Bench {
 public:
  explicit Bench(const Options& options) : options_(options) {}

  bool SetUp() {
    if (!kestrel::net::CurlTransport::Default()->Configure(
            quire_bench::EmulatorTransportConfig(options_.address, options_.port, options_.ca))) {
      return false;
    }
    service_ = new DocsService();
    service_->SetOAuth2AuthToken(QString::fromStdString(options_.token));
    upload_connection_ = quire_bench::NewAuthorizedConnection(options_.token);
    return true;
  }

  void TearDown() {
    delete upload_connection_;
    delete service_;
    MainLoop::Default()->RunUntilIdle();
  }

  // Wake-ups per second of the main thread while nothing is outstanding, after a request: with
  // the driver, and with the polling timer of 5 ms that hosts used before it.
  bool Idle() {
    std::vector<double> driver_rates, polling_rates, process_rates;
    for (int round = 0; round < options_.rounds; ++round) {
      if (!Request(Host::kQt)) return false;
      RunQt([] { return false; }, 0.2);  // let the last completion's jobs settle
      {
        const long long before = MainThreadSwitches();
        const long long process_before = ProcessSwitches();
        const Clock::time_point start = Clock::now();
        RunQt([] { return false; }, options_.idle_seconds);
        const double seconds = SecondsSince(start);
        // The deadline timer that ends the measurement is one wake-up of its own.
        driver_rates.push_back(std::max(0LL, MainThreadSwitches() - before - 1) / seconds);
        process_rates.push_back(std::max(0LL, ProcessSwitches() - process_before - 1) / seconds);
      }
      {
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, [] { MainLoop::Default()->RunUntilIdle(); });
        poll.start(5);
        const long long before = MainThreadSwitches();
        const Clock::time_point start = Clock::now();
        RunQt([] { return false; }, std::min(1.0, options_.idle_seconds));
        polling_rates.push_back((MainThreadSwitches() - before - 1) / SecondsSince(start));
      }
    }
    quire_bench::Row row;
    row.id = "qtloop.idle.wakeups.0";
    row.title = "wake-ups of an idle host on Qt's loop (main thread)";
    row.unit = "wake-ups/s";
    row.ours_name = "QtEventLoopDriver";
    row.ours = driver_rates;
    row.goal = 0;
    row.lower_better = true;
    row.note = quire_bench::Printf(
        "a host polling RunUntilIdle() from a 5 ms QTimer: %.0f/s; the whole process "
        "with the driver: %.1f/s",
        Median(polling_rates), Median(process_rates));
    // A goal of 0 wake-ups: the report's "at most" test.
    return quire_bench::AppendRow(options_.out, row);
  }

  // Latency from a job posted on another thread (as the transport posts a completion) to its run,
  // with the main thread asleep when it comes.
  bool Latency() {
    const int kPosts = 300;
    std::vector<double> qt, run_until;
    for (int round = 0; round < options_.rounds; ++round) {
      for (Host host : {Host::kQt, Host::kRunUntil}) {
        std::vector<double> samples;
        if (!Posts(host, kPosts, &samples)) return false;
        (host == Host::kQt ? qt : run_until).push_back(Median(samples) * 1e6);
      }
    }
    for (Host host : {Host::kQt, Host::kRunUntil}) {
      quire_bench::Row row;
      const bool on_qt = host == Host::kQt;
      row.id = on_qt ? "qtloop.latency.qt.0" : "qtloop.latency.rununtil.0";
      row.title = on_qt ? "completion to callback, median, host on Qt's loop"
                        : "completion to callback, median, host on RunUntil()";
      row.unit = "µs";
      row.ours_name = on_qt ? "QtEventLoopDriver" : "MainLoop::RunUntil";
      row.ours = on_qt ? qt : run_until;
      row.goal = 1000;
      row.lower_better = true;
      row.note =
          "a job posted from another thread to MainLoop::Default() while the main thread "
          "sleeps, 300 per round at random gaps of 0.5 to 2 ms";
      if (!quire_bench::AppendRow(options_.out, row)) return false;
    }
    return true;
  }

  // Upload throughput on Qt's loop and on RunUntil(), alternating.
  bool Upload() {
    const long long bytes = options_.size_mib * 1024 * 1024;
    QByteArray data(static_cast<int>(bytes), Qt::Uninitialized);
    quire_bench::FillPseudoRandom(data.data(), bytes, 15);
    std::vector<double> qt, run_until, qt_cpu, run_until_cpu;
    for (int round = 0; round < options_.rounds; ++round) {
      for (Host host : {round % 2 == 0 ? Host::kQt : Host::kRunUntil,
                        round % 2 == 0 ? Host::kRunUntil : Host::kQt}) {
        double cpu = 0;
        const double seconds = OneUpload(host, data, &cpu);
        if (seconds < 0) return false;
        const double mib_s = options_.size_mib / seconds;
        (host == Host::kQt ? qt : run_until).push_back(mib_s);
        (host == Host::kQt ? qt_cpu : run_until_cpu).push_back(cpu * 1024 / options_.size_mib);
      }
    }
    quire_bench::Row row;
    row.id = "qtloop.upload.size." + std::to_string(options_.size_mib);
    row.title = "upload of " + std::to_string(options_.size_mib) + " MiB in " +
                std::to_string(options_.chunk_kib) + " KiB chunks, host on Qt's loop";
    row.unit = "MiB/s";
    row.ours_name = "QtEventLoopDriver";
    row.peer_name = "MainLoop::RunUntil";
    row.ours = qt;
    row.peer = run_until;
    row.goal = 0.98;
    row.note = "every chunk is a step issued from the completion of the one before";
    row.cpu_unit = "CPU s/GiB";
    row.ours_cpu = qt_cpu;
    row.peer_cpu = run_until_cpu;
    return quire_bench::AppendRow(options_.out, row);
  }

 private:
  static long long ProcessSwitches() {
    long long total = 0;
    DIR* dir = ::opendir("/proc/self/task");
    if (dir == nullptr) return 0;
    while (const dirent* entry = ::readdir(dir)) {
      if (entry->d_name[0] != '.') total += ThreadSwitches(entry->d_name);
    }
    ::closedir(dir);
    return total;
  }

  bool Request(Host host) {
    bool done = false;
    bool ok = false;
    service_->GetFeed([&](NetworkResponseInfo info, const kestrel::quire::DocsFeed&) {
      ok = info.status == 0;
      done = true;
    });
    if (!Wait(
            host, [&] { return done; }, 60) ||
        !ok) {
      std::fprintf(stderr, "qt_loop_bench: listing the documents failed\n");
      return false;
    }
    return true;
  }

  bool Posts(Host host, int count, std::vector<double>* samples) {
    std::atomic<int> ran{0};
    std::vector<Clock::time_point> posted(count), run(count);
    std::thread poster([&] {
      std::mt19937 random(7);
      std::uniform_int_distribution<int> gap_us(500, 2000);
      for (int i = 0; i < count; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(gap_us(random)));
        posted[i] = Clock::now();
        MainLoop::Default()->Post([&, i] {
          run[i] = Clock::now();
          ran.fetch_add(1, std::memory_order_release);
        });
      }
    });
    const bool finished = Wait(
        host, [&] { return ran.load(std::memory_order_acquire) == count; }, 60);
    poster.join();
    if (!finished) return false;
    for (int i = 0; i < count; ++i) {
      samples->push_back(std::chrono::duration<double>(run[i] - posted[i]).count());
    }
    return true;
  }

  double OneUpload(Host host, const QByteArray& data, double* cpu) {
    ConnectionUtils utils(static_cast<std::uint32_t>(options_.chunk_kib * 1024),
                          upload_connection_);
    bool done = false;
    bool ok = false;
    const double cpu_before = quire_bench::ProcessCpuSeconds();
    const Clock::time_point start = Clock::now();
    utils.ResumableUpload(
        QStringLiteral("https://docs.quire.example/upload/feeds/default/private/full"),
        QStringLiteral("<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>qt bench</title>"
                       "</entry>"),
        QStringLiteral("application/octet-stream"), data,
        [&](NetworkResponseInfo info, QByteArray) {
          ok = info.status == 0;
          done = true;
        });
    const bool finished = Wait(
        host, [&] { return done; }, 600);
    const double seconds = SecondsSince(start);
    *cpu = quire_bench::ProcessCpuSeconds() - cpu_before;
    if (!finished || !ok) {
      std::fprintf(stderr, "qt_loop_bench: an upload failed\n");
      return -1;
    }
    return seconds;
  }

  const Options& options_;
  DocsService* service_ = nullptr;
  Connection* upload_connection_ = nullptr;
};

bool ParseService(Options* options) {
  std::string scheme;
  return quire_bench::SplitServiceUrl(options->service, &scheme, &options->address,
                                      &options->port) &&
         scheme == "https";
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  quire_bench::CommandLine command_line;
  quire_bench::AddServiceOptions(&options, &command_line);
  command_line.Number("--size", &options.size_mib, 1LL);
  command_line.Number("--chunk", &options.chunk_kib, 1LL);
  command_line.Number("--idle", &options.idle_seconds, 0.5);
  if (!command_line.Parse(argc, argv,
                          "--service https://ADDRESS:PORT --ca FILE [--token T] [--out FILE] "
                          "[--rounds N] [--size MiB] [--chunk KiB] [--idle SECONDS]")) {
    return 2;
  }
  if (!ParseService(&options)) {
    std::fprintf(stderr, "qt_loop_bench: --service must be https://ADDRESS:PORT\n");
    return 2;
  }
  int qt_argc = 1;
  char name[] = "qt_loop_bench";
  char* qt_argv[] = {name, nullptr};
  QCoreApplication app(qt_argc, qt_argv);
  // One driver for the whole run: while the RunUntil() host measures, Qt's loop does not run, so
  // the driver's queued wake-ups wait and cost nothing there.
  QtEventLoopDriver driver;

  Bench bench(options);
  if (!bench.SetUp()) {
    std::fprintf(stderr, "qt_loop_bench: the transport refused the configuration\n");
    return 1;
  }
  std::printf("qt_loop_bench: %s, %d rounds\n", options.service.c_str(), options.rounds);
  const bool ok = bench.Idle() && bench.Latency() && bench.Upload();
  bench.TearDown();
  return ok ? 0 : 1;
}
