// The whole resumable upload driven by fuzzed server answers (statuses, "Location" and "Range"
// lines) over a host IConnection. Checked on every run:
//   * every PUT body is a view that lies inside the caller's data, starts where its Content-Range
//     line says, is as long as that range, and goes to the address from "Location";
//   * the caller's callback is called exactly once, and never from inside ResumableUpload();
//   * a made-up failure (status 2) carries null headers and an empty body, and a success carries
//     the last answer's body;
//   * the memory manager's live allocations return to their start value.
//
// Speed matters (ten million runs are wanted): the data is filled with memset, and the check that
// a body is readable asks ASan's shadow memory instead of reading every byte.
#include <fuzzer/FuzzedDataProvider.h>
#include <sanitizer/asan_interface.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "quire/upload/connection_utils.h"

namespace {

using kestrel::quire::ConnectionParams;
using kestrel::quire::NetworkResponseInfo;
using kestrel::quire::ResponseCallback;

struct Pending {
  std::uint32_t id;
  std::uint32_t method;
  QString url;
  QByteArray body;
  QString content_range;  // the PUT's "Content-Range" line
  ResponseCallback callback;
};

class FuzzConnection : public kestrel::quire::IConnection {
 public:
  void Init(const std::vector<QString>&) override {}
  unsigned int Request(const ConnectionParams& params, ResponseCallback callback) override {
    const std::uint32_t id = params.request_id != 0 ? params.request_id : next_id_++;
    Pending request{id,         params.method,
                    params.url, params.body ? *params.body : QByteArray(),
                    QString(),  std::move(callback)};
    if (params.headers != nullptr) {
      for (const QString& line : *params.headers) {
        if (line.startsWith(QLatin1String("Content-Range: "))) request.content_range = line;
      }
    }
    pending.push_back(std::move(request));
    return id;
  }
  void Cancel(unsigned int) override {}
  std::deque<Pending> pending;

 private:
  std::uint32_t next_id_ = 1;
};

// Longer sequences reach no state that a shorter one cannot (a "Range" answer may jump anywhere),
// and each answer costs a dozen allocations: capping them keeps the target fast.
constexpr int kMaxAnswers = 16;

const QString kLocation = QStringLiteral("https://docs.quire.example/s/1");

// Checks a PUT against the data: inside it, readable, described by its Content-Range line, and sent
// to the upload's address.
void CheckPut(const Pending& request, const QString& upload_url, const char* begin,
              const char* end) {
  if (request.url != upload_url) std::abort();
  const char* p = request.body.constData();
  const auto size = static_cast<std::size_t>(request.body.size());
  if (size > 0) {
    if (p < begin || p > end || size > static_cast<std::size_t>(end - p)) std::abort();
    if (__asan_region_is_poisoned(const_cast<char*>(p), size) != nullptr) std::abort();
  }
  // "Content-Range: bytes A-B/T": A is the body's offset in the data, B = A + size - 1 (32-bit,
  // so an empty chunk at 0 ends at 4294967295), T the data's size. An empty chunk may be a view of
  // nothing, so only its total is checked. Formatted into a stack buffer: no allocation per check.
  char expected[80];
  const auto total = static_cast<unsigned>(end - begin);
  if (size > 0) {
    const auto first = static_cast<unsigned>(p - begin);
    std::snprintf(expected, sizeof expected, "Content-Range: bytes %u-%u/%u", first,
                  first + static_cast<unsigned>(size) - 1u, total);
    if (request.content_range != QLatin1String(expected)) std::abort();
  } else {
    std::snprintf(expected, sizeof expected, "/%u", total);
    if (!request.content_range.endsWith(QLatin1String(expected))) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider input(bytes, size);
  const long live = kestrel::MemoryManager::Default()->live_allocations();
  {
    const std::uint32_t chunk = input.ConsumeIntegralInRange<std::uint32_t>(0, 5000);
    const int data_size = input.ConsumeIntegralInRange<int>(0, 4096);
    // A heap block of exactly the data's size, so that any read past it is caught by ASan.
    QByteArray data(data_size, Qt::Uninitialized);
    if (data_size > 0) std::memset(data.data(), 'q', static_cast<std::size_t>(data_size));
    const char* begin = data.constData();
    const char* end = begin + data.size();

    FuzzConnection connection;
    kestrel::quire::ConnectionUtils utils(chunk, &connection);
    int calls = 0;
    bool inside_upload_call = true;
    std::vector<QString> headers;
    QByteArray last_body;
    const std::uint32_t post_id = utils.ResumableUpload(
        QStringLiteral("https://docs.quire.example/upload"), QStringLiteral("<entry/>"),
        QStringLiteral("text/plain"), data, [&](NetworkResponseInfo info, QByteArray body) {
          if (inside_upload_call) std::abort();
          ++calls;
          if (info.status == kestrel::quire::kStatusSuccess && body != last_body) std::abort();
          if (info.status != kestrel::quire::kStatusSuccess && !body.isEmpty()) std::abort();
          if (info.headers != nullptr && info.headers != &headers) std::abort();
        });
    inside_upload_call = false;
    if (post_id != 1) std::abort();
    QString upload_url;  // the value of the POST answer's first "Location" line
    int answered = 0;
    while (!connection.pending.empty()) {
      Pending request = std::move(connection.pending.front());
      connection.pending.pop_front();
      if (request.method == kestrel::quire::kMethodPut) CheckPut(request, upload_url, begin, end);
      headers.clear();
      int status;
      last_body.clear();
      if (++answered > kMaxAnswers || input.remaining_bytes() == 0) {
        status = 500;  // end long sequences
      } else {
        const int kind = input.ConsumeIntegralInRange<int>(0, 5);
        static const int kStatuses[] = {0, 308, 308, 308, 2, 404};
        status = kStatuses[kind];
        if (status == 0 && input.ConsumeBool()) last_body = QByteArrayLiteral("<entry/>");
        const int count = input.ConsumeIntegralInRange<int>(0, 3);
        for (int i = 0; i < count; ++i) {
          switch (input.ConsumeIntegralInRange<int>(0, 3)) {
            case 0:
              headers.push_back(QStringLiteral("Location: ") + kLocation);
              break;
            case 1:
              headers.push_back(QStringLiteral("Range: bytes=0-") +
                                QString::number(input.ConsumeIntegral<std::uint32_t>()));
              break;
            case 2:
              headers.push_back(
                  QStringLiteral("Range: bytes=0-") +
                  QString::number(input.ConsumeIntegralInRange<int>(0, data_size + 2)));
              break;
            default: {
              const std::string raw = input.ConsumeRandomLengthString(40);
              headers.push_back(QString::fromUtf8(raw.data(), static_cast<int>(raw.size())));
            }
          }
        }
      }
      if (request.method == kestrel::quire::kMethodPost) {
        for (const QString& line : headers) {
          if (line.startsWith(QLatin1String("Location: "))) {
            upload_url = line.mid(10);
            break;
          }
        }
      }
      request.callback(NetworkResponseInfo{request.id, status, &headers}, last_body);
    }
    if (calls != 1) std::abort();
  }
  if (kestrel::MemoryManager::Default()->live_allocations() != live) std::abort();
  return 0;
}
