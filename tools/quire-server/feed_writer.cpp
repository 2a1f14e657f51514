#include "tools/quire-server/feed_writer.h"

#include "quire/model/link_relations.h"
#include "tools/quire-server/timestamp.h"
#include "tools/quire-server/url_layout.h"
#include "tools/quire-server/xml_text.h"

namespace quire_server {
namespace {

namespace q = kestrel::quire;

constexpr char kXmlDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

std::string Namespaces() {
  std::string out = " xmlns=\"http://www.w3.org/2005/Atom\" xmlns:qr=\"";
  out += q::SchemaNamespace;
  out += "/g/2005\" xmlns:docs=\"";
  out += q::SchemaNamespace;
  out += "/docs/2007\" xmlns:openSearch=\"http://a9.com/-/spec/opensearch/1.1/\"";
  return out;
}

void AppendElement(std::string* out, const char* name, const std::string& text) {
  *out += "<";
  *out += name;
  *out += ">";
  XmlText::Append(out, text);
  *out += "</";
  *out += name;
  *out += ">";
}

void AppendLink(std::string* out, const char* element, const std::string& rel,
                const std::string& href, const char* type = nullptr) {
  *out += "<";
  *out += element;
  *out += " rel=\"";
  XmlText::Append(out, rel);
  *out += "\"";
  if (type != nullptr) {
    *out += " type=\"";
    *out += type;
    *out += "\"";
  }
  *out += " href=\"";
  XmlText::Append(out, href);
  *out += "\"/>";
}

}  // namespace

FeedWriter::FeedWriter(const UrlLayout& urls, std::string account)
    : urls_(urls), account_(std::move(account)) {}

std::string FeedWriter::Feed(const DocumentStore::Listing& listing) const {
  std::string out = kXmlDeclaration;
  out += "<feed" + Namespaces() + " qr:etag=\"";
  XmlText::Append(&out, listing.etag);
  out += "\">";
  AppendElement(&out, "id", urls_.Feed());
  AppendElement(&out, "updated", Timestamp::Rfc3339(listing.updated_ms));
  AppendElement(&out, "title", "Documents of " + account_);
  out += "<author>";
  AppendElement(&out, "name", account_.substr(0, account_.find('@')));
  AppendElement(&out, "email", account_);
  out += "</author>";
  AppendLink(&out, "link", q::kFeedRel, urls_.Feed(), "application/atom+xml");
  AppendLink(&out, "link", q::kPostRel, urls_.Feed(), "application/atom+xml");
  AppendLink(&out, "link", q::kBatchRel, urls_.Batch(), "application/atom+xml");
  AppendLink(&out, "link", q::kResumableCreateMediaRel, urls_.ResumableCreate());
  AppendLink(&out, "link", "self", urls_.Feed(), "application/atom+xml");
  std::string count = std::to_string(listing.documents.size());
  AppendElement(&out, "openSearch:totalResults", count);
  AppendElement(&out, "openSearch:startIndex", "1");
  AppendElement(&out, "openSearch:itemsPerPage", count);
  for (const DocumentRecord& record : listing.documents) AppendEntry(&out, record, false);
  out += "</feed>\n";
  return out;
}

std::string FeedWriter::Entry(const DocumentRecord& record) const {
  std::string out = kXmlDeclaration;
  AppendEntry(&out, record, true);
  out += "\n";
  return out;
}

void FeedWriter::AppendEntry(std::string* out, const DocumentRecord& record, bool root) const {
  *out += "<entry";
  if (root) *out += Namespaces();
  *out += " qr:etag=\"";
  XmlText::Append(out, record.etag);
  *out += "\">";
  AppendElement(out, "id", urls_.Edit(record.id));
  AppendElement(out, "updated", Timestamp::Rfc3339(record.updated_ms));
  AppendElement(out, "title", record.title);
  *out += "<content type=\"";
  XmlText::Append(out, record.content_type);
  *out += "\" src=\"";
  XmlText::Append(out, urls_.Content(record.id));
  *out += "\"/>";
  AppendLink(out, "link", "edit", urls_.Edit(record.id));
  AppendLink(out, "link", q::kResumableEditMediaRel, urls_.ResumableEdit(record.id));
  AppendLink(out, "qr:feedLink", q::kAclFeedRel, urls_.Acl(record.id));
  AppendLink(out, "qr:feedLink", q::kRevisionsFeedRel, urls_.Revisions(record.id));
  if (record.starred) {
    *out += "<category scheme=\"";
    XmlText::Append(out, q::kLabelsScheme);
    *out += "\" term=\"";
    XmlText::Append(out, q::kStarredLabelTerm);
    *out += "\" label=\"starred\"/>";
  }
  if (record.removed) *out += "<docs:removed/>";
  *out += "</entry>";
}

}  // namespace quire_server
