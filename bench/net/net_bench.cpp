// The HTTPS transport against the curl command and against a plain libcurl loop, side by side in
// one run, on loopback, against the same in-process server, in alternating rounds:
//   1. download 1 GiB with a GET through Connection (the request GetEntryContent makes) vs
//      `curl -o /dev/null` of the same URL;
//   2. upload 1 GiB in one PUT through Connection (as ModifyEntryContent sends it) vs `curl -T`;
//   3. 10,000 small GETs one after another over keep-alive through Connection vs a plain libcurl
//      multi loop on one thread;
//   4. the cost of the transport's thread hand-off: I/O thread to main loop and back.
// Figures are medians over the rounds; a ratio above 1 means the transport is faster.
//
// Usage: net_bench [--rounds N] [--mib N] [--small N] [--https] [--only
// download|upload|small|handoff]
#include <curl/curl.h>
#include <openssl/ssl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QByteArray>
#include <QString>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/net/bench_http_server.h"
#include "bench/suite/bench_common.h"
#include "kestrel/base/main_loop.h"
#include "kestrel/net/curl_transport.h"
#include "kestrel/net/transport_registry.h"
#include "quire/connection/connection.h"
#include "tests/support/test_certificates.h"

extern char** environ;

namespace {

using quire_bench::Clock;
using quire_bench::Median;
using quire_bench::SecondsSince;

struct Options {
  int rounds = 3;
  long long mib = 1024;
  int small = 10000;
  bool https = false;
  std::string only;
};

// Runs the curl command with `args` and returns the transfer time it reports (-w %{time_total}),
// or a negative value when it failed.
double RunCurl(const std::vector<std::string>& args) {
  std::vector<std::string> all = {"curl", "-s", "-S", "--http1.1", "-w", "%{time_total}"};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& arg : all) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipe_fds[0]);
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, "curl", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe_fds[1]);
  std::string output;
  char buffer[256];
  ssize_t n;
  while ((n = read(pipe_fds[0], buffer, sizeof(buffer))) > 0)
    output.append(buffer, static_cast<std::size_t>(n));
  close(pipe_fds[0]);
  if (spawned != 0) return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  return std::atof(output.c_str());
}

// Issues one request through `connection` and runs the main loop until it completed; returns the
// seconds from the call to the completion, or a negative value on failure.
double TimedRequest(kestrel::quire::Connection* connection, std::uint32_t method,
                    const QString& url, const QByteArray* body, const std::vector<QString>* headers,
                    long long expected_body) {
  bool done = false;
  bool ok = false;
  const Clock::time_point start = Clock::now();
  kestrel::quire::ConnectionParams params{method, url, body, headers, false, 0};
  connection->Request(params, [&](kestrel::quire::NetworkResponseInfo info, QByteArray bytes) {
    ok = info.status == 0 && (expected_body < 0 || bytes.size() == expected_body);
    done = true;
  });
  kestrel::MainLoop::Default()->RunUntil([&] { return done; }, 600.0);
  const double seconds = SecondsSince(start);
  kestrel::MainLoop::Default()->RunUntilIdle();
  return ok ? seconds : -1;
}

// Prints per-round throughput of the transport beside one or more references, their medians and
// the ratios transport / reference.
void PrintThroughput(const std::string& title, long long bytes, const std::vector<double>& ours,
                     const std::vector<std::pair<std::string, std::vector<double>>>& references) {
  const double mib = static_cast<double>(bytes) / (1024.0 * 1024.0);
  std::printf("\n%s\n  round  %16s", title.c_str(), "transport MiB/s");
  for (const auto& reference : references) {
    std::printf("  %24s", (reference.first + " MiB/s").c_str());
  }
  std::printf("\n");
  for (std::size_t i = 0; i < ours.size(); ++i) {
    std::printf("  %5zu  %16.0f", i + 1, mib / ours[i]);
    for (const auto& reference : references) std::printf("  %24.0f", mib / reference.second[i]);
    std::printf("\n");
  }
  const double a = mib / Median(ours);
  std::printf("  median %16.0f", a);
  for (const auto& reference : references) {
    std::printf("  %24.0f", mib / Median(reference.second));
  }
  std::printf("\n");
  for (const auto& reference : references) {
    std::printf("  ratio transport / %s: %.3fx\n", reference.first.c_str(),
                a / (mib / Median(reference.second)));
  }
}

struct Target {
  std::string scheme;
  int port;
  std::string ca_file;  // empty for plain HTTP
  std::string Url(const std::string& path) const {
    return scheme + "://127.0.0.1:" + std::to_string(port) + path;
  }
};

std::vector<std::string> CurlTls(const Target& target) {
  if (target.ca_file.empty()) return {};
  return {"--cacert", target.ca_file};
}

bool BenchDownload(kestrel::quire::Connection* connection, const Target& target,
                   const Options& options) {
  const long long bytes = options.mib * 1024 * 1024;
  const std::string url = target.Url("/bytes/" + std::to_string(bytes));
  const std::vector<QString> auth = {QStringLiteral("Authorization: Bearer bench-token")};
  // curl into memory-backed storage does what the transport does: it keeps every byte in fresh
  // memory. Into /dev/null it keeps nothing.
  const std::string folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  const std::string file = folder + "/quire-net-bench-download-" + std::to_string(getpid());
  auto curl_to = [&](const std::string& out) {
    std::vector<std::string> args = CurlTls(target);
    args.insert(args.end(), {"-H", "Authorization: Bearer bench-token", "-o", out, url});
    const double t = RunCurl(args);
    std::remove(file.c_str());
    return t;
  };
  // Warm-up: the connection is opened, code is paged in, and with --warm-memory the allocator
  // holds the memory that the next bodies land in.
  if (TimedRequest(connection, kestrel::quire::kMethodGet, QString::fromStdString(url), nullptr,
                   &auth, bytes) < 0) {
    return false;
  }
  std::vector<double> ours, to_null, to_memory;
  for (int round = 0; round < options.rounds; ++round) {
    // Alternate who goes first.
    for (int turn = 0; turn < 3; ++turn) {
      const int who = (turn + round) % 3;
      double t;
      if (who == 0) {
        t = TimedRequest(connection, kestrel::quire::kMethodGet, QString::fromStdString(url),
                         nullptr, &auth, bytes);
        ours.push_back(t);
      } else if (who == 1) {
        t = curl_to("/dev/null");
        to_null.push_back(t);
      } else {
        t = curl_to(file);
        to_memory.push_back(t);
      }
      if (t < 0) return false;
    }
  }
  PrintThroughput(
      "1. download " + std::to_string(options.mib) + " MiB with one GET, " + target.scheme, bytes,
      ours, {{"curl -o /dev/null", to_null}, {"curl -o " + folder, to_memory}});
  return true;
}

bool BenchUpload(kestrel::quire::Connection* connection, const Target& target,
                 const Options& options) {
  const long long bytes = options.mib * 1024 * 1024;
  const std::string url = target.Url("/upload");
  QByteArray body(static_cast<int>(bytes), 'u');
  // The same bytes in a file for curl -T, in memory-backed storage when there is some.
  const std::string folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  const std::string file = folder + "/quire-net-bench-" + std::to_string(getpid());
  {
    FILE* out = std::fopen(file.c_str(), "wb");
    if (out == nullptr) return false;
    const bool written = std::fwrite(body.constData(), 1, static_cast<std::size_t>(body.size()),
                                     out) == static_cast<std::size_t>(body.size());
    if (std::fclose(out) != 0 || !written) return false;
  }
  const std::vector<QString> lines = {QStringLiteral("Authorization: Bearer bench-token"),
                                      QStringLiteral("Content-Type: application/octet-stream")};
  std::vector<double> ours, theirs;
  bool ok = true;
  for (int round = 0; round < options.rounds && ok; ++round) {
    for (int turn = 0; turn < 2 && ok; ++turn) {
      if ((turn == 0) == (round % 2 == 0)) {
        const double t = TimedRequest(connection, kestrel::quire::kMethodPut,
                                      QString::fromStdString(url), &body, &lines, -1);
        ok = t >= 0;
        ours.push_back(t);
      } else {
        std::vector<std::string> args = CurlTls(target);
        args.insert(args.end(),
                    {"-H", "Authorization: Bearer bench-token", "-H",
                     "Content-Type: application/octet-stream", "-T", file, "-o", "/dev/null", url});
        const double t = RunCurl(args);
        ok = t >= 0;
        theirs.push_back(t);
      }
    }
  }
  std::remove(file.c_str());
  if (!ok) return false;
  PrintThroughput(
      ("2. upload " + std::to_string(options.mib) + " MiB in one PUT, " + target.scheme).c_str(),
      bytes, ours, {{"curl -T", theirs}});
  return true;
}

size_t Discard(char*, size_t size, size_t count, void*) { return size * count; }

// `count` GETs one after another on one thread with libcurl's multi interface and one reused easy
// handle: the least a libcurl client can do per request.
double PlainMultiLoop(const Target& target, int count) {
  CURLM* multi = curl_multi_init();
  CURL* easy = curl_easy_init();
  const std::string url = target.Url("/small");
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Discard);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  if (!target.ca_file.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, target.ca_file.c_str());
  curl_slist* headers = curl_slist_append(nullptr, "Authorization: Bearer bench-token");
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  const Clock::time_point start = Clock::now();
  const bool ok = quire_bench::PerformOneAfterAnother(multi, easy, count);
  const double seconds = SecondsSince(start);
  curl_slist_free_all(headers);
  curl_easy_cleanup(easy);
  curl_multi_cleanup(multi);
  return ok ? seconds : -1;
}

// `count` GETs through Connection, each issued from the completion of the one before.
double ConnectionChain(kestrel::quire::Connection* connection, const Target& target, int count) {
  const QString url = QString::fromStdString(target.Url("/small"));
  const std::vector<QString> auth = {QStringLiteral("Authorization: Bearer bench-token")};
  int done = 0;
  bool ok = true;
  std::function<void()> next = [&] {
    kestrel::quire::ConnectionParams params{
        kestrel::quire::kMethodGet, url, nullptr, &auth, false, 0};
    connection->Request(params, [&](kestrel::quire::NetworkResponseInfo info, QByteArray) {
      ok = ok && info.status == 0;
      if (++done < count && ok) next();
    });
  };
  const Clock::time_point start = Clock::now();
  next();
  kestrel::MainLoop::Default()->RunUntil([&] { return done == count || !ok; }, 600.0);
  const double seconds = SecondsSince(start);
  kestrel::MainLoop::Default()->RunUntilIdle();
  return ok && done == count ? seconds : -1;
}

bool BenchSmall(kestrel::quire::Connection* connection, const Target& target,
                const Options& options) {
  // Warm both up: connections open, handshakes done.
  if (ConnectionChain(connection, target, 10) < 0 || PlainMultiLoop(target, 10) < 0) return false;
  std::vector<double> ours, theirs;
  for (int round = 0; round < options.rounds; ++round) {
    for (int turn = 0; turn < 2; ++turn) {
      if ((turn == 0) == (round % 2 == 0)) {
        const double t = ConnectionChain(connection, target, options.small);
        if (t < 0) return false;
        ours.push_back(t);
      } else {
        const double t = PlainMultiLoop(target, options.small);
        if (t < 0) return false;
        theirs.push_back(t);
      }
    }
  }
  std::printf("\n3. %d small GETs one after another over keep-alive, %s\n", options.small,
              target.scheme.c_str());
  std::printf("  round   transport req/s   plain multi loop req/s\n");
  for (std::size_t i = 0; i < ours.size(); ++i) {
    std::printf("  %5zu   %15.0f   %22.0f\n", i + 1, options.small / ours[i],
                options.small / theirs[i]);
  }
  const double a = options.small / Median(ours);
  const double b = options.small / Median(theirs);
  std::printf("  median  %15.0f   %22.0f   ratio %.3fx\n", a, b, a / b);
  std::printf("  per request: transport %.1f us, plain loop %.1f us, difference %.1f us\n", 1e6 / a,
              1e6 / b, 1e6 / a - 1e6 / b);
  return true;
}

// The two thread hops each request pays: the main thread wakes the I/O thread out of
// curl_multi_poll (as Start does), and the I/O thread posts to the main loop (as a completion
// does).
void BenchHandOff(int count) {
  CURLM* multi = curl_multi_init();
  std::atomic<bool> stop{false};
  int completed = 0;
  std::thread io([&] {
    while (!stop.load()) {
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
      if (stop.load()) break;
      kestrel::MainLoop::Default()->Post([&] {
        ++completed;
        if (completed < count) curl_multi_wakeup(multi);
      });
    }
  });
  const Clock::time_point start = Clock::now();
  curl_multi_wakeup(multi);
  kestrel::MainLoop::Default()->RunUntil([&] { return completed >= count; }, 120.0);
  const double seconds = SecondsSince(start);
  stop.store(true);
  curl_multi_wakeup(multi);
  io.join();
  curl_multi_cleanup(multi);
  kestrel::MainLoop::Default()->RunUntilIdle();
  std::printf("\n4. thread hand-off: %d round trips main -> I/O thread -> main loop\n", completed);
  std::printf("  %.1f us per round trip (two hops), %.1f us per hop\n", 1e6 * seconds / completed,
              1e6 * seconds / completed / 2);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> rerun;
  bool warm_memory = false;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--warm-memory") == 0) {
      warm_memory = true;
    } else {
      rerun.push_back(argv[i]);
    }
  }
  if (warm_memory && std::getenv("GLIBC_TUNABLES") == nullptr) {
    setenv("GLIBC_TUNABLES",
           "glibc.malloc.arena_max=1:glibc.malloc.mmap_max=0:"
           "glibc.malloc.trim_threshold=4294967295",
           1);
    rerun.push_back(nullptr);
    execv("/proc/self/exe", rerun.data());
    std::perror("execv");
    return 1;
  }
  argc = static_cast<int>(rerun.size());
  argv = rerun.data();
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&] { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
    if (arg == "--rounds")
      options.rounds = std::max(1, std::atoi(value().c_str()));
    else if (arg == "--mib")
      options.mib = std::max(1LL, std::atoll(value().c_str()));
    else if (arg == "--small")
      options.small = std::max(1, std::atoi(value().c_str()));
    else if (arg == "--https")
      options.https = true;
    else if (arg == "--only")
      options.only = value();
    else {
      std::fprintf(stderr, "usage: %s [--rounds N] [--mib N] [--small N] [--https] [--only WHAT]\n",
                   argv[0]);
      return 2;
    }
  }
  auto wanted = [&](const char* what) { return options.only.empty() || options.only == what; };

  quire_test::TestCertificates certificates;
  const quire_test::TestCertificates::Server server = certificates.MakeLocal();
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> tls(SSL_CTX_new(TLS_server_method()),
                                                        &SSL_CTX_free);
  if (!certificates.ok() || server.certificate_file.empty() ||
      SSL_CTX_use_certificate_file(tls.get(), server.certificate_file.c_str(), SSL_FILETYPE_PEM) !=
          1 ||
      SSL_CTX_use_PrivateKey_file(tls.get(), server.key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
    std::fprintf(stderr, "could not set up TLS for the server\n");
    return 1;
  }
  quire_bench::net::BenchHttpServer plain_server(nullptr);
  quire_bench::net::BenchHttpServer tls_server(tls.get());

  kestrel::net::CurlTransport transport;
  kestrel::net::CurlTransportConfig config;
  config.extra_ca_certificate_files.push_back(
      QString::fromStdString(certificates.authority_file()));
  if (!transport.Configure(config)) return 1;
  kestrel::net::TransportRegistry::SetDefault(&transport);

  std::vector<Target> targets = {{"http", plain_server.port(), ""}};
  if (options.https) targets.push_back({"https", tls_server.port(), certificates.authority_file()});

  std::printf("net_bench: loopback, %d rounds, alternating, %s\n", options.rounds, curl_version());
  bool ok = true;
  {
    kestrel::quire::Connection connection;
    connection.Init({QStringLiteral("Quire-Version: 3.0")});
    for (const Target& target : targets) {
      if (ok && wanted("download")) ok = BenchDownload(&connection, target, options);
      if (ok && wanted("upload")) ok = BenchUpload(&connection, target, options);
      if (ok && wanted("small")) ok = BenchSmall(&connection, target, options);
    }
    if (ok && wanted("handoff")) BenchHandOff(options.small);
  }
  kestrel::net::TransportRegistry::SetDefault(nullptr);
  if (!ok) {
    std::fprintf(stderr, "a request failed\n");
    return 1;
  }
  return 0;
}
