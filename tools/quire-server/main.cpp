// quire-server: a local emulator of the document service, for the demo, the command-line tool,
// integration tests, benchmarks and host developers. See README.md next to this file.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tools/quire-server/certificate_maker.h"
#include "tools/quire-server/connection_context.h"
#include "tools/quire-server/data_folder.h"
#include "tools/quire-server/database.h"
#include "tools/quire-server/document_store.h"
#include "tools/quire-server/fault_injector.h"
#include "tools/quire-server/http_front.h"
#include "tools/quire-server/service_handler.h"
#include "tools/quire-server/upload_session_store.h"
#include "tools/quire-server/url_layout.h"

namespace {

using namespace quire_server;

constexpr char kDefaultAccount[] = "demo@quire.example";
constexpr char kDefaultToken[] = "quire-demo-token";
constexpr std::uint64_t kDefaultMaxUpload = 8ull << 30;

struct CommandLine {
  std::string data;
  std::string listen = "127.0.0.1:0";
  bool http = false;
  std::string cert;
  std::string key;
  std::string account = kDefaultAccount;
  std::vector<std::string> tokens;
  std::uint64_t max_upload_bytes = kDefaultMaxUpload;
  std::int64_t session_timeout_s = 3600;
  int threads = std::max(8, 2 * static_cast<int>(std::thread::hardware_concurrency()));
  bool verbose = false;
  FaultOptions faults;
};

// "ADDR:PORT", "[V6ADDR]:PORT", "ADDR" or ":PORT".
bool ParseListen(const std::string& text, std::string* address, std::uint16_t* port) {
  std::string host = text;
  std::string port_text = "0";
  if (!text.empty() && text[0] == '[') {
    std::size_t close = text.find(']');
    if (close == std::string::npos) return false;
    host = text.substr(1, close - 1);
    if (close + 1 < text.size()) {
      if (text[close + 1] != ':') return false;
      port_text = text.substr(close + 2);
    }
  } else if (std::size_t colon = text.rfind(':');
             colon != std::string::npos && text.find(':') == colon) {
    host = text.substr(0, colon);
    port_text = text.substr(colon + 1);
  }
  if (host.empty()) host = "127.0.0.1";
  if (port_text.empty() || port_text.size() > 5 ||
      port_text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  unsigned long value = std::stoul(port_text);
  if (value > 65535) return false;
  *address = host;
  *port = static_cast<std::uint16_t>(value);
  return true;
}

bool PlainText(const std::string& text, const char* forbidden) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c <= 0x20 || c >= 0x7f || std::string(forbidden).find(c) != std::string::npos) {
      return false;
    }
  }
  return true;
}

int Run(const CommandLine& options) {
  std::string address;
  std::uint16_t port = 0;
  if (!ParseListen(options.listen, &address, &port)) {
    std::cerr << "quire-server: --listen wants ADDR:PORT, got " << options.listen << "\n";
    return 2;
  }
  if (!PlainText(options.account, "&=")) {
    std::cerr << "quire-server: --account must be printable without blanks, '&' or '='\n";
    return 2;
  }
  std::vector<std::string> tokens = options.tokens;
  if (tokens.empty()) tokens.push_back(kDefaultToken);
  for (const std::string& token : tokens) {
    if (!PlainText(token, "")) {
      std::cerr << "quire-server: a --token must be printable without blanks\n";
      return 2;
    }
  }
  if (options.cert.empty() != options.key.empty()) {
    std::cerr << "quire-server: --cert and --key go together\n";
    return 2;
  }
  if (options.session_timeout_s <= 0 || options.threads <= 0) {
    std::cerr << "quire-server: --session-timeout and --threads must be positive\n";
    return 2;
  }

  // Signals are taken by the main thread only (with sigtimedwait below); every thread started
  // from here on inherits the blocked mask.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  std::unique_ptr<DataFolder> folder = DataFolder::Open(options.data);
  UrlLayout urls(!options.http);
  FrontOptions front_options;
  front_options.address = address;
  front_options.port = port;
  front_options.tls = !options.http;
  front_options.threads = options.threads;
  if (!options.http) {
    front_options.cert_file = options.cert;
    front_options.key_file = options.key;
    if (options.cert.empty()) {
      front_options.cert_file = folder->TlsDir() + "/cert.pem";
      front_options.key_file = folder->TlsDir() + "/key.pem";
      CertificateMaker::Ensure(front_options.cert_file, front_options.key_file,
                               {urls.docs_host(), urls.api_host(), "localhost"},
                               {"127.0.0.1", "::1"});
    }
  }

  Database db(folder->DatabasePath());
  DocumentStore documents(db, *folder);
  UploadSessionStore sessions(db, *folder, options.session_timeout_s * 1000);
  documents.Recover();
  sessions.Recover();

  ServiceOptions service_options;
  service_options.account = options.account;
  service_options.tokens = tokens;
  service_options.max_upload_bytes = options.max_upload_bytes;
  FaultInjector faults(options.faults);
  ServiceHandler handler(service_options, documents, sessions, urls, faults);
  ConnectionContext context;
  context.handler = &handler;
  context.faults = &faults;
  context.verbose = options.verbose;

  HttpFront front(front_options, context);
  front.Start();
  std::string shown = address.find(':') != std::string::npos ? "[" + address + "]" : address;
  std::cout << "quire-server listening on " << (options.http ? "http" : "https") << "://" << shown
            << ":" << front.port() << std::endl;
  std::cerr << "quire-server: data folder " << folder->root()
            << (folder->temporary() ? " (temporary)" : "") << "\n";
  if (!options.http) std::cerr << "quire-server: certificate " << front_options.cert_file << "\n";
  std::cerr << "quire-server: account " << options.account << ", token " << tokens[0]
            << (tokens.size() > 1 ? " (and others)" : "") << std::endl;

  // Idle upload sessions are swept a few times per timeout (at least every minute).
  std::int64_t sweep_ms = std::clamp<std::int64_t>(options.session_timeout_s * 250, 100, 60000);
  while (true) {
    timespec wait{static_cast<time_t>(sweep_ms / 1000),
                  static_cast<long>(sweep_ms % 1000) * 1000000};
    int signal_number = sigtimedwait(&stop_signals, nullptr, &wait);
    if (signal_number == SIGINT || signal_number == SIGTERM) break;
    try {
      sessions.ExpireIdle();
    } catch (const std::exception& error) {
      std::cerr << "quire-server: " << error.what() << std::endl;
    }
  }
  front.Stop();
  std::cerr << "quire-server: stopped" << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine options;
  double fail_percent = 0;
  double cut_percent = 0;
  CLI::App app{
      "quire-server: a local emulator of the quire document service.\n"
      "Serves the user-information endpoint and the document feed of both of the library's host\n"
      "names on one address. Clients reach it by mapping those names to that address, e.g.\n"
      "  curl --connect-to docs.quire.example:443:127.0.0.1:PORT \\\n"
      "       --cacert DATA/tls/cert.pem -H 'Quire-Version: 3.0' \\\n"
      "       -H 'Authorization: Bearer quire-demo-token' \\\n"
      "       https://docs.quire.example/feeds/default/private/full\n"};
  app.footer(
      "On start it prints one line on standard output, for scripts:\n"
      "  quire-server listening on https://ADDR:PORT     (http:// with --http)\n"
      "and the data folder, certificate and account on standard error. It stops cleanly on\n"
      "SIGINT or SIGTERM.\n\n"
      "Emulator controls (same headers as every request; they answer the changed entry):\n"
      "  POST /emulator/documents/ID/star | unstar | trash | restore\n");
  app.add_option("--data", options.data,
                 "Folder that keeps documents, uploads and the certificate across restarts "
                 "(created when missing). Default: a temporary folder removed on exit");
  app.add_option("--listen", options.listen, "ADDR:PORT to listen on; port 0 picks a free one")
      ->capture_default_str();
  app.add_flag("--http", options.http,
               "Plain HTTP instead of HTTPS (addresses handed out say http)");
  app.add_option("--cert", options.cert,
                 "TLS certificate chain (PEM). Default: DATA/tls/cert.pem, made on first start "
                 "for docs.quire.example, api.quire.example, localhost, 127.0.0.1 and ::1");
  app.add_option("--key", options.key, "TLS private key (PEM) for --cert");
  app.add_option("--account", options.account, "E-mail address of the one account")
      ->capture_default_str();
  app.add_option("--token", options.tokens,
                 "Bearer token that authorises requests (repeatable). Default: quire-demo-token");
  app.add_option("--max-upload-bytes", options.max_upload_bytes,
                 "Largest content accepted, in one request or announced for an upload")
      ->capture_default_str();
  app.add_option("--session-timeout", options.session_timeout_s,
                 "Seconds without a request after which an upload session is dropped")
      ->capture_default_str();
  app.add_option("--threads", options.threads, "I/O threads")->capture_default_str();
  app.add_flag("--verbose", options.verbose, "Log one line per request on standard error");
  // Every option from here on is in the group of the faults.
  app.option_defaults()->group("Fault injection (off by default)");
  app.add_option("--fault-close-request-after", options.faults.close_request_after,
                 "Close the connection once a request has sent N bytes (header included)");
  app.add_option("--fault-close-response-after", options.faults.close_response_after,
                 "Close the connection once N bytes of an answer went out (header included)");
  app.add_option("--fault-fail-every", options.faults.fail_every,
                 "Answer 503 to every K-th request");
  app.add_option("--fault-fail-percent", fail_percent,
                 "Answer 503 to this share (0-100, fractions allowed) of requests, chosen at "
                 "random from --fault-seed")
      ->check(CLI::Range(0.0, 100.0));
  app.add_option("--fault-cut-percent", cut_percent,
                 "Cut the connection of this share (0-100) of requests, chosen at random, part-way "
                 "through the request's body (or the answer's when the request has none)")
      ->check(CLI::Range(0.0, 100.0));
  app.add_option("--fault-seed", options.faults.seed,
                 "Seed of the random faults: the same seed and requests give the same faults")
      ->capture_default_str();
  app.add_option("--fault-retry-after", options.faults.retry_after_s,
                 "Retry-After value (seconds) of every injected 503")
      ->capture_default_str();
  app.add_flag("--fault-308-without-range", options.faults.omit_range,
               "Answer 308 without a Range field");
  app.add_option("--fault-range-beyond", options.faults.range_beyond,
                 "Report N bytes more in the Range of a 308 than were received");
  app.add_option("--fault-delay-ms", options.faults.delay_ms, "Delay every answer by N ms");
  app.add_option("--fault-idle-close-ms", options.faults.idle_close_ms,
                 "Close keep-alive connections idle for N ms between requests");
  app.add_option("--fault-body", options.faults.body_file,
                 "Every 2xx answer carries the bytes of FILE as its body instead of its own")
      ->check(CLI::ExistingFile);
  CLI11_PARSE(app, argc, argv);
  options.faults.fail_share = fail_percent / 100.0;
  options.faults.cut_share = cut_percent / 100.0;
  try {
    return Run(options);
  } catch (const std::exception& error) {
    std::cerr << "quire-server: " << error.what() << std::endl;
    return 1;
  }
}
