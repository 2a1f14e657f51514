// The whole resumable upload driven by fuzzed server answers (statuses, "Location" and "Range"
// lines) over a host IConnection: every PUT body must lie inside the caller's data, and the
// caller's callback must be called exactly once.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
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
  QByteArray body;
  ResponseCallback callback;
};

class FuzzConnection : public kestrel::quire::IConnection {
 public:
  void Init(const std::vector<QString>&) override {}
  unsigned int Request(const ConnectionParams& params, ResponseCallback callback) override {
    const std::uint32_t id = params.request_id != 0 ? params.request_id : next_id_++;
    pending.push_back(
        {id, params.method, params.body ? *params.body : QByteArray(), std::move(callback)});
    return id;
  }
  void Cancel(unsigned int) override {}
  std::deque<Pending> pending;

 private:
  std::uint32_t next_id_ = 1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider input(bytes, size);
  const long live = kestrel::MemoryManager::Default()->live_allocations();
  {
    const std::uint32_t chunk = input.ConsumeIntegralInRange<std::uint32_t>(0, 5000);
    const int data_size = input.ConsumeIntegralInRange<int>(0, 4096);
    // A heap block of exactly the data's size, so that any read past it is caught by ASan.
    QByteArray data(data_size, Qt::Uninitialized);
    for (int i = 0; i < data_size; ++i) data[i] = static_cast<char>(i * 31);
    const char* begin = data.constData();
    const char* end = begin + data.size();

    FuzzConnection connection;
    kestrel::quire::ConnectionUtils utils(chunk, &connection);
    int calls = 0;
    utils.ResumableUpload(QStringLiteral("https://docs.quire.example/upload"),
                          QStringLiteral("<entry/>"), QStringLiteral("text/plain"), data,
                          [&calls](NetworkResponseInfo, QByteArray) { ++calls; });
    int answered = 0;
    while (!connection.pending.empty()) {
      Pending request = std::move(connection.pending.front());
      connection.pending.pop_front();
      if (request.method == kestrel::quire::kMethodPut && !request.body.isEmpty()) {
        const char* p = request.body.constData();
        if (p < begin || p + request.body.size() > end) std::abort();
        unsigned sum = 0;
        for (char c : request.body) sum += static_cast<unsigned char>(c);
        if (sum == 0xFFFFFFFFu) std::abort();  // keeps the reads
      }
      std::vector<QString> headers;
      int status;
      if (++answered > 64 || input.remaining_bytes() == 0) {
        status = 500;  // end long sequences
      } else {
        const int kind = input.ConsumeIntegralInRange<int>(0, 5);
        static const int kStatuses[] = {0, 308, 308, 308, 2, 404};
        status = kStatuses[kind];
        const int count = input.ConsumeIntegralInRange<int>(0, 3);
        for (int i = 0; i < count; ++i) {
          switch (input.ConsumeIntegralInRange<int>(0, 3)) {
            case 0:
              headers.push_back(QStringLiteral("Location: https://docs.quire.example/s/1"));
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
      request.callback(NetworkResponseInfo{request.id, status, &headers}, QByteArray());
    }
    if (calls != 1) std::abort();
  }
  if (kestrel::MemoryManager::Default()->live_allocations() != live) std::abort();
  return 0;
}
