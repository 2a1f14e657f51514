#include "kestrel/net/curl_transport.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <pthread.h>

#include <QByteArray>
#include <QFile>
#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/byte_buffer.h"
#include "kestrel/net/http_request.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/response_sink.h"

namespace kestrel {
namespace net {
namespace {

// libcurl's receive buffer: large reads mean few calls into the body writer on big downloads.
constexpr long kReceiveBufferBytes = 512 * 1024;
// libcurl's upload buffer (its maximum is 2 MiB).
constexpr long kUploadBufferBytes = 1024 * 1024;
// A Content-Length up to this is reserved in one piece before the first body byte; beyond it the
// buffer grows as bytes arrive, so a server cannot make us reserve what it never sends.
constexpr curl_off_t kMaxReservedBodyBytes = curl_off_t{2} * 1024 * 1024 * 1024;
// A request with a response sink keeps at most this much of a body that is not 2xx (an error
// document) in its buffer; a longer one stops the transfer.
constexpr std::size_t kMaxSinkErrorBodyBytes = std::size_t{1} << 20;
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

// Progress is reported whenever this many more bytes have moved, or kProgressInterval has passed
// with bytes moving (and never while a report of the same request waits in the main loop).
constexpr curl_off_t kProgressBytes = 256 * 1024;
constexpr std::chrono::milliseconds kProgressInterval(100);

// Bodies announced at least this large get their storage from the transport's recycled blocks.
constexpr std::size_t kMinRecycledBytes = std::size_t{1} << 20;
// Released body storage kept for reuse: at most this many blocks and bytes, for at most this long.
constexpr std::size_t kMaxRecycledBlocks = 4;
constexpr std::size_t kMaxRecycledBytes = std::size_t{2} << 30;
constexpr std::chrono::seconds kRecycledLifetime(10);

void InitLibcurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool ReadWholeFile(const QString& path, std::string* out) {
  QFile file(path);
  if (!file.open(QIODevice::ReadOnly)) return false;
  const QByteArray bytes = file.readAll();
  out->assign(bytes.constData(), static_cast<std::size_t>(bytes.size()));
  return true;
}

// The parts of a CurlTransportConfig in the form libcurl takes them. Immutable once built; every
// transfer keeps the one it started with.
struct Settings {
  Settings() = default;
  Settings(const Settings&) = delete;
  Settings& operator=(const Settings&) = delete;
  ~Settings() { curl_slist_free_all(connect_to); }

  curl_slist* connect_to = nullptr;  // "host::address:port" lines
  std::string extra_ca_pem;          // empty: libcurl's default authorities only
  std::string user_agent;
  bool insecure = false;
  // The proxy: empty strings mean none.
  std::string http_proxy;
  std::string https_proxy;
  std::string proxy_user;
  std::string proxy_password;
  std::vector<std::string> no_proxy;  // lower case, without a leading dot
};

// Checks a proxy address and writes it as libcurl should take it (with its scheme). An empty
// address is valid and stays empty.
bool NormaliseProxy(const QString& address, std::string* out) {
  out->clear();
  const QString trimmed = address.trimmed();
  if (trimmed.isEmpty()) return true;
  CURLU* url = curl_url();
  if (url == nullptr) return false;
  bool valid = curl_url_set(url, CURLUPART_URL, trimmed.toUtf8().constData(),
                            CURLU_DEFAULT_SCHEME | CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
  char* scheme = nullptr;
  char* host = nullptr;
  char* path = nullptr;
  char* full = nullptr;
  valid = valid && curl_url_get(url, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
          curl_url_get(url, CURLUPART_HOST, &host, 0) == CURLUE_OK && host[0] != '\0' &&
          curl_url_get(url, CURLUPART_PATH, &path, 0) == CURLUE_OK &&
          (path[0] == '\0' || std::strcmp(path, "/") == 0);
  if (valid) {
    static const char* const kSchemes[] = {"http",    "https",  "socks4",
                                           "socks4a", "socks5", "socks5h"};
    valid = false;
    for (const char* known : kSchemes) valid = valid || std::strcmp(scheme, known) == 0;
  }
  if (valid) valid = curl_url_get(url, CURLUPART_URL, &full, 0) == CURLUE_OK;
  if (valid) out->assign(full);
  curl_free(scheme);
  curl_free(host);
  curl_free(path);
  curl_free(full);
  curl_url_cleanup(url);
  return valid;
}

// Parses an IPv4 or IPv6 address (brackets allowed) into 16 bytes; `bits` is 32 or 128.
bool ParseAddress(std::string text, unsigned char (&bytes)[16], int* bits) {
  if (text.size() >= 2 && text.front() == '[' && text.back() == ']') {
    text = text.substr(1, text.size() - 2);
  }
  std::memset(bytes, 0, sizeof(bytes));
  if (::inet_pton(AF_INET, text.c_str(), bytes) == 1) {
    *bits = 32;
    return true;
  }
  if (::inet_pton(AF_INET6, text.c_str(), bytes) == 1) {
    *bits = 128;
    return true;
  }
  return false;
}

// Whether `host` (lower case, as the URL gives it) is one that `entry` of the no-proxy list names:
// "*" names every host, an address (with "/bits", a network) names the addresses in it, and a
// name names itself and every name below it.
bool NoProxyMatches(const std::string& host, const std::string& entry) {
  if (entry == "*") return true;
  unsigned char host_bytes[16];
  int host_bits = 0;
  const bool host_is_address = ParseAddress(host, host_bytes, &host_bits);
  const std::size_t slash = entry.find('/');
  unsigned char entry_bytes[16];
  int entry_bits = 0;
  if (ParseAddress(entry.substr(0, slash), entry_bytes, &entry_bits)) {
    if (!host_is_address || host_bits != entry_bits) return false;
    int prefix = entry_bits;
    if (slash != std::string::npos) {
      prefix = std::atoi(entry.c_str() + slash + 1);
      if (prefix < 0 || prefix > entry_bits) return false;
    }
    for (int bit = 0; bit < prefix; ++bit) {
      const unsigned char mask = static_cast<unsigned char>(0x80 >> (bit % 8));
      if ((host_bytes[bit / 8] & mask) != (entry_bytes[bit / 8] & mask)) return false;
    }
    return true;
  }
  if (host_is_address || slash != std::string::npos) return false;
  if (host == entry) return true;
  return host.size() > entry.size() &&
         host.compare(host.size() - entry.size(), entry.size(), entry) == 0 &&
         host[host.size() - entry.size() - 1] == '.';
}

// Whether a no-proxy entry is one libcurl understands: a name, an address (IPv6 without brackets
// or with), optionally with "/bits", or "*".
bool ValidNoProxyEntry(const QString& entry) {
  if (entry.isEmpty()) return false;
  for (const QChar c : entry) {
    const ushort u = c.unicode();
    const bool ok = (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') ||
                    u == '.' || u == '-' || u == '_' || u == ':' || u == '/' || u == '*' ||
                    u == '[' || u == ']';
    if (!ok) return false;
  }
  return true;
}

// The storage of large response bodies, kept for a while after the request that held it was
// released, so that the next large body lands in memory that is already mapped. Fresh memory costs
// the kernel a page fault and the clearing of every page, which for a large download costs more
// than receiving it. Blocks come from the memory manager and go back to it when they have not been
// reused within kRecycledLifetime, when the limits are exceeded, or when the transport is gone.
// Counted: the transport holds one reference and every block handed out holds one, because a
// request's buffer may outlive the transport.
class BodyStorage : public ByteBuffer::StorageSource {
 public:
  BodyStorage() = default;
  BodyStorage(const BodyStorage&) = delete;
  BodyStorage& operator=(const BodyStorage&) = delete;

  // A kept block of `capacity` to twice `capacity` bytes (the smallest), else a fresh one.
  char* Take(std::size_t capacity, std::size_t* size) override {
    references_.fetch_add(1, std::memory_order_relaxed);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto best = blocks_.end();
      for (auto it = blocks_.begin(); it != blocks_.end(); ++it) {
        if (it->size >= capacity && it->size / 2 <= capacity &&
            (best == blocks_.end() || it->size < best->size)) {
          best = it;
        }
      }
      if (best != blocks_.end()) {
        char* data = best->data;
        *size = best->size;
        kept_bytes_ -= best->size;
        blocks_.erase(best);
        return data;
      }
    }
    *size = capacity;
    return static_cast<char*>(MemoryManager::Default()->Malloc(capacity));
  }

  void Give(char* data, std::size_t size) override {
    std::vector<char*, MMAlloc<char*>> dropped;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (open_ && size <= kMaxRecycledBytes) {
        blocks_.push_back({data, size, std::chrono::steady_clock::now()});
        kept_bytes_ += size;
        // The oldest go first.
        while (blocks_.size() > kMaxRecycledBlocks || kept_bytes_ > kMaxRecycledBytes) {
          dropped.push_back(PopOldest());
        }
      } else {
        dropped.push_back(data);
      }
    }
    for (char* block : dropped) MemoryManager::Default()->Free(block);
    Unref();
  }

  // Frees the blocks kept for longer than kRecycledLifetime.
  void Trim() {
    std::vector<char*, MMAlloc<char*>> dropped;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (blocks_.empty()) return;
      const auto oldest = std::chrono::steady_clock::now() - kRecycledLifetime;
      while (!blocks_.empty() && blocks_.front().released < oldest) dropped.push_back(PopOldest());
    }
    for (char* block : dropped) MemoryManager::Default()->Free(block);
  }

  // The transport is going: every kept block is freed, blocks given back later are freed at once,
  // and the transport's reference is dropped.
  void Close() {
    std::vector<char*, MMAlloc<char*>> dropped;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      open_ = false;
      while (!blocks_.empty()) dropped.push_back(PopOldest());
    }
    for (char* block : dropped) MemoryManager::Default()->Free(block);
    Unref();
  }

  ~BodyStorage() override = default;

 private:
  struct Block {
    char* data;
    std::size_t size;
    std::chrono::steady_clock::time_point released;
  };

  // Takes the block released first out of the kept ones; the caller holds mutex_ and frees the
  // memory after letting go of it.
  char* PopOldest() {
    char* data = blocks_.front().data;
    kept_bytes_ -= blocks_.front().size;
    blocks_.erase(blocks_.begin());
    return data;
  }

  void Unref() {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) doDelete(this);
  }

  std::atomic<long> references_{1};
  std::mutex mutex_;
  bool open_ = true;
  std::vector<Block, MMAlloc<Block>> blocks_;  // in release order
  std::size_t kept_bytes_ = 0;
};

// One request on its way through the transport. Built by Start() on the main thread, then owned by
// the I/O thread until the completion is posted.
struct Transfer {
  KESTREL_MANAGED_ALLOCATION

 public:
  NetworkRequest* request = nullptr;
  HttpRequest* http = nullptr;
  std::shared_ptr<const Settings> settings;
  ConnectionOptions options;
  QString host;
  int port = 0;
  CURLU* url = nullptr;
  curl_slist* headers = nullptr;
  HttpRequest::MethodType method = HttpRequest::kGet;
  bool send_user_agent = false;
  bool keep_headers = false;
  bool secure = false;   // an https:// request, which takes the https proxy
  bool proxied = false;  // it goes through the proxy (one is set and the host is not exempt)
  const char* body = nullptr;
  std::size_t body_size = 0;
  std::size_t body_offset = 0;
  bool report_progress = false;

  // I/O thread only.
  CURL* easy = nullptr;
  bool in_multi = false;
  Transfer* prev = nullptr;
  Transfer* next = nullptr;
  // The response whose header block is arriving (a 1xx interim response is replaced by the next).
  // Its lines go straight into the request, except the latest, which an obsolete continuation line
  // may still extend.
  int response_code = 0;
  curl_off_t content_length = -1;
  // Whether the blank line that ends its header block has arrived. libcurl reports a connection
  // that closes in the middle of the header lines as a success; this tells the two apart.
  bool header_complete = false;
  QString last_line;
  ByteBuffer* buffer = nullptr;
  BodyStorage* storage = nullptr;  // the transport's recycled body storage
  // The request's response sink (null: the body goes to `buffer`), whether the current answer's
  // head went to it, and whether libcurl holds the transfer paused because the sink was full.
  ResponseSink* sink = nullptr;
  bool sink_head_sent = false;
  bool paused = false;
  // Progress: the figures and time of the last report handed to the request.
  curl_off_t sent = 0;
  curl_off_t received = 0;
  curl_off_t to_receive = -1;
  curl_off_t reported_bytes = 0;
  std::chrono::steady_clock::time_point reported_at;
};

void FreeTransfer(Transfer* transfer) {
  curl_slist_free_all(transfer->headers);
  curl_url_cleanup(transfer->url);
  doDelete(transfer);
}

// Hands a finished request to the main loop, which reports it and drops the transport's reference.
void PostCompletion(NetworkRequest* request) {
  MainLoop::Default()->Post([request] {
    request->Complete();
    NetworkRequest::ReleaseRef(request);
  });
}

// Hands the transfer's newest figures to its request and, unless a report is already waiting,
// queues one on the main loop. The job holds a reference, so the request outlives it.
void ReportProgress(Transfer* transfer) {
  TransferProgress progress;
  progress.bytes_sent = transfer->sent;
  progress.bytes_to_send = static_cast<std::int64_t>(transfer->body_size);
  progress.bytes_received = transfer->received;
  progress.bytes_to_receive = transfer->to_receive;
  transfer->reported_bytes = transfer->sent + transfer->received;
  transfer->reported_at = std::chrono::steady_clock::now();
  NetworkRequest* request = transfer->request;
  if (!request->UpdateProgress(progress)) return;
  NetworkRequest::AddRef(request);
  MainLoop::Default()->Post([request] {
    request->DeliverProgress();
    NetworkRequest::ReleaseRef(request);
  });
}

// libcurl's progress callback: reports when 256 KiB more have moved or 100 ms have passed with
// bytes moving.
int OnTransferInfo(void* user, curl_off_t download_total, curl_off_t download_now,
                   curl_off_t /*upload_total*/, curl_off_t upload_now) {
  auto* transfer = static_cast<Transfer*>(user);
  transfer->sent = upload_now;
  transfer->received = download_now;
  transfer->to_receive = download_total > 0 ? download_total : transfer->content_length;
  const curl_off_t moved = upload_now + download_now - transfer->reported_bytes;
  if (moved <= 0) return 0;
  if (moved >= kProgressBytes ||
      std::chrono::steady_clock::now() - transfer->reported_at >= kProgressInterval) {
    ReportProgress(transfer);
  }
  return 0;
}

bool IsSpace(char c) { return c == ' ' || c == '\t'; }

// Whether `name` (not NUL-terminated, `length` bytes) is `lower` ignoring ASCII case.
bool NameIs(const char* name, std::size_t length, const char* lower) {
  if (std::strlen(lower) != length) return false;
  for (std::size_t i = 0; i < length; ++i) {
    char c = name[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != lower[i]) return false;
  }
  return true;
}

// Header names the transport fills in itself unless the caller sends them.
struct CallerHeaders {
  bool accept = false;
  bool expect = false;
  bool content_type = false;
  bool connection = false;
};

// Appends the caller's line to `list`. Returns false for a line that must not be sent: CR, LF or
// NUL anywhere, no name before a colon, or a leading blank (which would continue the previous
// line).
bool AppendCallerLine(const RequestHeader& header, curl_slist** list, CallerHeaders* seen) {
  if (header.type != 0) return false;
  QByteArray line = header.value.isNull()
                        ? header.name.toUtf8()
                        : (header.name + QLatin1String(": ") + header.value).toUtf8();
  const char* data = line.constData();
  const std::size_t size = static_cast<std::size_t>(line.size());
  if (size == 0 || IsSpace(data[0])) return false;
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == '\r' || data[i] == '\n' || data[i] == '\0') return false;
  }
  const char* colon = static_cast<const char*>(std::memchr(data, ':', size));
  if (colon == nullptr || colon == data) return false;
  std::size_t name_length = static_cast<std::size_t>(colon - data);
  while (name_length > 0 && IsSpace(data[name_length - 1])) --name_length;
  if (name_length == 0) return false;
  seen->accept |= NameIs(data, name_length, "accept");
  seen->expect |= NameIs(data, name_length, "expect");
  seen->content_type |= NameIs(data, name_length, "content-type");
  seen->connection |= NameIs(data, name_length, "connection");

  const char* value = colon + 1;
  while (value < data + size && IsSpace(*value)) ++value;
  if (value == data + size) {
    // libcurl takes "Name:" with nothing after it as "do not send Name"; "Name;" is its spelling
    // for a line with an empty value.
    line.truncate(static_cast<int>(name_length));
    line.append(';');
  }
  curl_slist* grown = curl_slist_append(*list, line.constData());
  if (grown == nullptr) return false;
  *list = grown;
  return true;
}

bool AppendLine(const char* line, curl_slist** list) {
  curl_slist* grown = curl_slist_append(*list, line);
  if (grown == nullptr) return false;
  *list = grown;
  return true;
}

std::uint32_t StatusForError(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return status::kErrorNameNotResolved;
    case CURLE_COULDNT_CONNECT:
      return status::kErrorConnectionRefused;
    case CURLE_OPERATION_TIMEDOUT:
      return status::kErrorTimedOut;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_USE_SSL_FAILED:
      // A handshake the network may have cut: another attempt can succeed.
      return status::kErrorTls;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CLIENTCERT:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
      // The peer's certificate was refused, or the local TLS setup cannot be used: the same
      // refusal would come every time.
      return status::kErrorCertificate;
    case CURLE_RECV_ERROR:
      return status::kErrorConnectionReset;
    case CURLE_SEND_ERROR:
      return status::kErrorSendFailed;
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
      return status::kErrorResponseTruncated;
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
      return status::kErrorInvalidRequest;
    default:
      return status::kErrorUnknown;
  }
}

// The code of a failed request that went to a proxy: what the proxy did, when it was the proxy
// that failed, else `code`.
std::uint32_t ProxyStatus(CURL* easy, CURLcode result, std::uint32_t code) {
  long connect_code = 0;
  curl_easy_getinfo(easy, CURLINFO_HTTP_CONNECTCODE, &connect_code);
  // Some proxies answer wrong credentials with 401 rather than 407.
  if (connect_code == 407 || connect_code == 401) return status::kErrorProxyAuthenticationRequired;
  if (connect_code >= 300) return status::kErrorProxyRefused;
  switch (result) {
    case CURLE_COULDNT_RESOLVE_PROXY:
      return status::kErrorProxyUnreachable;
    case CURLE_COULDNT_CONNECT:
      // Through a proxy the only connection made here is the proxy's.
      return status::kErrorProxyUnreachable;
    case CURLE_PROXY:
      return status::kErrorProxyRefused;
    default:
      return code;
  }
}

// Hands the latest header line of the response, if any, to the request.
void FlushLastLine(Transfer* transfer) {
  if (!transfer->last_line.isNull()) transfer->http->AddResponseHeader(transfer->last_line);
}

// Keeps `line` as the latest header line of the response, handing the one before to the request.
void KeepLine(Transfer* transfer, QString line) {
  FlushLastLine(transfer);
  transfer->last_line = std::move(line);
}

// --- libcurl callbacks (I/O thread).

size_t OnHeaderLine(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const size_t total = size * count;
  size_t length = total;
  while (length > 0 && (data[length - 1] == '\n' || data[length - 1] == '\r')) --length;
  if (length == 0) {  // the blank line that ends a header block
    transfer->header_complete = true;
    return total;
  }

  if (length >= 5 && std::memcmp(data, "HTTP/", 5) == 0) {
    // A status line starts a new response; what an interim (1xx) response said is dropped.
    const char* code = static_cast<const char*>(std::memchr(data, ' ', length));
    int number = 0;
    if (code != nullptr) {
      for (++code; code < data + length && *code >= '0' && *code <= '9'; ++code) {
        number = number * 10 + (*code - '0');
      }
    }
    transfer->response_code = number;
    transfer->sink_head_sent = false;
    transfer->content_length = -1;
    transfer->header_complete = false;
    transfer->http->ClearResponse();
    transfer->last_line = QString();
    return total;
  }

  if (IsSpace(data[0])) {
    // An obsolete continuation line: joins the previous line's value with one blank.
    size_t start = 0;
    while (start < length && IsSpace(data[start])) ++start;
    if (transfer->keep_headers && !transfer->last_line.isNull() && start < length) {
      QString& previous = transfer->last_line;
      previous.append(QLatin1Char(' '));
      previous.append(QLatin1String(data + start, static_cast<int>(length - start)));
    }
    return total;
  }

  const char* colon = static_cast<const char*>(std::memchr(data, ':', length));
  if (colon == nullptr) {
    if (transfer->keep_headers)
      KeepLine(transfer, QString::fromLatin1(data, static_cast<int>(length)));
    return total;
  }
  size_t name_length = static_cast<size_t>(colon - data);
  while (name_length > 0 && IsSpace(data[name_length - 1])) --name_length;
  const char* value = colon + 1;
  const char* end = data + length;
  while (value < end && IsSpace(*value)) ++value;
  while (end > value && IsSpace(end[-1])) --end;
  const size_t value_length = static_cast<size_t>(end - value);

  if (NameIs(data, name_length, "content-length")) {
    curl_off_t parsed = 0;
    bool ok = value_length > 0 && value_length <= 18;
    for (const char* p = value; ok && p < end; ++p) {
      if (*p < '0' || *p > '9') ok = false;
      parsed = parsed * 10 + (*p - '0');
    }
    transfer->content_length = ok ? parsed : -1;
  }
  if (transfer->keep_headers) {
    // Header bytes are taken as Latin-1, which keeps every byte the server sent.
    QString line;
    line.reserve(static_cast<int>(name_length + 2 + value_length));
    line.append(QLatin1String(data, static_cast<int>(name_length)));
    line.append(QLatin1String(": "));
    line.append(QLatin1String(value, static_cast<int>(value_length)));
    KeepLine(transfer, std::move(line));
  }
  return total;
}

// The body of a 2xx answer, for a request with a response sink: the head first, then the pieces;
// a full sink pauses the transfer (libcurl hands the same bytes again after the unpause).
size_t OnSinkBytes(Transfer* transfer, char* data, size_t total) {
  if (!transfer->sink_head_sent) {
    transfer->sink_head_sent = true;
    // The header block is complete once the body starts: no continuation line can follow.
    FlushLastLine(transfer);
    transfer->last_line = QString();
    std::vector<QString> lines;
    const HttpRequest* http = transfer->http;
    lines.reserve(static_cast<std::size_t>(http->GetResponseHeaderCount()));
    for (int i = 0; i < http->GetResponseHeaderCount(); ++i) {
      lines.push_back(*http->GetResponseHeader(i));
    }
    transfer->sink->PushHead(transfer->response_code, std::move(lines));
  }
  switch (transfer->sink->Push(data, total)) {
    case ResponseSink::PushResult::kTaken:
      return total;
    case ResponseSink::PushResult::kFull:
      transfer->paused = true;
      return CURL_WRITEFUNC_PAUSE;
    case ResponseSink::PushResult::kStopped:
    default:
      return 0;
  }
}

size_t OnBodyBytes(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const size_t total = size * count;
  if (transfer->sink != nullptr) {
    if (transfer->response_code >= 200 && transfer->response_code <= 299) {
      return OnSinkBytes(transfer, data, total);
    }
    const ByteBuffer* kept = transfer->http->GetResponseBuffer();
    if (kept != nullptr && kept->size() + total > kMaxSinkErrorBodyBytes) return 0;
    transfer->http->MutableResponseBuffer()->Append(data, total);
    return total;
  }
  if (transfer->buffer == nullptr) {
    transfer->buffer = transfer->http->MutableResponseBuffer();
    if (transfer->content_length > 0) {
      const auto reserved =
          static_cast<std::size_t>(std::min(transfer->content_length, kMaxReservedBodyBytes));
      if (reserved >= kMinRecycledBytes) {
        transfer->buffer->ReserveFrom(transfer->storage, reserved);
      } else {
        transfer->buffer->Reserve(reserved);
      }
    }
  }
  transfer->buffer->Append(data, total);
  return total;
}

size_t OnUploadBytes(char* out, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const size_t room = size * count;
  const size_t left = transfer->body_size - transfer->body_offset;
  const size_t n = std::min(room, left);
  if (n > 0) std::memcpy(out, transfer->body + transfer->body_offset, n);
  transfer->body_offset += n;
  return n;
}

// libcurl rewinds the body when it sends the request again on a fresh connection.
int OnUploadSeek(void* user, curl_off_t offset, int origin) {
  auto* transfer = static_cast<Transfer*>(user);
  if (origin != SEEK_SET || offset < 0 || static_cast<std::size_t>(offset) > transfer->body_size) {
    return CURL_SEEKFUNC_CANTSEEK;
  }
  transfer->body_offset = static_cast<std::size_t>(offset);
  return CURL_SEEKFUNC_OK;
}

}  // namespace

struct CurlTransport::Impl {
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
  std::shared_ptr<const Settings> settings = std::make_shared<Settings>();
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
  void SetUpHandle(Transfer* transfer, CURL* easy);
  void UpdateConnectionCache();
  // Waits a little, awake, for socket activity or a new request; true when one came. A request
  // issued from a completion handler is then picked up without waking a sleeping thread.
  bool Spin();
  // Finishes the transfers libcurl reports done; true when there was one.
  bool Reap();
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
  SetUpHandle(transfer, easy);
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

void CurlTransport::Impl::SetUpHandle(Transfer* transfer, CURL* easy) {
  const Settings& settings = *transfer->settings;
  const ConnectionOptions& options = transfer->options;
  curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer);
  curl_easy_setopt(easy, CURLOPT_SHARE, share);
  curl_easy_setopt(easy, CURLOPT_CURLU, transfer->url);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  // The proxy for the request's scheme; an empty one also turns off the proxy variables of the
  // environment, which the transport never reads.
  const std::string& proxy = transfer->secure ? settings.https_proxy : settings.http_proxy;
  curl_easy_setopt(easy, CURLOPT_PROXY, transfer->proxied ? proxy.c_str() : "");
  if (transfer->proxied) {
    // The proxy's answer to CONNECT is not the server's: it stays out of the response headers.
    curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    if (!settings.proxy_user.empty()) {
      curl_easy_setopt(easy, CURLOPT_PROXYUSERNAME, settings.proxy_user.c_str());
      curl_easy_setopt(easy, CURLOPT_PROXYPASSWORD, settings.proxy_password.c_str());
      curl_easy_setopt(easy, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY));
    }
    // An https proxy's own certificate is checked like the server's.
    curl_easy_setopt(easy, CURLOPT_PROXY_SSL_VERIFYPEER, settings.insecure ? 0L : 1L);
    curl_easy_setopt(easy, CURLOPT_PROXY_SSL_VERIFYHOST, settings.insecure ? 0L : 2L);
    if (!settings.extra_ca_pem.empty()) {
      curl_blob blob{};
      blob.data = const_cast<char*>(settings.extra_ca_pem.data());
      blob.len = settings.extra_ca_pem.size();
      blob.flags = CURL_BLOB_NOCOPY;
      curl_easy_setopt(easy, CURLOPT_PROXY_CAINFO_BLOB, &blob);
    }
  }
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBufferBytes);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer->headers);
  if (transfer->send_user_agent && !settings.user_agent.empty()) {
    curl_easy_setopt(easy, CURLOPT_USERAGENT, settings.user_agent.c_str());
  }
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &OnHeaderLine);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &OnBodyBytes);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer);
  if (transfer->report_progress) {
    transfer->reported_at = std::chrono::steady_clock::now();
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &OnTransferInfo);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, transfer);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  }

  // TLS.
  const long verify = settings.insecure ? 0L : 1L;
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, verify);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, settings.insecure ? 0L : 2L);
  if (!settings.extra_ca_pem.empty()) {
    curl_blob blob;
    blob.data = const_cast<char*>(settings.extra_ca_pem.data());
    blob.len = settings.extra_ca_pem.size();
    blob.flags = CURL_BLOB_COPY;
    curl_easy_setopt(easy, CURLOPT_CAINFO_BLOB, &blob);
  }
  if (settings.connect_to != nullptr)
    curl_easy_setopt(easy, CURLOPT_CONNECT_TO, settings.connect_to);

  // Connection options.
  if (!options.keep_alive || options.max_idle_connections_per_host <= 0) {
    curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
  }
  if (options.idle_connection_seconds > 0) {
    curl_easy_setopt(easy, CURLOPT_MAXAGE_CONN, static_cast<long>(options.idle_connection_seconds));
  }
  if (options.stall_timeout_seconds > 0) {
    const double ms = std::ceil(options.stall_timeout_seconds * 1000.0);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS,
                     ms > 2e9 ? 2000000000L : static_cast<long>(ms));
    const double seconds = std::max(1.0, std::round(options.stall_timeout_seconds));
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME,
                     seconds > 2e9 ? 2000000000L : static_cast<long>(seconds));
  }

  // Method and body. The body is read straight out of the request's QByteArray, which the request
  // keeps alive until it is released after completion.
  switch (transfer->method) {
    case HttpRequest::kPost:
      curl_easy_setopt(easy, CURLOPT_POST, 1L);
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>(transfer->body_size));
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, transfer->body);
      break;
    case HttpRequest::kPut:
      curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
      curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE,
                       static_cast<curl_off_t>(transfer->body_size));
      curl_easy_setopt(easy, CURLOPT_READFUNCTION, &OnUploadBytes);
      curl_easy_setopt(easy, CURLOPT_READDATA, transfer);
      curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &OnUploadSeek);
      curl_easy_setopt(easy, CURLOPT_SEEKDATA, transfer);
      curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
      break;
    case HttpRequest::kDelete:
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, "DELETE");
      break;
    case HttpRequest::kGet:
    default:
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
      break;
  }
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
    const CURLcode result = message->data.result;
    std::uint32_t code = StatusForError(result);
    if (result != CURLE_OK && transfer->proxied) code = ProxyStatus(transfer->easy, result, code);
    if (result == CURLE_OK) {
      long http_code = 0;
      curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &http_code);
      code =
          http_code >= 100 ? status::FromHttp(static_cast<int>(http_code)) : status::kErrorUnknown;
      if (!transfer->header_complete) code = status::kErrorResponseTruncated;
    }
    Finish(transfer, code);
    finished = true;
  }
  return finished;
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
  FlushLastLine(transfer);
  if (transfer->report_progress && code != status::kErrorCancelled && easy != nullptr) {
    // The last figures, unless they were already reported; queued ahead of the completion.
    curl_off_t sent = 0;
    curl_off_t received = 0;
    curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &sent);
    curl_easy_getinfo(easy, CURLINFO_SIZE_DOWNLOAD_T, &received);
    transfer->sent = sent;
    transfer->received = received;
    if (sent + received != transfer->reported_bytes) ReportProgress(transfer);
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
  FreeTransfer(transfer);
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
  auto settings = std::make_shared<Settings>();
  for (const CurlTransportConfig::HostMapping& mapping : config.host_mappings) {
    if (mapping.host.isEmpty() || mapping.address.isEmpty() || mapping.port < 1 ||
        mapping.port > 65535) {
      return false;
    }
    const bool ipv6 = mapping.address.contains(QLatin1Char(':'));
    const QString entry =
        mapping.host + QLatin1String("::") +
        (ipv6 ? QLatin1Char('[') + mapping.address + QLatin1Char(']') : mapping.address) +
        QLatin1Char(':') + QString::number(mapping.port);
    if (!AppendLine(entry.toUtf8().constData(), &settings->connect_to)) return false;
  }
  if (!config.extra_ca_certificate_files.empty()) {
    // libcurl then takes the authorities from memory instead of its default bundle file, but keeps
    // looking into its default folder of hashed certificates. Without such a folder the bundle is
    // read here, so that the system's authorities stay trusted.
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    if (info->capath == nullptr && info->cainfo != nullptr) {
      ReadWholeFile(QString::fromLocal8Bit(info->cainfo), &settings->extra_ca_pem);
      settings->extra_ca_pem += '\n';
    }
  }
  for (const QString& path : config.extra_ca_certificate_files) {
    std::string pem;
    if (!ReadWholeFile(path, &pem) ||
        pem.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
      return false;
    }
    settings->extra_ca_pem += pem;
    settings->extra_ca_pem += '\n';
  }
  settings->user_agent = config.user_agent.toStdString();
  settings->insecure = config.insecure_skip_tls_verification;
  const CurlTransportConfig::Proxy& proxy = config.proxy;
  if (!NormaliseProxy(proxy.http_proxy, &settings->http_proxy) ||
      !NormaliseProxy(proxy.https_proxy, &settings->https_proxy)) {
    return false;
  }
  if (!proxy.password.isEmpty() && proxy.user.isEmpty()) return false;
  settings->proxy_user = proxy.user.toStdString();
  settings->proxy_password = proxy.password.toStdString();
  for (const QString& entry : proxy.no_proxy) {
    QString trimmed = entry.trimmed().toLower();
    if (!ValidNoProxyEntry(trimmed)) return false;
    if (trimmed.startsWith(QLatin1Char('.'))) trimmed.remove(0, 1);
    if (trimmed.isEmpty()) return false;
    settings->no_proxy.push_back(trimmed.toStdString());
  }
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

  bool valid = server.valid();
  if (valid) {
    transfer->url = curl_url();
    const QByteArray url = http->url().toUtf8();
    char* scheme = nullptr;
    valid = transfer->url != nullptr &&
            curl_url_set(transfer->url, CURLUPART_URL, url.constData(), 0) == CURLUE_OK &&
            curl_url_get(transfer->url, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
            (std::strcmp(scheme, "https") == 0 || std::strcmp(scheme, "http") == 0);
    transfer->secure = valid && std::strcmp(scheme, "https") == 0;
    curl_free(scheme);
    char* host = nullptr;
    const Settings& settings = *transfer->settings;
    if (valid && !(transfer->secure ? settings.https_proxy : settings.http_proxy).empty() &&
        curl_url_get(transfer->url, CURLUPART_HOST, &host, 0) == CURLUE_OK) {
      std::string name(host);
      std::transform(name.begin(), name.end(), name.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      transfer->proxied = true;
      for (const std::string& entry : settings.no_proxy) {
        if (NoProxyMatches(name, entry)) transfer->proxied = false;
      }
    }
    curl_free(host);
  }
  CallerHeaders seen;
  for (const RequestHeader& header : http->headers()) {
    if (!valid) break;
    valid = AppendCallerLine(header, &transfer->headers, &seen);
  }
  if (valid) {
    // Lines libcurl would add of its own: "Accept: */*" only for the standard set, never
    // "Expect: 100-continue" (one round trip less per upload), never a form Content-Type on POST.
    if (!seen.accept && request->default_headers() != NetworkRequest::Info::kStandard) {
      valid = AppendLine("Accept:", &transfer->headers);
    }
    if (valid && !seen.expect) valid = AppendLine("Expect:", &transfer->headers);
    if (valid && !seen.content_type && transfer->method == HttpRequest::kPost) {
      valid = AppendLine("Content-Type:", &transfer->headers);
    }
    if (valid && !seen.connection && !options.keep_alive) {
      valid = AppendLine("Connection: close", &transfer->headers);
    }
  }
  if (!valid) {
    FreeTransfer(transfer);
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
