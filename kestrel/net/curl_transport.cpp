#include "kestrel/net/curl_transport.h"

#include <curl/curl.h>
#include <pthread.h>

#include <QByteArray>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/http_request.h"
#include "kestrel/net/internal/body_storage.h"
#include "kestrel/net/internal/curl_settings.h"
#include "kestrel/net/internal/curl_status.h"
#include "kestrel/net/internal/curl_transfer.h"
#include "kestrel/net/internal/header_lines.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/response_sink.h"

namespace kestrel {
namespace net {
namespace {

using internal::BodyStorage;
using internal::CurlSettings;
using internal::PostCompletion;
using Transfer = internal::CurlTransfer;

// Hosts whose idle connections the connection cache makes room for.
constexpr std::size_t kMaxHostsCounted = 16;
// Easy handles kept for reuse by later requests.
constexpr std::size_t kMaxPooledHandles = 16;
// The longest the I/O thread sleeps in one poll; wake-ups and libcurl's own timers cut it short.
constexpr int kPollMilliseconds = 1000;
// How long the I/O thread stays awake after activity before it sleeps. Within it, the next request
// of a chained operation (issued from a completion handler) or the answer of a nearby server
// usually arrives, and each such request is spared waking a sleeping thread.
constexpr std::chrono::microseconds kSpin(50);

void InitLibcurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// Parses the request's URL into the transfer; false unless it is an http or https URL. Decides
// whether the request goes through the proxy.
bool ParseUrl(const QString& text, Transfer* transfer) {
  transfer->url = curl_url();
  if (transfer->url == nullptr) return false;
  const QByteArray url = text.toUtf8();
  char* scheme = nullptr;
  bool valid = curl_url_set(transfer->url, CURLUPART_URL, url.constData(), 0) == CURLUE_OK &&
               curl_url_get(transfer->url, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
               (std::strcmp(scheme, "https") == 0 || std::strcmp(scheme, "http") == 0);
  transfer->secure = valid && std::strcmp(scheme, "https") == 0;
  curl_free(scheme);
  // The host matters only when a proxy is set for the scheme (the no-proxy list may exempt it).
  const CurlSettings& settings = *transfer->settings;
  char* host = nullptr;
  if (valid && !(transfer->secure ? settings.https_proxy : settings.http_proxy).empty() &&
      curl_url_get(transfer->url, CURLUPART_HOST, &host, 0) == CURLUE_OK) {
    transfer->proxied = settings.Proxied(host, transfer->secure);
  }
  curl_free(host);
  return valid;
}

// Writes the request's header lines into the transfer's list; false for a line that must not be
// sent.
bool WriteHeaderLines(const HttpRequest& http, NetworkRequest::Info::DefaultHeaders defaults,
                      const ConnectionOptions& options, Transfer* transfer) {
  std::vector<QByteArray> lines;
  if (!internal::WriteRequestHeaderLines(http.headers(), defaults, http.method(),
                                         options.keep_alive, &lines)) {
    return false;
  }
  for (const QByteArray& line : lines) {
    if (!internal::AppendCurlLine(line.constData(), &transfer->headers)) return false;
  }
  return true;
}

}  // namespace

// The transport's state and its I/O loop. Hidden: a nested class of an exported class would
// otherwise be exported with it.
struct __attribute__((visibility("hidden"))) CurlTransport::Impl {
  // --- Shared between the main thread and the I/O thread (under `mutex`).
  std::mutex mutex;
  std::vector<Transfer*> queue;
  std::vector<NetworkRequest*> cancels;  // each holds a reference, dropped by the I/O thread
  bool stopping = false;
  std::atomic<bool> queued{false};    // `queue` may be non-empty
  std::atomic<bool> sleeping{false};  // the I/O thread is (about to be) blocked in curl_multi_poll
  std::atomic<std::size_t> in_flight{0};
  std::atomic<bool> resume_wanted{false};  // a response sink has room for a paused transfer

  // --- Main thread.
  std::shared_ptr<const CurlSettings> settings = std::make_shared<CurlSettings>();
  BodyStorage* storage = doNew<BodyStorage>();
  std::thread thread;
  bool started = false;

  // --- Set up before the I/O thread starts; then used by it alone (curl_multi_wakeup excepted).
  CURLM* multi = nullptr;
  CURLSH* share = nullptr;

  // --- I/O thread.
  Transfer* active = nullptr;  // transfers added to `multi`, linked through prev/next
  std::size_t active_count = 0;
  std::vector<CURL*> idle_handles;
  std::vector<std::pair<QString, int>> hosts_seen;
  int idle_per_host = -1;
  long max_host_connections = -1;
  long max_connects = -1;

  void EnsureStarted();
  void Enqueue(Transfer* transfer);
  void Cancel(NetworkRequest* request);
  void Stop();

  void Run();
  void Add(Transfer* transfer);
  void UpdateConnectionCache();
  // Waits a little, awake, for socket activity or a new request; true when one came. A request
  // issued from a completion handler is then picked up without waking a sleeping thread.
  bool Spin();
  // Finishes the transfers libcurl reports done; true when there was one.
  bool Reap();
  // The status of a transfer that libcurl reports done with `result`.
  static std::uint32_t CompletionStatus(const Transfer* transfer, CURLcode result);
  // Takes the cancelled requests off the wire; drops the references that Cancel() took.
  void Drop(const std::vector<NetworkRequest*>& cancelled);
  void Finish(Transfer* transfer, std::uint32_t code);
  // Unpauses the transfers whose response sink asked for more.
  void ResumePaused();
};

void CurlTransport::Impl::EnsureStarted() {
  if (started) return;
  started = true;
  multi = curl_multi_init();
  share = curl_share_init();
  // Everything runs on the I/O thread, so the share needs no lock callbacks.
  curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  thread = std::thread([this] {
    pthread_setname_np(pthread_self(), "kestrel-net");
    Run();
  });
}

void CurlTransport::Impl::Enqueue(Transfer* transfer) {
  EnsureStarted();
  in_flight.fetch_add(1, std::memory_order_relaxed);
  {
    std::lock_guard<std::mutex> lock(mutex);
    queue.push_back(transfer);
    queued.store(true, std::memory_order_release);
  }
  // Only a sleeping I/O thread needs the wake-up; a spinning one sees `queued`. The I/O thread sets
  // `sleeping` before it looks at the queue a last time, so one of the two sees the other.
  if (sleeping.load(std::memory_order_seq_cst)) curl_multi_wakeup(multi);
}

void CurlTransport::Impl::Cancel(NetworkRequest* request) {
  if (!started) return;  // nothing was ever queued, so the request is not ours
  NetworkRequest::AddRef(request);
  {
    std::lock_guard<std::mutex> lock(mutex);
    cancels.push_back(request);
    queued.store(true, std::memory_order_release);
  }
  if (sleeping.load(std::memory_order_seq_cst)) curl_multi_wakeup(multi);
}

void CurlTransport::Impl::Drop(const std::vector<NetworkRequest*>& cancelled) {
  for (NetworkRequest* request : cancelled) {
    for (Transfer* transfer = active; transfer != nullptr; transfer = transfer->next) {
      if (transfer->request == request) {
        Finish(transfer, status::kErrorCancelled);
        break;
      }
    }
    // A request not found has already been handed to the main loop; it completes as cancelled.
    NetworkRequest::ReleaseRef(request);
  }
}

void CurlTransport::Impl::Stop() {
  if (!started) return;
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
    queued.store(true, std::memory_order_release);
    // Under the lock: the I/O thread cannot see `stopping`, and close the wake-up socket, before
    // this call is done with it.
    curl_multi_wakeup(multi);
  }
  thread.join();
}

void CurlTransport::Impl::Run() {
  std::vector<Transfer*> incoming;
  std::vector<NetworkRequest*> cancelled;
  for (;;) {
    bool stop;
    {
      std::lock_guard<std::mutex> lock(mutex);
      incoming.swap(queue);
      cancelled.swap(cancels);
      queued.store(false, std::memory_order_relaxed);
      stop = stopping;
    }
    if (stop) {
      for (Transfer* transfer : incoming) Finish(transfer, status::kErrorUnknown);
      for (NetworkRequest* request : cancelled) NetworkRequest::ReleaseRef(request);
      break;
    }
    const bool added = !incoming.empty() || !cancelled.empty();
    for (Transfer* transfer : incoming) Add(transfer);
    incoming.clear();
    // After the new transfers joined, so that a request cancelled right after its start is found.
    Drop(cancelled);
    cancelled.clear();
    if (resume_wanted.exchange(false, std::memory_order_acq_rel)) ResumePaused();
    UpdateConnectionCache();
    int running = 0;
    curl_multi_perform(multi, &running);
    const bool finished = Reap();
    if ((added || finished || running > 0) && Spin()) continue;
    storage->Trim();
    sleeping.store(true, std::memory_order_seq_cst);
    bool empty;
    {
      std::lock_guard<std::mutex> lock(mutex);
      empty = queue.empty() && !stopping && !resume_wanted.load(std::memory_order_acquire);
    }
    if (empty) curl_multi_poll(multi, nullptr, 0, kPollMilliseconds, nullptr);
    sleeping.store(false, std::memory_order_relaxed);
  }
  // Stopping: whatever is still on its way fails, keeping what had arrived.
  while (active != nullptr) Finish(active, status::kErrorUnknown);
  for (CURL* easy : idle_handles) curl_easy_cleanup(easy);
  idle_handles.clear();
  curl_multi_cleanup(multi);
  curl_share_cleanup(share);
}

void CurlTransport::Impl::Add(Transfer* transfer) {
  CURL* easy = nullptr;
  if (!idle_handles.empty()) {
    easy = idle_handles.back();
    idle_handles.pop_back();
  } else {
    easy = curl_easy_init();
  }
  transfer->prev = nullptr;
  transfer->next = active;
  if (active != nullptr) active->prev = transfer;
  active = transfer;
  ++active_count;
  if (easy == nullptr) {
    Finish(transfer, status::kErrorUnknown);
    return;
  }
  transfer->easy = easy;
  transfer->SetUpHandle(easy);
  curl_easy_setopt(easy, CURLOPT_SHARE, share);
  if (transfer->sink != nullptr) {
    transfer->sink->SetWaker([this] {
      resume_wanted.store(true, std::memory_order_release);
      curl_multi_wakeup(multi);
    });
  }

  const ConnectionOptions& options = transfer->options;
  if (options.max_connections_per_host != max_host_connections) {
    max_host_connections = options.max_connections_per_host;
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS,
                      std::max(0L, static_cast<long>(max_host_connections)));
  }
  idle_per_host = options.max_idle_connections_per_host;
  const auto host = std::make_pair(transfer->host, transfer->port);
  if (hosts_seen.size() < kMaxHostsCounted &&
      std::find(hosts_seen.begin(), hosts_seen.end(), host) == hosts_seen.end()) {
    hosts_seen.push_back(host);
  }

  if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
    Finish(transfer, status::kErrorUnknown);
    return;
  }
  transfer->in_multi = true;
}

// libcurl's cache limit counts every connection, busy or idle. Allowing the busy ones plus the idle
// allowance per host keeps `max_idle_connections_per_host` idle ones without closing connections
// that queued requests are about to reuse.
void CurlTransport::Impl::UpdateConnectionCache() {
  const long idle = std::max(0, idle_per_host) * static_cast<long>(hosts_seen.size());
  const long wanted = std::max(1L, static_cast<long>(active_count) + idle);
  if (wanted == max_connects) return;
  max_connects = wanted;
  curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, wanted);
}

bool CurlTransport::Impl::Spin() {
  const auto deadline = std::chrono::steady_clock::now() + kSpin;
  do {
    int ready = 0;
    curl_multi_poll(multi, nullptr, 0, 0, &ready);
    if (ready > 0 || queued.load(std::memory_order_acquire) ||
        resume_wanted.load(std::memory_order_acquire)) {
      return true;
    }
    std::this_thread::yield();
  } while (std::chrono::steady_clock::now() < deadline);
  return false;
}

bool CurlTransport::Impl::Reap() {
  bool finished = false;
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    Transfer* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, reinterpret_cast<char**>(&transfer));
    Finish(transfer, CompletionStatus(transfer, message->data.result));
    finished = true;
  }
  return finished;
}

std::uint32_t CurlTransport::Impl::CompletionStatus(const Transfer* transfer, CURLcode result) {
  if (result == CURLE_OK) {
    long http_code = 0;
    curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &http_code);
    return internal::StatusForCurlAnswer(http_code, transfer->header_complete);
  }
  if (!transfer->proxied) return internal::StatusForCurlError(result);
  long connect_code = 0;
  curl_easy_getinfo(transfer->easy, CURLINFO_HTTP_CONNECTCODE, &connect_code);
  return internal::StatusForProxiedCurlError(result, connect_code);
}

void CurlTransport::Impl::ResumePaused() {
  for (Transfer* transfer = active; transfer != nullptr;) {
    Transfer* next = transfer->next;
    if (transfer->paused && transfer->easy != nullptr) {
      transfer->paused = false;
      // May hand the held bytes to the sink at once, which may pause the transfer again.
      curl_easy_pause(transfer->easy, CURLPAUSE_CONT);
    }
    transfer = next;
  }
}

void CurlTransport::Impl::Finish(Transfer* transfer, std::uint32_t code) {
  // The sink's waker refers to this transport: detached before the transfer is gone.
  if (transfer->sink != nullptr) transfer->sink->SetWaker({});
  CURL* easy = transfer->easy;
  if (easy != nullptr && transfer->in_multi) curl_multi_remove_handle(multi, easy);
  if (transfer->prev != nullptr || transfer->next != nullptr || active == transfer) {
    if (transfer->prev != nullptr) transfer->prev->next = transfer->next;
    if (transfer->next != nullptr) transfer->next->prev = transfer->prev;
    if (active == transfer) active = transfer->next;
    --active_count;
  }

  HttpRequest* http = transfer->http;
  http->SetResponseStatus(code);
  transfer->FlushLastLine();
  // The last figures, unless they were already reported; queued ahead of the completion.
  if (transfer->report_progress && code != status::kErrorCancelled && easy != nullptr) {
    transfer->ReportFinalProgress();
  }
  // From here on the request belongs to the main loop; the handle is recycled meanwhile.
  PostCompletion(transfer->request);
  if (easy != nullptr) {
    if (idle_handles.size() < kMaxPooledHandles) {
      curl_easy_reset(easy);
      idle_handles.push_back(easy);
    } else {
      curl_easy_cleanup(easy);
    }
  }
  doDelete(transfer);
  // Released last, so that whoever sees the count drop finds the completion queued and the
  // transfer's memory given back.
  in_flight.fetch_sub(1, std::memory_order_release);
}

CurlTransport::CurlTransport() : impl_(doNew<Impl>()) {
  InitLibcurlOnce();
  Configure(CurlTransportConfig());
}

CurlTransport::~CurlTransport() {
  impl_->Stop();
  impl_->storage->Close();
  doDelete(impl_);
}

CurlTransport* CurlTransport::Default() {
  static CurlTransport* const transport = new CurlTransport();
  return transport;
}

bool CurlTransport::Configure(const CurlTransportConfig& config) {
  auto settings = std::make_shared<CurlSettings>();
  if (!settings->Build(config)) return false;
  impl_->settings = std::move(settings);
  return true;
}

void CurlTransport::Start(NetworkRequest* request, const ServerInfo& server,
                          const ConnectionOptions& options) {
  HttpRequest* http = request->GetHttpRequest();
  auto* transfer = doNew<Transfer>();
  transfer->request = request;
  transfer->http = http;
  transfer->settings = impl_->settings;
  transfer->storage = impl_->storage;
  transfer->options = options;
  transfer->host = server.host();
  transfer->port = server.port();
  transfer->method = http->method();
  transfer->keep_headers = request->keep_response_headers();
  transfer->sink = request->response_sink();
  transfer->send_user_agent = request->default_headers() != NetworkRequest::Info::kNoDefaultHeaders;
  transfer->report_progress = request->report_progress();

  const bool valid = server.valid() && ParseUrl(http->url(), transfer) &&
                     WriteHeaderLines(*http, request->default_headers(), options, transfer);
  if (!valid) {
    doDelete(transfer);
    http->SetResponseStatus(status::kErrorInvalidRequest);
    PostCompletion(request);
    return;
  }
  if (transfer->method == HttpRequest::kPost || transfer->method == HttpRequest::kPut) {
    static const char kEmpty[1] = {0};
    transfer->body = http->body().isEmpty() ? kEmpty : http->body().constData();
    transfer->body_size = static_cast<std::size_t>(http->body().size());
  }
  impl_->Enqueue(transfer);
}

void CurlTransport::Cancel(NetworkRequest* request) { impl_->Cancel(request); }

std::size_t CurlTransport::in_flight() const {
  return impl_->in_flight.load(std::memory_order_acquire);
}

}  // namespace net
}  // namespace kestrel