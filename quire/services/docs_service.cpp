#include "quire/services/docs_service.h"

#include <cstdlib>
#include <functional>
#include <utility>
#include <vector>

#include "kestrel/xml/xml_reader.h"
#include "quire/connection/connection_params.h"
#include "quire/services/endpoints.h"

namespace kestrel {
namespace quire {
namespace {

using std::placeholders::_1;
using std::placeholders::_2;

// The request URL as text: the address percent-encoded, one character per byte.
QString UrlText(const QUrl& url) { return QString::fromLatin1(url.toEncoded()); }

// Fills a request record without a body or response headers, with an id from the connection.
ConnectionParams Params(std::uint32_t method, const QString& url,
                        const std::vector<QString>* headers) {
  ConnectionParams params;
  params.method = method;
  params.url = url;
  params.body = nullptr;
  params.headers = headers;
  params.collect_response_headers = false;
  params.request_id = 0;
  return params;
}

// Parses `body` into `*record` (a fresh one) when the answer is a success; on any failure to read
// it the status becomes 1 and the caller gets a fresh, empty record instead of a partly filled one.
template <typename Record>
void ParseAnswer(NetworkResponseInfo* response, const QByteArray& body, Record** record) {
  if (response->status != kStatusSuccess) return;
  XmlReader reader(body);
  XmlNode* root = reader.GetRootNode();
  if (reader.GetErrorsOccurred() || root == nullptr) {
    response->status = kStatusParseFailure;
    return;
  }
  if (!(*record)->ParseFrom(root)) {
    response->status = kStatusParseFailure;
    Record* fresh = kestrel::doNew<Record>();
    kestrel::doDelete(*record);
    *record = fresh;
  }
}

// Reads the answer into a fresh Record (see ParseAnswer), hands both to `callback` and frees the
// record when the callback returns.
template <typename Record, typename Callback>
void DeliverRecord(const Callback& callback, NetworkResponseInfo response, const QByteArray& body) {
  Record* record = kestrel::doNew<Record>();
  ParseAnswer(&response, body, &record);
  if (!callback) std::abort();
  callback(response, *record);
  kestrel::doDelete(record);
}

}  // namespace

DocsService::DocsService() : Service(QLatin1String(kProtocolVersion), nullptr) {}

DocsService::DocsService(IConnection* connection)
    : Service(QLatin1String(kProtocolVersion), connection) {}

DocsService::~DocsService() {}

unsigned int DocsService::GetFeed(FeedCallback callback) {
  const QString url = UrlText(QUrl::fromEncoded(QByteArray(DocsFeedUrl)));
  ResponseCallback done = std::bind(&DocsService::GetFeedDone, this, std::move(callback), _1, _2);
  return connection()->Request(Params(kMethodGet, url, authorization_headers()), std::move(done));
}

unsigned int DocsService::GetEntryContent(const QUrl& url, ResponseCallback callback) {
  ResponseCallback done =
      std::bind(&DocsService::GetEntryContentDone, this, std::move(callback), _1, _2);
  return connection()->Request(Params(kMethodGet, UrlText(url), authorization_headers()),
                               std::move(done));
}

// The texts are deliberately unused: no title, media type or slug goes out with the content.
unsigned int DocsService::CreateEntryWithContent(const QUrl& url, const QString& /*title*/,
                                                 const QString& /*content_type*/,
                                                 const QByteArray& content,
                                                 EntryCallback callback) {
  ResponseCallback done =
      std::bind(&DocsService::EntryModifyDone, this, std::move(callback), _1, _2);
  ConnectionParams params = Params(kMethodPost, UrlText(url), authorization_headers());
  params.body = &content;
  return connection()->Request(params, std::move(done));
}

// The text is deliberately unused, and the replacement is unconditional (no If-Match line).
unsigned int DocsService::ModifyEntryContent(const QUrl& url, const QString& /*content_type*/,
                                             const QByteArray& content, EntryCallback callback) {
  ResponseCallback done =
      std::bind(&DocsService::EntryModifyDone, this, std::move(callback), _1, _2);
  ConnectionParams params = Params(kMethodPut, UrlText(url), authorization_headers());
  params.body = &content;
  return connection()->Request(params, std::move(done));
}

unsigned int DocsService::DeleteEntry(const QUrl& url, const QString& etag,
                                      DeleteCallback callback) {
  // On the wire: the connection's fixed lines, then If-Match, then Authorization.
  std::vector<QString> headers;
  if (etag.length() > 0) headers.push_back(QStringLiteral("If-Match: %1").arg(etag));
  const std::vector<QString>& authorization = *authorization_headers();
  headers.insert(headers.end(), authorization.begin(), authorization.end());

  ResponseCallback done =
      std::bind(&DocsService::DeleteEntryDone, this, std::move(callback), _1, _2);
  // The connection copies the lines before Request returns.
  return connection()->Request(Params(kMethodDelete, UrlText(url), &headers), std::move(done));
}

void DocsService::GetFeedDone(FeedCallback callback, NetworkResponseInfo response,
                              QByteArray body) {
  DeliverRecord<DocsFeed>(callback, std::move(response), body);
}

void DocsService::GetEntryContentDone(ResponseCallback callback, NetworkResponseInfo response,
                                      QByteArray body) {
  if (!callback) std::abort();
  callback(response, body);
}

void DocsService::EntryModifyDone(EntryCallback callback, NetworkResponseInfo response,
                                  QByteArray body) {
  DeliverRecord<DocsEntry>(callback, std::move(response), body);
}

void DocsService::DeleteEntryDone(DeleteCallback callback, NetworkResponseInfo response,
                                  QByteArray /*body*/) {
  if (!callback) std::abort();
  callback(response);
}

}  // namespace quire
}  // namespace kestrel
