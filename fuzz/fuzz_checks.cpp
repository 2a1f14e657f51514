#include "fuzz/fuzz_checks.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_reader.h"
#include "quire/model/docs_entry.h"
#include "quire/model/docs_feed.h"
#include "quire/services/user_info_service.h"
#include "quire/upload/connection_utils.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUIRE_FUZZ_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(QUIRE_FUZZ_ASAN)
#define QUIRE_FUZZ_ASAN 1
#endif
#ifdef QUIRE_FUZZ_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace quire_fuzz {
namespace {

using kestrel::quire::ConnectionParams;
using kestrel::quire::NetworkResponseInfo;
using kestrel::quire::ResponseCallback;

// Keeps the first failure of a run: later ones are usually its consequences.
void Fail(const char** failure, const char* what) {
  if (*failure == nullptr) *failure = what;
}

long LiveAllocations() { return kestrel::MemoryManager::Default()->live_allocations(); }

// Nothing is sent: the handlers under test are called directly.
class NullConnection : public kestrel::quire::IConnection {
 public:
  void Init(const std::vector<QString>&) override {}
  unsigned int Request(const ConnectionParams&, ResponseCallback) override { return 0; }
  void Cancel(unsigned int) override {}
};

// --- The resumable upload.

struct Pending {
  std::uint32_t id;
  std::uint32_t method;
  QString url;
  QByteArray body;
  QString content_range;  // the PUT's "Content-Range" line
  ResponseCallback callback;
};

// Keeps every request for the check to answer.
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

// Whether every byte of [data, data + size) may be read. Under AddressSanitizer its shadow memory
// answers without reading the bytes (the fuzzer runs ten million inputs); elsewhere every byte is
// read, which faults on memory that is not mapped.
bool Readable(const char* data, std::size_t size) {
#ifdef QUIRE_FUZZ_ASAN
  return __asan_region_is_poisoned(const_cast<char*>(data), size) == nullptr;
#else
  unsigned char sum = 0;
  for (std::size_t i = 0; i < size; ++i) sum = static_cast<unsigned char>(sum + data[i]);
  volatile unsigned char sink = sum;
  (void)sink;
  return true;
#endif
}

// Checks a PUT against the data: inside it, readable, described by its Content-Range line, and sent
// to the upload's address.
const char* CheckPut(const Pending& request, const QString& upload_url, const char* begin,
                     const char* end) {
  if (request.url != upload_url) return "a PUT went elsewhere than the upload's Location";
  const char* p = request.body.constData();
  const auto size = static_cast<std::size_t>(request.body.size());
  if (size > 0) {
    if (p < begin || p > end || size > static_cast<std::size_t>(end - p)) {
      return "a PUT body is not a view inside the caller's data";
    }
    if (!Readable(p, size)) return "a PUT body is not readable";
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
    if (request.content_range != QLatin1String(expected)) {
      return "a PUT's Content-Range line does not describe its body";
    }
  } else {
    std::snprintf(expected, sizeof expected, "/%u", total);
    if (!request.content_range.endsWith(QLatin1String(expected))) {
      return "an empty PUT's Content-Range line does not end in the data's size";
    }
  }
  return nullptr;
}

}  // namespace

const char* CheckXmlReaderInput(const std::uint8_t* data, std::size_t size) {
  const char* failure = nullptr;
  const long live = LiveAllocations();
  {
    kestrel::XmlReader reader(reinterpret_cast<const char*>(data), size);
    if (reader.GetErrorsOccurred() && reader.GetRootNode() != nullptr) {
      Fail(&failure, "a tree came with an error");
    }
    // Visit every node without recursion; touching the strings catches dangling arena memory. The
    // stack holds, per level, the node being visited or the sibling still to visit: one entry per
    // level at most, so a tree no deeper than the limit fits.
    struct Visit {
      kestrel::XmlNode* node;
      int depth;  // the root is at depth 1
    };
    std::size_t visited = 0;
    Visit stack[kestrel::XmlReader::kMaxDepth + 1];
    int top = 0;
    if (reader.GetRootNode() != nullptr) stack[top++] = {reader.GetRootNode(), 1};
    while (top > 0) {
      const Visit visit = stack[--top];
      kestrel::XmlNode* node = visit.node;
      ++visited;
      visited += static_cast<std::size_t>(node->name.size() + node->text.size());
      for (int i = 0; i < node->attribute_count; ++i) {
        visited += static_cast<std::size_t>(node->attributes[i].value.size());
      }
      if (node->next_sibling != nullptr) stack[top++] = {node->next_sibling, visit.depth};
      if (node->first_child != nullptr) {
        if (visit.depth >= kestrel::XmlReader::kMaxDepth) {
          Fail(&failure, "a tree is deeper than XmlReader::kMaxDepth");
          continue;
        }
        stack[top++] = {node->first_child, visit.depth + 1};
      }
    }
    // The tree cannot be larger than its source.
    if (visited > size * 4 + 64) Fail(&failure, "a tree is larger than its source");
  }
  if (LiveAllocations() != live) Fail(&failure, "memory leaked");
  return failure;
}

const char* CheckFeedParseInput(const std::uint8_t* data, std::size_t size) {
  const char* failure = nullptr;
  const long live = LiveAllocations();
  {
    kestrel::XmlReader reader(reinterpret_cast<const char*>(data), size);
    kestrel::XmlNode* root = reader.GetRootNode();
    auto* feed = kestrel::doNew<kestrel::quire::DocsFeed>();
    const bool feed_ok = feed->ParseFrom(root);
    if (feed_ok != (root != nullptr && root->name == QLatin1String("feed"))) {
      Fail(&failure, "DocsFeed::ParseFrom does not accept exactly a \"feed\" root");
    }
    if (feed_ok) {
      std::size_t entries = 0;
      for (kestrel::XmlNode* child = root->first_child; child; child = child->next_sibling) {
        if (child->name == QLatin1String("entry")) ++entries;
      }
      if (feed->entries.size() != entries) {
        Fail(&failure, "a feed does not hold exactly its root's \"entry\" children");
      }
      for (std::size_t i = 0; i < feed->entries.size(); ++i) {
        if (feed->entries[i] == nullptr) Fail(&failure, "a feed holds a null entry");
      }
    }
    kestrel::doDelete(feed);
    auto* entry = kestrel::doNew<kestrel::quire::DocsEntry>();
    const bool entry_ok = entry->ParseFrom(root);
    if (entry_ok != (root != nullptr && root->name == QLatin1String("entry"))) {
      Fail(&failure, "DocsEntry::ParseFrom does not accept exactly an \"entry\" root");
    }
    if (!entry->reserved_strings.isEmpty()) Fail(&failure, "an entry keeps reserved strings");
    kestrel::doDelete(entry);
  }
  if (LiveAllocations() != live) Fail(&failure, "memory leaked");
  return failure;
}

const char* CheckUserEmailInput(const std::uint8_t* data, std::size_t size) {
  const char* failure = nullptr;
  const long live = LiveAllocations();
  {
    kestrel::quire::UserInfoService service(new NullConnection);
    const QByteArray body(reinterpret_cast<const char*>(data), static_cast<int>(size));
    int calls = 0;
    service.GetUserEmailDone(
        [&](NetworkResponseInfo info, QString email) {
          ++calls;
          if (info.request_id != 7) Fail(&failure, "the callback has another request's id");
          if (info.status == 0) {
            const int nul = body.indexOf('\0');
            const QString text = QString::fromLatin1(nul >= 0 ? body.left(nul) : body);
            const int key = text.indexOf(QLatin1String("email="));
            if (email.isEmpty() || key < 0 || text.mid(key + 6, email.size()) != email) {
              Fail(&failure, "status 0 without the address that stands behind \"email=\"");
            }
          } else if (info.status != 1 || !email.isEmpty()) {
            Fail(&failure, "a failure that is not status 1 with an empty address");
          }
        },
        NetworkResponseInfo{7, 0, nullptr}, body);
    if (calls != 1) Fail(&failure, "the callback did not run exactly once");
  }
  if (LiveAllocations() != live) Fail(&failure, "memory leaked");
  return failure;
}

const char* CheckUploadHeadersInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  std::vector<QString> lines;
  const int count = input.ConsumeIntegralInRange<int>(0, 8);
  for (int i = 0; i < count; ++i) {
    std::string line = input.ConsumeRandomLengthString(200);
    if (input.ConsumeBool()) line = (input.ConsumeBool() ? "Range: " : "Location: ") + line;
    lines.push_back(QString::fromUtf8(line.data(), static_cast<int>(line.size())));
  }
  const std::string name = input.ConsumeRandomLengthString(20);
  const QString key = QString::fromUtf8(name.data(), static_cast<int>(name.size()));

  kestrel::quire::ConnectionUtils utils(16, nullptr);
  const QString value = utils.GetHeaderValue(&lines, key);
  bool found = false;
  for (const QString& line : lines) {
    if (line.startsWith(key + QStringLiteral(": "))) {
      if (value != line.mid(key.size() + 2)) {
        return "GetHeaderValue is not the rest of the first line with the key";
      }
      found = true;
      break;
    }
  }
  if (!found && !value.isEmpty()) return "GetHeaderValue found a key that no line has";
  if (!utils.GetHeaderValue(nullptr, key).isEmpty()) {
    return "GetHeaderValue found a value without lines";
  }

  std::uint32_t position = 0xA5A5A5A5u;
  const bool read = utils.GetResumableStartPos(&lines, &position);
  const QString range = utils.GetHeaderValue(&lines, QStringLiteral("Range"));
  const int dash = range.indexOf(QLatin1Char('-'));
  if (range.isEmpty() || dash < 0) {
    if (read || position != 0xA5A5A5A5u) {
      return "GetResumableStartPos read a position without a \"Range\" value with a \"-\"";
    }
  } else {
    bool ok = false;
    const std::uint32_t expected = range.mid(dash + 1).toUInt(&ok, 10);
    if (read != ok || position != expected) {
      return "GetResumableStartPos did not read the number behind the \"-\"";
    }
  }
  return nullptr;
}

const char* CheckResumableUploadInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider input(bytes, size);
  const char* failure = nullptr;
  const long live = LiveAllocations();
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
          if (inside_upload_call) Fail(&failure, "the callback ran inside ResumableUpload");
          ++calls;
          if (info.status == kestrel::quire::kStatusSuccess && body != last_body) {
            Fail(&failure, "a success does not carry the last answer's body");
          }
          if (info.status != kestrel::quire::kStatusSuccess && !body.isEmpty()) {
            Fail(&failure, "a failure carries a body");
          }
          if (info.headers != nullptr && info.headers != &headers) {
            Fail(&failure, "the callback's headers are not the last answer's");
          }
        });
    inside_upload_call = false;
    if (post_id != 1) Fail(&failure, "the upload's POST is not request 1");
    QString upload_url;  // the value of the POST answer's first "Location" line
    int answered = 0;
    while (!connection.pending.empty()) {
      Pending request = std::move(connection.pending.front());
      connection.pending.pop_front();
      if (request.method == kestrel::quire::kMethodPut) {
        if (const char* put = CheckPut(request, upload_url, begin, end)) Fail(&failure, put);
      }
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
    if (calls != 1) Fail(&failure, "the callback did not run exactly once");
  }
  if (LiveAllocations() != live) Fail(&failure, "memory leaked");
  return failure;
}

}  // namespace quire_fuzz
