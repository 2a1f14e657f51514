// ResumableUploader under faults and with large files, against the emulator:
//   faults  the same upload (8 MiB chunks) to an emulator that answers 503 with Retry-After: 0 to a
//           share of requests, beside the same upload to a fault-free emulator, in alternating
//           rounds: the throughput under faults as a ratio of the fault-free one;
//   memory  peak resident memory of one upload of a large sparse file (the uploader reads chunk by
//           chunk), against the chunk size (run it in a process of its own, so that nothing else
//           raised the peak).
//
// Usage: resilience_bench --service URL --ca FILE [--faulty URL --faulty-ca FILE] [--token T]
//                         --work DIR [--out FILE] [--rounds N] [--size MiB] [--memory-size MiB]
//                         [--chunk KiB] [--fail-percent P] [--only faults,memory]
//   URL is where the fault-free emulator listens (https://127.0.0.1:PORT); the faulty one is
//   started by the caller with --fault-fail-percent P --fault-retry-after 0 (P is only quoted).
#include <fcntl.h>
#include <unistd.h>

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bench/suite/bench_common.h"
#include "bench/suite/bench_service.h"
#include "kestrel/base/main_loop.h"
#include "kestrel/net/curl_transport.h"
#include "kestrel/net/transport_registry.h"
#include "quire/connection/connection.h"
#include "quire/model/docs_entry.h"
#include "quire/services/docs_service.h"
#include "quire/services/endpoints.h"
#include "quire/upload/resumable_uploader.h"

namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses
using quire_bench::Clock;
using quire_bench::Row;
using quire_bench::SecondsSince;

constexpr long long kMiB = 1024 * 1024;

struct Options : quire_bench::SuiteOptions {
  std::string faulty;
  std::string faulty_ca;
  long long size_mib = 256;
  long long memory_size_mib = 4096;
  long long chunk_kib = 8192;
  std::string fail_percent = "5";
};

// "https://ADDRESS:PORT" into its parts; false when it is not of that form.
bool ParseUrl(const std::string& url, std::string* address, int* port) {
  std::string scheme;
  return quire_bench::SplitServiceUrl(url, &scheme, address, port) && scheme == "https";
}

bool Wait(const bool& done) {
  return kestrel::MainLoop::Default()->RunUntil([&done] { return done; }, 1800.0);
}

// One emulator as a host sees it: a transport of its own that maps the service's names to it, a
// DocsService and an upload connection over that transport, and one document to upload to.
class Target {
 public:
  bool SetUp(const std::string& url, const std::string& ca, const std::string& token) {
    std::string address;
    int port = 0;
    if (!ParseUrl(url, &address, &port)) {
      std::fprintf(stderr, "resilience_bench: %s is not https://ADDRESS:PORT\n", url.c_str());
      return false;
    }
    transport_ = new kestrel::net::CurlTransport();
    if (!transport_->Configure(quire_bench::EmulatorTransportConfig(address, port, ca))) {
      std::fprintf(stderr, "resilience_bench: the transport refused the configuration\n");
      return false;
    }
    // Connections take the registry's transport when they are made.
    kestrel::net::TransportRegistry::SetDefault(transport_);
    service_ = new DocsService();
    connection_ = quire_bench::NewAuthorizedConnection(token);
    kestrel::net::TransportRegistry::SetDefault(nullptr);
    service_->SetOAuth2AuthToken(QString::fromStdString(token));
    return CreateDocument();
  }

  void TearDown() {
    delete connection_;
    delete service_;
    kestrel::MainLoop::Default()->RunUntilIdle();
    delete transport_;
  }

  // Replaces the document's content with the file at `path`; seconds, or negative on failure.
  // `retries` receives the uploader's retries.
  double Upload(const QString& path, long long chunk_bytes, int* retries) {
    RetryPolicy policy;
    policy.set_max_attempts(20);
    ResumableUploader uploader(connection_, static_cast<std::uint32_t>(chunk_bytes), policy);
    bool done = false;
    int status = -1;
    const Clock::time_point start = Clock::now();
    uploader.Start(edit_media_, QString(), QStringLiteral("application/octet-stream"), path,
                   [&](NetworkResponseInfo info, QByteArray) {
                     status = info.status;
                     done = true;
                   });
    if (!Wait(done) || status != 0) {
      std::fprintf(stderr, "resilience_bench: the upload failed (status %d, error %d)\n", status,
                   static_cast<int>(uploader.error()));
      return -1;
    }
    if (retries != nullptr) *retries = uploader.progress().retries;
    return SecondsSince(start);
  }

 private:
  bool CreateDocument() {
    bool done = false;
    bool ok = false;
    service_->CreateEntryWithContent(
        QUrl(QString::fromLatin1(kestrel::quire::DocsFeedUrl)), QStringLiteral("bench"),
        QStringLiteral("application/octet-stream"), QByteArray(4096, 'r'),
        [&](NetworkResponseInfo info, const DocsEntry& entry) {
          ok = info.status == 0 && !entry.resumable_edit_media_link.isEmpty();
          edit_media_ = QString::fromLatin1(entry.resumable_edit_media_link.toEncoded());
          done = true;
        });
    if (!Wait(done) || !ok) {
      std::fprintf(stderr, "resilience_bench: could not create a document\n");
      return false;
    }
    return true;
  }

  kestrel::net::CurlTransport* transport_ = nullptr;
  DocsService* service_ = nullptr;
  Connection* connection_ = nullptr;
  QString edit_media_;
};

bool Faults(const Options& options) {
  Target clean;
  Target faulty;
  if (!clean.SetUp(options.service, options.ca, options.token) ||
      !faulty.SetUp(options.faulty, options.faulty_ca, options.token)) {
    return false;
  }
  const long long size = options.size_mib * kMiB;
  const std::string path =
      options.work + "/resilience-" + std::to_string(options.size_mib) + ".bin";
  {
    std::vector<char> data(static_cast<std::size_t>(size));
    quire_bench::FillPseudoRandom(data.data(), size, 11);
    if (!quire_bench::WriteFile(path, data.data(), size)) return false;
  }
  const QString file = QString::fromStdString(path);
  const long long chunk = options.chunk_kib * 1024;
  std::vector<double> ours;
  std::vector<double> peer;
  int retries_total = 0;
  bool ok = true;
  for (int round = 0; round < options.rounds && ok; ++round) {
    // Alternate which goes first, so that neither always meets a warmer machine.
    for (int turn = 0; turn < 2 && ok; ++turn) {
      const bool faulty_turn = (turn == 0) == (round % 2 == 0);
      int retries = 0;
      const double seconds =
          faulty_turn ? faulty.Upload(file, chunk, &retries) : clean.Upload(file, chunk, nullptr);
      ok = seconds > 0;
      if (!ok) break;
      const double rate = static_cast<double>(options.size_mib) / seconds;
      (faulty_turn ? ours : peer).push_back(rate);
      if (faulty_turn) retries_total += retries;
      std::printf("  round %d: %s %.1f MiB/s%s\n", round + 1,
                  faulty_turn ? "under faults" : "fault-free", rate,
                  faulty_turn ? (" (" + std::to_string(retries) + " retries)").c_str() : "");
    }
  }
  ::unlink(path.c_str());
  faulty.TearDown();
  clean.TearDown();
  if (!ok) return false;
  Row row;
  row.id = "upload.https.faults." + std::to_string(options.size_mib);
  row.title = "upload " + std::to_string(options.size_mib) + " MiB in " +
              std::to_string(options.chunk_kib / 1024) + " MiB chunks with " +
              options.fail_percent + "% of requests failing (503, Retry-After: 0), https";
  row.unit = "MiB/s";
  row.ours_name = "ResumableUploader under faults";
  row.peer_name = "the same, fault-free";
  row.ours = ours;
  row.peer = peer;
  row.goal = 0.85;
  row.note = std::to_string(retries_total) + " retries in " + std::to_string(ours.size()) +
             " uploads under faults";
  return quire_bench::AppendRow(options.out, row);
}

bool Memory(const Options& options) {
  Target clean;
  if (!clean.SetUp(options.service, options.ca, options.token)) return false;
  const long long size = options.memory_size_mib * kMiB;
  const std::string path =
      options.work + "/resilience-sparse-" + std::to_string(options.memory_size_mib) + ".bin";
  {
    // A sparse file: it costs no disk or memory until read, so only the uploader's own buffers
    // show in the peak.
    const int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
    const bool made =
        fd >= 0 && ::ftruncate(fd, size) == 0 && ::pwrite(fd, "end", 3, size - 3) == 3;
    if (fd >= 0) ::close(fd);
    if (!made) {
      std::fprintf(stderr, "resilience_bench: cannot make %s\n", path.c_str());
      return false;
    }
  }
  const long long chunk = options.chunk_kib * 1024;
  std::vector<double> overhead;
  kestrel::MainLoop::Default()->RunUntilIdle();
  const bool reset = quire_bench::ResetPeakRss();
  const long long before_kib = quire_bench::StatusKiB("VmRSS");
  const double seconds = clean.Upload(QString::fromStdString(path), chunk, nullptr);
  const long long peak_kib = quire_bench::StatusKiB("VmHWM");
  ::unlink(path.c_str());
  clean.TearDown();
  if (seconds < 0) return false;
  std::printf("  %lld MiB in %.1f s: resident before %.1f MiB, peak %.1f MiB%s\n",
              options.memory_size_mib, seconds, before_kib / 1024.0, peak_kib / 1024.0,
              reset ? "" : " (peak not resettable: process-wide)");
  Row row;
  row.id = "memory.https.uploader." + std::to_string(options.memory_size_mib);
  row.title = "peak resident memory of a " + std::to_string(options.memory_size_mib) +
              " MiB file upload (ResumableUploader, " + std::to_string(options.chunk_kib / 1024) +
              " MiB chunks, https) above the start";
  row.unit = "MiB";
  row.ours_name = "whole process";
  row.ours = {(peak_kib - before_kib) / 1024.0};
  // Two chunks in memory at most, and 16 MiB for everything else.
  row.goal = 2.0 * static_cast<double>(chunk) / kMiB + 16;
  row.lower_better = true;
  row.note = "the peak of the whole process above its size before the upload";
  return quire_bench::AppendRow(options.out, row);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  quire_bench::CommandLine command_line;
  quire_bench::AddSuiteOptions(&options, &command_line);
  command_line.Text("--faulty", &options.faulty);
  command_line.Text("--faulty-ca", &options.faulty_ca);
  command_line.Number("--size", &options.size_mib, 1);
  command_line.Number("--memory-size", &options.memory_size_mib, 1);
  command_line.Number("--chunk", &options.chunk_kib, 1);
  command_line.Text("--fail-percent", &options.fail_percent);
  if (!command_line.Parse(argc, argv,
                          "--service URL --ca FILE [--faulty URL --faulty-ca FILE] [--token T] "
                          "--work DIR [--out FILE] [--rounds N] [--size MiB] [--memory-size MiB] "
                          "[--chunk KiB] [--fail-percent P] [--only faults,memory]")) {
    return 2;
  }
  bool ok = true;
  if (options.Wants("faults")) {
    if (options.faulty.empty()) {
      std::fprintf(stderr, "resilience_bench: faults needs --faulty URL --faulty-ca FILE\n");
      return 2;
    }
    ok = Faults(options);
  }
  if (ok && options.Wants("memory")) ok = Memory(options);
  return ok ? 0 : 1;
}
