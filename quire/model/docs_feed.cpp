#include "quire/model/docs_feed.h"

#include "quire/model/internal/xml_lookup.h"
#include "quire/model/link_relations.h"

namespace kestrel {
namespace quire {

using internal::Latin1;
using internal::LookupAttribute;
using internal::UrlFromAttribute;

DocsFeed::DocsFeed() : items_per_page(0), start_index(0) {}

DocsFeed::~DocsFeed() = default;

bool DocsFeed::ParseFrom(kestrel::XmlNode* node) {
  if (node == nullptr) return false;
  if (node->name != Latin1("feed")) return false;

  // Assigned whether or not the attribute is there.
  etag = LookupAttribute(node, Latin1("qr:etag"));

  for (XmlNode* child = node->first_child; child != nullptr; child = child->next_sibling) {
    const QString& name = child->name;
    if (name == Latin1("entry")) {
      DocsEntry* entry = kestrel::doNew<DocsEntry>();
      if (!entry->ParseFrom(child)) {
        // Entries appended before stay; the caller decides what a partly filled feed is worth.
        kestrel::doDelete(entry);
        return false;
      }
      entries.push_back(entry);
    } else if (name == Latin1("link")) {
      const QString& rel = LookupAttribute(child, Latin1("rel"));
      const QString& href = LookupAttribute(child, Latin1("href"));
      QUrl* target = nullptr;
      if (rel == Latin1(kBatchRel)) {
        target = &batch_link;
      } else if (rel == Latin1(kResumableCreateMediaRel)) {
        target = &resumable_create_media_link;
      } else if (rel == Latin1(kFeedRel)) {
        target = &feed_link;
      } else if (rel == Latin1(kPostRel)) {
        target = &post_link;
      }
      // Other relations (self, next, alternate and the rest) are not kept.
      if (target != nullptr) *target = UrlFromAttribute(href);
    } else if (name == Latin1("openSearch:itemsPerPage")) {
      // Not a number, or out of the 32-bit range: 0.
      items_per_page = child->text.toInt(nullptr, 10);
    } else if (name == Latin1("openSearch:startIndex")) {
      start_index = child->text.toInt(nullptr, 10);
    } else if (name == Latin1("updated")) {
      updated = child->text;
    }
  }
  return true;
}

}  // namespace quire
}  // namespace kestrel
