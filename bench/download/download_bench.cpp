// Streaming downloads as a person meets them, each beside its peer in the same run:
//   first   a fresh `quire get DOC -o FILE` process against `curl -o FILE` (a file in the work
//           folder, /dev/shm under bench/run), wall time of the whole process, alternating;
//   memory  the peak resident memory of `quire get` of a large document to a file, beside curl's;
//   resume  `quire get` killed with SIGKILL at a random point, then `quire get --continue`: the
//           bytes the continued run asked for beyond those missing from the part.
// The document is created with curl (streamed from a file), and deleted at the end.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>

#include <QString>
#include <QUrl>
#include <functional>

#include "bench/suite/bench_common.h"
#include "kestrel/base/main_loop.h"
#include "kestrel/net/curl_transport.h"
#include "quire/services/content_download.h"
#include "quire/services/docs_service.h"

namespace {

using quire_bench::Row;

constexpr double kMiB = 1024.0 * 1024.0;

// This program's path, for the plain-HTTP download in a process of its own.
std::string g_self;

struct Options : quire_bench::SuiteOptions {
  std::string quire;
  long long size_mib = 1024;

  Options() {
    work.clear();  // required
    only = {"first", "memory"};
    rounds = 3;
  }
};

struct Run {
  int status = -1;
  double seconds = 0;
  double cpu = 0;
  double max_rss_mib = 0;
  std::string out;
};

// Runs `argv` with its standard output to `out_path` (or /dev/null) and standard error to
// /dev/null; `kill_when` (checked every millisecond) kills it with SIGKILL.
Run Execute(const std::vector<std::string>& argv, const std::string& out_path = "",
            const std::function<bool()>& kill_when = nullptr) {
  Run run;
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    const char* target = out_path.empty() ? "/dev/null" : out_path.c_str();
    std::freopen(target, "w", stdout);
    std::freopen("/dev/null", "w", stderr);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  int status = 0;
  struct rusage usage;
  std::memset(&usage, 0, sizeof usage);
  for (;;) {
    const pid_t done = ::wait4(pid, &status, kill_when ? WNOHANG : 0, &usage);
    if (done == pid) break;
    if (kill_when && kill_when()) ::kill(pid, SIGKILL);
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
            (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  run.max_rss_mib = static_cast<double>(usage.ru_maxrss) / 1024.0;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (!out_path.empty()) {
    std::ifstream in(out_path);
    std::stringstream text;
    text << in.rdbuf();
    run.out = text.str();
  }
  return run;
}

long long FileSize(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
}

class Bench {
 public:
  explicit Bench(Options options) : o_(std::move(options)) {
    host_ = o_.service.substr(o_.service.find("://") + 3);
    scheme_ = o_.service.substr(0, o_.service.find("://"));
  }

  std::vector<std::string> Curl() const {
    std::vector<std::string> args = {"curl",
                                     "-s",
                                     "-S",
                                     "--fail",
                                     "--http1.1",
                                     "--connect-to",
                                     "docs.quire.example:443:" + host_,
                                     "--connect-to",
                                     "docs.quire.example:80:" + host_,
                                     "-H",
                                     "Quire-Version: 3.0",
                                     "-H",
                                     "Authorization: Bearer " + o_.token};
    if (!o_.ca.empty()) args.insert(args.end(), {"--cacert", o_.ca});
    return args;
  }
  // The command (https only).
  std::vector<std::string> Quire(const std::vector<std::string>& extra) const {
    std::vector<std::string> args = {o_.quire, "--server", o_.service, "--cacert", o_.ca};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }
  std::string Base() const { return scheme_ + "://docs.quire.example"; }

  bool Create() {
    const std::string file = o_.work + "/download-source.bin";
    {
      std::vector<char> block(8 << 20);
      quire_bench::FillPseudoRandom(block.data(), static_cast<long long>(block.size()), 7);
      std::ofstream out(file, std::ios::binary);
      for (long long written = 0; written < o_.size_mib * 1024 * 1024;
           written += static_cast<long long>(block.size())) {
        out.write(block.data(), static_cast<std::streamsize>(block.size()));
        block[0]++;
      }
      if (!out) return false;
    }
    title_ = "download-bench-" + std::to_string(o_.size_mib);
    std::vector<std::string> args = Curl();
    args.insert(args.end(), {"-X", "POST", "-T", file, "-H", "Slug: " + title_, "-H",
                             "Content-Type: application/octet-stream", "-o", "/dev/null", "-w",
                             "%header{location}", Base() + "/feeds/default/private/full"});
    const Run run = Execute(args, o_.work + "/create.out");
    std::remove(file.c_str());
    edit_ = run.out;
    while (!edit_.empty() && (edit_.back() == '\n' || edit_.back() == '\r')) edit_.pop_back();
    if (run.status != 0 || edit_.empty()) {
      std::fprintf(stderr, "download_bench: creating the document failed (%d)\n", run.status);
      return false;
    }
    content_ = edit_ + "/content";
    return true;
  }
  void Delete() {
    std::vector<std::string> args = Curl();
    args.insert(args.end(), {"-X", "DELETE", "-o", "/dev/null", edit_});
    Execute(args);
  }

  bool First() {
    const std::string target = o_.work + "/download-target.bin";
    std::vector<double> ours, peer, ours_cpu, peer_cpu;
    for (int round = 0; round < o_.rounds; ++round) {
      for (int turn = 0; turn < 2; ++turn) {
        const bool quire = (turn == 0) == (round % 2 == 0);
        std::remove(target.c_str());
        std::vector<std::string> args;
        if (quire && scheme_ == "https") {
          args = Quire({"get", title_, "-o", target});
        } else if (quire) {
          args = {g_self, "--child", content_, target, o_.service};
        } else {
          args = Curl();
          args.insert(args.end(), {"-o", target, content_});
        }
        const Run run = Execute(args);
        if (run.status != 0 || FileSize(target) != o_.size_mib * 1024 * 1024) {
          std::fprintf(stderr, "download_bench: a download failed (%s, exit %d)\n",
                       quire ? "quire" : "curl", run.status);
          return false;
        }
        const double rate = static_cast<double>(o_.size_mib) / run.seconds;
        const double cpu = run.cpu * 1024.0 / static_cast<double>(o_.size_mib);
        (quire ? ours : peer).push_back(rate);
        (quire ? ours_cpu : peer_cpu).push_back(cpu);
      }
    }
    std::remove(target.c_str());
    Row row;
    row.id = "download." + scheme_ + ".tofile." + std::to_string(o_.size_mib);
    row.title = "download " + std::to_string(o_.size_mib) + " MiB to a file, " + scheme_ +
                ", a fresh process (what a user meets)";
    row.unit = "MiB/s";
    row.ours_name = scheme_ == "https" ? "quire get -o FILE" : "ContentDownload to a file";
    row.peer_name = "curl -o FILE";
    row.ours = ours;
    row.peer = peer;
    row.cpu_unit = "CPU s/GiB";
    row.ours_cpu = ours_cpu;
    row.peer_cpu = peer_cpu;
    row.goal = o_.size_mib >= 1024 ? 0.95 : 0;
    row.note = scheme_ == "https"
                   ? "whole process: start, listing, TLS, transfer, sync and rename"
                   : "whole process (the command speaks only https: the library in a process of "
                     "its own)";
    return quire_bench::AppendRow(o_.out, row);
  }

  bool Memory() {
    const std::string target = o_.work + "/download-target.bin";
    std::vector<double> ours, peer;
    for (int round = 0; round < o_.rounds; ++round) {
      std::remove(target.c_str());
      const Run mine = Execute(Quire({"get", title_, "-o", target}));
      std::remove(target.c_str());
      std::vector<std::string> args = Curl();
      args.insert(args.end(), {"-o", target, content_});
      const Run theirs = Execute(args);
      std::remove(target.c_str());
      if (mine.status != 0 || theirs.status != 0) {
        std::fprintf(stderr, "download_bench: a download failed (memory)\n");
        return false;
      }
      ours.push_back(mine.max_rss_mib);
      peer.push_back(theirs.max_rss_mib);
    }
    Row row;
    row.id = "download." + scheme_ + ".rss." + std::to_string(o_.size_mib);
    row.title = "peak resident memory of quire get -o FILE of a " + std::to_string(o_.size_mib) +
                " MiB document, " + scheme_;
    row.unit = "MiB";
    row.ours_name = "quire get -o FILE";
    row.ours = ours;
    row.goal = 64;
    row.lower_better = true;
    row.note =
        quire_bench::Printf("curl -o FILE in the same run: %.1f MiB", quire_bench::Median(peer));
    return quire_bench::AppendRow(o_.out, row);
  }

  bool Resume() {
    const std::string target = o_.work + "/download-target.bin";
    const std::string part = target + ".part";
    std::mt19937_64 random(std::random_device{}());
    const long long total = o_.size_mib * 1024 * 1024;
    std::vector<double> ours, peer;
    for (int round = 0; round < o_.rounds; ++round) {
      std::remove(target.c_str());
      std::remove(part.c_str());
      const long long kill_at = static_cast<long long>(
          std::uniform_real_distribution<double>(0.1, 0.9)(random) * static_cast<double>(total));
      Execute(Quire({"get", title_, "-o", target}), "", [&] { return FileSize(part) >= kill_at; });
      const long long kept = FileSize(part);
      const Run run =
          Execute(Quire({"get", title_, "-o", target, "--continue"}), o_.work + "/continue.out");
      // "saved ... (N bytes) to FILE, R bytes reused from FILE.part": the continued run asked
      // for (and the emulator sent) the N - R bytes from R on.
      const std::size_t at = run.out.find(" bytes reused");
      std::size_t start = at;
      while (start > 0 && std::isdigit(static_cast<unsigned char>(run.out[start - 1]))) --start;
      const long long reused =
          at == std::string::npos ? 0 : std::atoll(run.out.substr(start, at - start).c_str());
      if (run.status != 0 || FileSize(target) != total || kept <= 0) {
        std::fprintf(stderr, "download_bench: the continued download failed (exit %d)\n",
                     run.status);
        return false;
      }
      ours.push_back(static_cast<double>(total - reused) / kMiB);
      peer.push_back(static_cast<double>(total - kept) / kMiB);
    }
    std::remove(target.c_str());
    Row row;
    row.id = "download." + scheme_ + ".resume." + std::to_string(o_.size_mib);
    row.title =
        "download of " + std::to_string(o_.size_mib) +
        " MiB killed at a random point, then --continue: bytes asked for beyond the missing "
        "ones, " +
        scheme_;
    row.unit = "MiB";
    row.ours_name = "quire get --continue";
    for (std::size_t i = 0; i < ours.size(); ++i) row.ours.push_back(ours[i] - peer[i]);
    // One network-layer buffer: the sink's ring (8 MiB) and libcurl's receive buffer (512 KiB).
    row.goal = 8.5;
    row.lower_better = true;
    row.note = quire_bench::Printf(
        "missing %.1f MiB (median); asked for by the continued run, as its final "
        "line reports the bytes reused",
        quire_bench::Median(peer));
    return quire_bench::AppendRow(o_.out, row);
  }

  const Options& options() const { return o_; }

 private:
  Options o_;
  std::string host_, scheme_, title_, edit_, content_;
};

// The library's streaming download in a process of its own (the quire command speaks only
// HTTPS, so plain HTTP is measured this way): argv = --child URL FILE SERVICE [CA].
int Child(int argc, char** argv) {
  if (argc < 5) return 2;
  std::string scheme;
  std::string address;
  int port = 0;
  if (!quire_bench::SplitServiceUrl(argv[4], &scheme, &address, &port)) return 2;
  kestrel::net::CurlTransportConfig config;
  config.host_mappings.push_back(
      {QStringLiteral("docs.quire.example"), QString::fromStdString(address), port});
  if (argc > 5) config.extra_ca_certificate_files.push_back(QString::fromLatin1(argv[5]));
  if (!kestrel::net::CurlTransport::Default()->Configure(config)) return 3;
  const int fd = ::open(argv[3], O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return 4;
  kestrel::quire::DocsService docs;
  docs.SetOAuth2AuthToken(QString::fromLocal8Bit(std::getenv("QUIRE_TOKEN")));
  kestrel::quire::ContentDownload download(&docs);
  bool done = false;
  bool ok = false;
  download.Start(QUrl(QString::fromLatin1(argv[2])),
                 kestrel::quire::DownloadTarget::ForFileDescriptor(fd), {},
                 [&](const kestrel::quire::DownloadResult& result) {
                   ok = result.outcome == kestrel::quire::DownloadOutcome::kComplete;
                   done = true;
                 });
  kestrel::MainLoop::Default()->RunUntil([&] { return done; }, 600);
  ok = ok && ::fsync(fd) == 0 && ::close(fd) == 0;
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--child") == 0) return Child(argc, argv);
  g_self = argv[0];
  Options o;
  quire_bench::CommandLine command_line;
  quire_bench::AddSuiteOptions(&o, &command_line);
  command_line.Text("--quire", &o.quire);
  command_line.Number("--size-mib", &o.size_mib, 1LL);
  const char kUsage[] =
      "--quire BIN --service URL [--ca FILE] --work DIR [--out FILE] [--token T] "
      "[--only first,memory,resume] [--size-mib N] [--rounds N]";
  if (!command_line.Parse(argc, argv, kUsage)) return 2;
  if (o.quire.empty() || o.service.empty() || o.work.empty()) {
    std::fprintf(stderr, "usage: download_bench %s\n", kUsage);
    return 2;
  }
  ::setenv("QUIRE_TOKEN", o.token.c_str(), 1);
  Bench bench(o);
  if (!bench.Create()) return 1;
  bool ok = true;
  if (ok && o.Wants("first")) ok = bench.First();
  if (ok && o.Wants("memory")) ok = bench.Memory();
  if (ok && o.Wants("resume")) ok = bench.Resume();
  bench.Delete();
  return ok ? 0 : 1;
}
