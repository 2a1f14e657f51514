// The library's transfers against the emulator, each beside its peer in the same run, in
// alternating rounds:
//   upload    resumable upload (ConnectionUtils + Connection + the HTTPS transport) of the
//             content of one document, against `curl -T` of the same bytes, from a file in memory,
//             to the same document's edit address; at several sizes (8 MiB chunks) and, at the
//             largest size, at several chunk sizes;
//   download  DocsService::GetEntryContent of the same documents against `curl -o /dev/null`;
//   small     small GETs one after another over keep-alive (GetEntryContent of a small document)
//             against a plain libcurl multi loop on one thread, with heap allocations per request
//             counted by the memory manager;
//   memory    peak resident memory of one resumable upload of the largest size, against the size
//             of the data (run it in a process of its own, so that nothing else raised the peak).
// curl's times leave out its connection set-up (time_pretransfer), because ours runs on a
// connection that is already open.
//
// Usage: transfer_bench --service URL --ca FILE [--token T] --work DIR [--out FILE] [--rounds N]
//                       [--sizes MiB,...] [--chunks KiB,...] [--small N] [--only WHAT,...]
//   URL is where the emulator listens (https://127.0.0.1:PORT or http://...); WHAT is upload,
//   download, small or memory.
#include <curl/curl.h>
#include <unistd.h>

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/suite/bench_common.h"
#include "bench/suite/bench_service.h"
#include "kestrel/base/main_loop.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/curl_transport.h"
#include "quire/connection/connection.h"
#include "quire/services/docs_service.h"
#include "quire/upload/connection_utils.h"

namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses
using quire_bench::Clock;
using quire_bench::CurlTimes;
using quire_bench::Row;
using quire_bench::RunCurl;
using quire_bench::SecondsSince;

constexpr long long kMiB = 1024 * 1024;
constexpr long long kDefaultChunkKiB = 8 * 1024;

struct Options : quire_bench::SuiteOptions {
  std::vector<long long> sizes_mib = {1, 4, 16, 64, 256, 1024};
  std::vector<long long> chunks_kib = {256, 1024, 8192, 32768};
  int small = 10000;

  // From `service`.
  std::string scheme;
  std::string address;
  int port = 0;

  std::string Host() const { return "docs.quire.example"; }
  int ServicePort() const { return scheme == "https" ? 443 : 80; }
  // curl's --connect-to for the service host.
  std::string ConnectTo() const {
    return Host() + ":" + std::to_string(ServicePort()) + ":" + address + ":" +
           std::to_string(port);
  }
};

std::vector<long long> Numbers(const std::string& text) {
  std::vector<long long> numbers;
  for (const std::string& part : quire_bench::Split(text, ',')) {
    if (!part.empty()) numbers.push_back(std::atoll(part.c_str()));
  }
  return numbers;
}

std::string SizeLabel(long long kib) {
  if (kib % 1024 == 0) return std::to_string(kib / 1024) + " MiB";
  return std::to_string(kib) + " KiB";
}

// Runs the main loop until `done` is set; false when that took longer than ten minutes.
bool Wait(const bool& done) {
  return kestrel::MainLoop::Default()->RunUntil([&done] { return done; }, 600.0);
}

// One timed transfer: wall-clock seconds (negative: it failed) and the client's CPU seconds.
struct Sample {
  double seconds = -1;
  double cpu = 0;
  bool ok() const { return seconds >= 0; }
};

// The links of one document on the emulator.
struct Document {
  QUrl content_src;
  QUrl edit_link;
  QUrl resumable_edit_media_link;
};

class Bench {
 public:
  explicit Bench(const Options& options) : options_(options) {}

  bool SetUp();
  void TearDown();

  bool Create(const QByteArray& data, Document* document);
  bool Delete(const Document& document);
  bool SizeRounds(long long size_mib);
  bool Small();
  bool Memory();

 private:
  std::vector<std::string> CurlCommon() const {
    std::vector<std::string> args = {"--connect-to", options_.ConnectTo(),
                                     "-H",           "Quire-Version: 3.0",
                                     "-H",           "Authorization: Bearer " + options_.token};
    if (options_.scheme == "https") args.insert(args.end(), {"--cacert", options_.ca});
    return args;
  }
  // Seconds from the call to the callback, or negative on failure.
  Sample OurUpload(const QByteArray& data, const Document& document, long long chunk_bytes,
                   long long* allocations, long long* puts);
  Sample OurDownload(const Document& document, long long expected, const QByteArray* compare);
  Sample CurlUpload(const std::string& file, const Document& document);
  Sample CurlDownload(const Document& document);
  Sample OurChain(const Document& document, int count, long long* allocations);
  std::string Id(const std::string& kind, const std::string& axis, long long x) const {
    return kind + "." + options_.scheme + "." + axis + "." + std::to_string(x);
  }

  const Options& options_;
  DocsService* service_ = nullptr;
  Connection* upload_connection_ = nullptr;
};

bool Bench::SetUp() {
  if (!kestrel::net::CurlTransport::Default()->Configure(
          quire_bench::EmulatorTransportConfig(options_.address, options_.port, options_.ca))) {
    std::fprintf(stderr, "transfer_bench: the transport refused the configuration\n");
    return false;
  }
  service_ = new DocsService();
  service_->SetOAuth2AuthToken(QString::fromStdString(options_.token));
  // ConnectionUtils sends through a connection whose fixed lines carry the authorisation.
  upload_connection_ = quire_bench::NewAuthorizedConnection(options_.token);
  return true;
}

void Bench::TearDown() {
  delete upload_connection_;
  delete service_;
  kestrel::MainLoop::Default()->RunUntilIdle();
}

bool Bench::Create(const QByteArray& data, Document* document) {
  bool done = false;
  bool ok = false;
  const QUrl feed(QString::fromStdString(options_.scheme) +
                  QStringLiteral("://docs.quire.example/feeds/default/private/full"));
  service_->CreateEntryWithContent(
      feed, QStringLiteral("bench"), QStringLiteral("application/octet-stream"), data,
      [&](NetworkResponseInfo info, const DocsEntry& entry) {
        ok = info.status == 0 && !entry.content_src.isEmpty() && !entry.edit_link.isEmpty() &&
             !entry.resumable_edit_media_link.isEmpty();
        document->content_src = entry.content_src;
        document->edit_link = entry.edit_link;
        document->resumable_edit_media_link = entry.resumable_edit_media_link;
        done = true;
      });
  if (!Wait(done) || !ok) {
    std::fprintf(stderr, "transfer_bench: could not create a document of %lld bytes\n",
                 static_cast<long long>(data.size()));
    return false;
  }
  return true;
}

bool Bench::Delete(const Document& document) {
  bool done = false;
  bool ok = false;
  service_->DeleteEntry(document.edit_link, QString(), [&](NetworkResponseInfo info) {
    ok = info.status == 0;
    done = true;
  });
  if (!Wait(done) || !ok) {
    std::fprintf(stderr, "transfer_bench: could not delete a document\n");
    return false;
  }
  return true;
}

Sample Bench::OurUpload(const QByteArray& data, const Document& document, long long chunk_bytes,
                        long long* allocations, long long* puts) {
  ConnectionUtils utils(static_cast<std::uint32_t>(chunk_bytes), upload_connection_);
  auto* memory = kestrel::MemoryManager::Default();
  bool done = false;
  bool ok = false;
  const long long before = memory->total_allocations();
  const double cpu = quire_bench::ProcessCpuSeconds();
  const Clock::time_point start = Clock::now();
  utils.ResumableUpload(document.resumable_edit_media_link.toString(),
                        QStringLiteral("<entry xmlns=\"http://www.w3.org/2005/Atom\"/>"),
                        QStringLiteral("application/octet-stream"), data,
                        [&](NetworkResponseInfo info, QByteArray) {
                          ok = info.status == 0;
                          done = true;
                        });
  const bool finished = Wait(done);
  Sample sample;
  sample.seconds = SecondsSince(start);
  sample.cpu = quire_bench::ProcessCpuSeconds() - cpu;
  if (allocations != nullptr) *allocations = memory->total_allocations() - before;
  if (puts != nullptr) *puts = (data.size() + chunk_bytes - 1) / chunk_bytes;
  kestrel::MainLoop::Default()->RunUntilIdle();
  if (!finished || !ok) sample.seconds = -1;
  return sample;
}

Sample Bench::OurDownload(const Document& document, long long expected, const QByteArray* compare) {
  bool done = false;
  bool ok = false;
  Sample sample;
  const double cpu = quire_bench::ProcessCpuSeconds();
  const Clock::time_point start = Clock::now();
  service_->GetEntryContent(document.content_src, [&](NetworkResponseInfo info, QByteArray body) {
    // The transfer ends here; checking the bytes is not part of it.
    sample.seconds = SecondsSince(start);
    sample.cpu = quire_bench::ProcessCpuSeconds() - cpu;
    ok = info.status == 0 && body.size() == expected &&
         (compare == nullptr || std::memcmp(body.constData(), compare->constData(),
                                            static_cast<std::size_t>(expected)) == 0);
    done = true;
  });
  const bool finished = Wait(done);
  kestrel::MainLoop::Default()->RunUntilIdle();
  if (!finished || !ok) sample.seconds = -1;
  return sample;
}

Sample Bench::CurlUpload(const std::string& file, const Document& document) {
  std::vector<std::string> args = CurlCommon();
  args.insert(args.end(), {"-H", "Content-Type: application/octet-stream", "-T", file, "-o",
                           "/dev/null", document.edit_link.toString().toStdString()});
  const CurlTimes times = RunCurl(args);
  return Sample{times.total < 0 ? -1 : times.transfer(), times.cpu};
}

Sample Bench::CurlDownload(const Document& document) {
  std::vector<std::string> args = CurlCommon();
  args.insert(args.end(), {"-o", "/dev/null", document.content_src.toString().toStdString()});
  const CurlTimes times = RunCurl(args);
  return Sample{times.total < 0 ? -1 : times.transfer(), times.cpu};
}

std::vector<double> Throughputs(const std::vector<Sample>& samples, long long bytes) {
  std::vector<double> out;
  for (const Sample& s : samples) out.push_back(static_cast<double>(bytes) / kMiB / s.seconds);
  return out;
}

// CPU seconds per GiB moved.
std::vector<double> CpuPerGiB(const std::vector<Sample>& samples, long long bytes) {
  std::vector<double> out;
  for (const Sample& s : samples) out.push_back(s.cpu * 1024.0 * kMiB / static_cast<double>(bytes));
  return out;
}

bool Bench::SizeRounds(long long size_mib) {
  const long long size = size_mib * kMiB;
  QByteArray data(static_cast<qsizetype>(size), Qt::Uninitialized);
  quire_bench::FillPseudoRandom(data.data(), size, static_cast<unsigned long long>(size_mib));
  const std::string file = options_.work + "/upload-" + std::to_string(size_mib) + ".bin";
  if (!quire_bench::WriteFile(file, data.constData(), size)) {
    std::fprintf(stderr, "transfer_bench: cannot write %s\n", file.c_str());
    return false;
  }
  Document document;
  // Creating the document is also the warm-up: the connection is open, code and TLS state are hot.
  if (!Create(data, &document)) return false;
  // The first download checks that the content arrives unchanged. It is also the only one that
  // lands in fresh memory: later ones reuse the storage the transport recycles.
  Sample cold;
  if (options_.Wants("download")) {
    cold = OurDownload(document, size, &data);
    if (!cold.ok()) {
      std::fprintf(stderr, "transfer_bench: the first download failed or differed\n");
      return false;
    }
  }

  // Chunk sizes measured at this size: all of them at the largest size, else the default.
  std::vector<long long> chunks_kib = {kDefaultChunkKiB};
  if (size_mib == options_.sizes_mib.back()) chunks_kib = options_.chunks_kib;

  const int rounds = options_.rounds;
  std::vector<Sample> down_ours, down_curl, up_curl;
  std::vector<std::vector<Sample>> up_ours(chunks_kib.size());
  std::vector<double> allocations_per_put(chunks_kib.size(), 0);
  // All download rounds come first, then all upload rounds; who goes first turns every round.
  for (int round = 0; round < rounds && options_.Wants("download"); ++round) {
    for (int turn = 0; turn < 2; ++turn) {
      const bool ours = (turn + round) % 2 == 0;
      const Sample t = ours ? OurDownload(document, size, nullptr) : CurlDownload(document);
      if (!t.ok()) {
        std::fprintf(stderr, "transfer_bench: a download failed (%s)\n", ours ? "ours" : "curl");
        return false;
      }
      (ours ? down_ours : down_curl).push_back(t);
    }
  }
  for (int round = 0; round < rounds; ++round) {
    if (options_.Wants("upload")) {
      const int turns = static_cast<int>(chunks_kib.size()) + 1;
      for (int turn = 0; turn < turns; ++turn) {
        const int who = (turn + round) % turns;  // 0: curl, else ours at chunks_kib[who - 1]
        Sample t;
        if (who == 0) {
          t = CurlUpload(file, document);
          up_curl.push_back(t);
        } else {
          long long allocations = 0, puts = 0;
          t = OurUpload(data, document, chunks_kib[who - 1] * 1024, &allocations, &puts);
          up_ours[who - 1].push_back(t);
          allocations_per_put[who - 1] =
              static_cast<double>(allocations) / static_cast<double>(puts + 1);
        }
        if (!t.ok()) {
          std::fprintf(stderr, "transfer_bench: an upload failed (%s)\n",
                       who == 0 ? "curl" : "ours");
          return false;
        }
      }
    }
  }
  std::remove(file.c_str());
  // The emulator keeps its data in memory: give the document's back.
  if (!Delete(document)) return false;

  const std::string scheme = options_.scheme;
  if (options_.Wants("download")) {
    Row row;
    row.id = Id("download", "size", size_mib);
    row.title = "download " + SizeLabel(size_mib * 1024) + ", " + scheme;
    row.unit = "MiB/s";
    row.ours_name = "GetEntryContent";
    row.peer_name = "curl -o /dev/null";
    row.ours = Throughputs(down_ours, size);
    row.peer = Throughputs(down_curl, size);
    row.cpu_unit = "CPU s/GiB";
    row.ours_cpu = CpuPerGiB(down_ours, size);
    row.peer_cpu = CpuPerGiB(down_curl, size);
    row.goal = size_mib == 1024 && scheme == "https" ? 0.95 : 0;
    if (!quire_bench::AppendRow(options_.out, row)) return false;
    if (size_mib == options_.sizes_mib.back()) {
      row.id = Id("download", "first", size_mib);
      row.title = "download " + SizeLabel(size_mib * 1024) + ", " + scheme +
                  ", the first one (fresh memory)";
      row.ours = Throughputs({cold}, size);
      row.ours_cpu = CpuPerGiB({cold}, size);
      row.goal = 0;
      if (!quire_bench::AppendRow(options_.out, row)) return false;
    }
  }
  if (options_.Wants("upload")) {
    for (std::size_t i = 0; i < chunks_kib.size(); ++i) {
      Row row;
      const bool by_chunk = chunks_kib.size() > 1;
      row.id = by_chunk ? Id("upload", "chunk", chunks_kib[i]) : Id("upload", "size", size_mib);
      row.title = "upload " + SizeLabel(size_mib * 1024) + " in " + SizeLabel(chunks_kib[i]) +
                  " chunks, " + scheme;
      row.unit = "MiB/s";
      row.ours_name = "ConnectionUtils::ResumableUpload";
      row.peer_name = "curl -T";
      row.ours = Throughputs(up_ours[i], size);
      row.peer = Throughputs(up_curl, size);
      row.cpu_unit = "CPU s/GiB";
      row.ours_cpu = CpuPerGiB(up_ours[i], size);
      row.peer_cpu = CpuPerGiB(up_curl, size);
      row.goal =
          size_mib == 1024 && chunks_kib[i] == kDefaultChunkKiB && scheme == "https" ? 0.95 : 0;
      row.note = quire_bench::Printf("%.1f memory-manager allocations per request",
                                     allocations_per_put[i]);
      if (!quire_bench::AppendRow(options_.out, row)) return false;
      // The default chunk size at the largest size is also a point of the size series.
      if (by_chunk && chunks_kib[i] == kDefaultChunkKiB) {
        row.id = Id("upload", "size", size_mib);
        row.goal = 0;
        if (!quire_bench::AppendRow(options_.out, row, false)) return false;
      }
    }
  }
  return true;
}

size_t Discard(char*, size_t size, size_t count, void*) { return size * count; }

// GETs of one address one after another on one thread with libcurl's multi interface and one
// easy handle, kept (with its connection) from one batch to the next: the least a libcurl client
// can do per request.
class PlainLoop {
 public:
  PlainLoop(const Options& options, const std::string& url) {
    multi_ = curl_multi_init();
    easy_ = curl_easy_init();
    curl_easy_setopt(easy_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy_, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &Discard);
    curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_, CURLOPT_PROXY, "");
    if (options.scheme == "https") curl_easy_setopt(easy_, CURLOPT_CAINFO, options.ca.c_str());
    connect_to_ = curl_slist_append(nullptr, options.ConnectTo().c_str());
    curl_easy_setopt(easy_, CURLOPT_CONNECT_TO, connect_to_);
    const std::string authorization = "Authorization: Bearer " + options.token;
    headers_ = curl_slist_append(nullptr, "Quire-Version: 3.0");
    headers_ = curl_slist_append(headers_, authorization.c_str());
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers_);
  }
  ~PlainLoop() {
    curl_slist_free_all(headers_);
    curl_slist_free_all(connect_to_);
    curl_easy_cleanup(easy_);
    curl_multi_cleanup(multi_);
  }
  PlainLoop(const PlainLoop&) = delete;
  PlainLoop& operator=(const PlainLoop&) = delete;

  Sample Run(int count) {
    const double cpu = quire_bench::ProcessCpuSeconds();
    const Clock::time_point start = Clock::now();
    const bool ok = quire_bench::PerformOneAfterAnother(multi_, easy_, count);
    Sample sample{SecondsSince(start), quire_bench::ProcessCpuSeconds() - cpu};
    if (!ok) sample.seconds = -1;
    return sample;
  }

 private:
  CURLM* multi_;
  CURL* easy_;
  curl_slist* connect_to_;
  curl_slist* headers_;
};

// `count` GetEntryContent calls, each issued from the completion of the one before.
Sample Bench::OurChain(const Document& document, int count, long long* allocations) {
  int done = 0;
  bool ok = true;
  std::function<void()> next = [&] {
    service_->GetEntryContent(document.content_src, [&](NetworkResponseInfo info, QByteArray) {
      ok = ok && info.status == 0;
      if (++done < count && ok) next();
    });
  };
  auto* memory = kestrel::MemoryManager::Default();
  const long long before = memory->total_allocations();
  const double cpu = quire_bench::ProcessCpuSeconds();
  const Clock::time_point start = Clock::now();
  next();
  kestrel::MainLoop::Default()->RunUntil([&] { return done == count || !ok; }, 600.0);
  Sample sample{SecondsSince(start), quire_bench::ProcessCpuSeconds() - cpu};
  if (allocations != nullptr) *allocations = memory->total_allocations() - before;
  kestrel::MainLoop::Default()->RunUntilIdle();
  if (!ok || done != count) sample.seconds = -1;
  return sample;
}

bool Bench::Small() {
  QByteArray data(512, 's');
  Document document;
  if (!Create(data, &document)) return false;
  PlainLoop plain(options_, document.content_src.toString().toStdString());
  // Warm both up: connections open, handshakes done.
  if (!OurChain(document, 20, nullptr).ok() || !plain.Run(20).ok()) {
    std::fprintf(stderr, "transfer_bench: the small GETs failed\n");
    return false;
  }
  // Each round moves `small` requests on each side, in blocks that alternate between the two, so
  // that both see the same conditions on a machine whose load changes from second to second.
  constexpr int kBlocks = 20;
  const int block = std::max(1, options_.small / kBlocks);
  const int count = block * kBlocks;
  std::vector<double> ours, theirs, ours_cpu, theirs_cpu;
  long long allocations = 0, requests = 0;
  for (int round = 0; round < options_.rounds; ++round) {
    Sample our_total{0, 0}, their_total{0, 0};
    for (int turn = 0; turn < 2 * kBlocks; ++turn) {
      const bool our_turn = (turn + round) % 2 == 0;
      long long block_allocations = 0;
      const Sample t = our_turn ? OurChain(document, block, &block_allocations) : plain.Run(block);
      if (!t.ok()) {
        std::fprintf(stderr, "transfer_bench: the small GETs failed\n");
        return false;
      }
      Sample& total = our_turn ? our_total : their_total;
      total.seconds += t.seconds;
      total.cpu += t.cpu;
      if (our_turn) {
        allocations += block_allocations;
        requests += block;
      }
    }
    ours.push_back(count / our_total.seconds);
    theirs.push_back(count / their_total.seconds);
    ours_cpu.push_back(our_total.cpu * 1e6 / count);
    theirs_cpu.push_back(their_total.cpu * 1e6 / count);
  }
  Row row;
  row.id = Id("small", "count", count);
  row.title = std::to_string(count) + " small GETs over keep-alive, " + options_.scheme;
  row.unit = "req/s";
  row.ours_name = "GetEntryContent, chained";
  row.peer_name = "plain libcurl multi loop";
  row.ours = ours;
  row.peer = theirs;
  row.goal = options_.scheme == "https" ? 0.9 : 0;
  row.cpu_unit = "CPU us/request";
  row.ours_cpu = ours_cpu;
  row.peer_cpu = theirs_cpu;
  if (!quire_bench::AppendRow(options_.out, row)) return false;

  Row allocs;
  allocs.id = Id("allocs", "request", 0);
  allocs.title = "heap allocations per small GET (memory manager), " + options_.scheme;
  allocs.unit = "allocations";
  allocs.ours_name = "GetEntryContent";
  allocs.ours = {static_cast<double>(allocations) / static_cast<double>(requests)};
  allocs.goal = options_.scheme == "https" ? 12 : 0;
  allocs.lower_better = true;
  return quire_bench::AppendRow(options_.out, allocs);
}

bool Bench::Memory() {
  const long long size_mib = options_.sizes_mib.back();
  const long long size = size_mib * kMiB;
  Document document;
  {
    QByteArray small(4096, 'm');
    if (!Create(small, &document)) return false;
  }
  QByteArray data(static_cast<qsizetype>(size), Qt::Uninitialized);
  quire_bench::FillPseudoRandom(data.data(), size, 7);
  std::vector<double> overhead;
  for (int round = 0; round < options_.rounds; ++round) {
    kestrel::MainLoop::Default()->RunUntilIdle();
    const bool reset = quire_bench::ResetPeakRss();
    const long long before_kib = quire_bench::StatusKiB("VmRSS");
    if (!OurUpload(data, document, kDefaultChunkKiB * 1024, nullptr, nullptr).ok()) {
      std::fprintf(stderr, "transfer_bench: the upload failed\n");
      return false;
    }
    const long long peak_kib = quire_bench::StatusKiB("VmHWM");
    std::printf("  round %d: resident before %.1f MiB, peak %.1f MiB, data %.1f MiB%s\n", round + 1,
                before_kib / 1024.0, peak_kib / 1024.0, static_cast<double>(size) / kMiB,
                reset ? "" : " (peak not resettable: process-wide)");
    overhead.push_back(peak_kib / 1024.0 - static_cast<double>(size) / kMiB);
  }
  Row row;
  row.id = Id("memory", "upload", size_mib);
  row.title = "peak resident memory of a " + SizeLabel(size_mib * 1024) + " resumable upload (" +
              options_.scheme + ") above the data";
  row.unit = "MiB";
  row.ours_name = "whole process";
  row.ours = overhead;
  row.goal = 32;
  row.lower_better = true;
  row.note = "the whole process: Qt, libcurl, OpenSSL and the code included";
  return quire_bench::AppendRow(options_.out, row);
}

bool ParseService(Options* options) {
  return quire_bench::SplitServiceUrl(options->service, &options->scheme, &options->address,
                                      &options->port) &&
         (options->scheme == "https" || options->scheme == "http");
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  quire_bench::CommandLine command_line;
  quire_bench::AddSuiteOptions(&options, &command_line);
  command_line.Custom("--sizes",
                      [&](const std::string& value) { options.sizes_mib = Numbers(value); });
  command_line.Custom("--chunks",
                      [&](const std::string& value) { options.chunks_kib = Numbers(value); });
  command_line.Number("--small", &options.small, 1);
  if (!command_line.Parse(argc, argv,
                          "--service URL --ca FILE [--token T] --work DIR [--out FILE] "
                          "[--rounds N] [--sizes MiB,...] [--chunks KiB,...] [--small N] "
                          "[--only upload,download,small,memory]")) {
    return 2;
  }
  if (!ParseService(&options) || options.sizes_mib.empty() || options.chunks_kib.empty()) {
    std::fprintf(stderr, "transfer_bench: --service must be http(s)://ADDRESS:PORT\n");
    return 2;
  }
  std::sort(options.sizes_mib.begin(), options.sizes_mib.end());

  Bench bench(options);
  if (!bench.SetUp()) return 1;
  std::printf("transfer_bench: %s, %d rounds, %s\n", options.service.c_str(), options.rounds,
              curl_version());
  bool ok = true;
  if (options.Wants("memory")) ok = bench.Memory();
  if (ok && (options.Wants("upload") || options.Wants("download"))) {
    for (long long size_mib : options.sizes_mib) {
      ok = bench.SizeRounds(size_mib);
      if (!ok) break;
    }
  }
  if (ok && options.Wants("small")) ok = bench.Small();
  bench.TearDown();
  return ok ? 0 : 1;
}
