#include "quire/model/docs_entry.h"

#include "quire/model/internal/xml_lookup.h"
#include "quire/model/link_relations.h"

namespace kestrel {
namespace quire {

using internal::LookupAttribute;
using internal::UrlFromAttribute;

DocsEntry::DocsEntry() : removed(false), starred(false) {}

DocsEntry::~DocsEntry() = default;

bool DocsEntry::ParseFrom(kestrel::XmlNode* node) {
  if (node == nullptr) return false;
  if (node->name != QLatin1String("entry")) return false;

  // Assigned whether or not the attribute is there.
  etag = LookupAttribute(node, QLatin1String("qr:etag"));

  for (const XmlNode* child = node->first_child; child != nullptr; child = child->next_sibling) {
    const QString& name = child->name;
    if (name == QLatin1String("category")) {
      if (LookupAttribute(child, QLatin1String("scheme")) == QLatin1String(kLabelsScheme) &&
          LookupAttribute(child, QLatin1String("term")) == QLatin1String(kStarredLabelTerm)) {
        // Assigned, not only raised: a later starred category with another label clears it.
        starred = LookupAttribute(child, QLatin1String("label")) == QLatin1String("starred");
      }
    } else if (name == QLatin1String("content")) {
      content_type = LookupAttribute(child, QLatin1String("type"));
      content_src = UrlFromAttribute(LookupAttribute(child, QLatin1String("src")));
    } else if (name == QLatin1String("docs:removed")) {
      removed = true;
    } else if (name == QLatin1String("qr:feedLink")) {
      const QString rel = LookupAttribute(child, QLatin1String("rel"));
      const QString href = LookupAttribute(child, QLatin1String("href"));
      if (rel == QLatin1String(kAclFeedRel)) {
        acl_feed_link = UrlFromAttribute(href);
      } else if (rel == QLatin1String(kRevisionsFeedRel)) {
        revisions_feed_link = UrlFromAttribute(href);
      }
    } else if (name == QLatin1String("link")) {
      const QString rel = LookupAttribute(child, QLatin1String("rel"));
      const QString href = LookupAttribute(child, QLatin1String("href"));
      if (rel == QLatin1String("edit")) {
        edit_link = UrlFromAttribute(href);
      } else if (rel == QLatin1String(kResumableEditMediaRel)) {
        resumable_edit_media_link = UrlFromAttribute(href);
      }
    } else if (name == QLatin1String("id")) {
      id = child->text;
    } else if (name == QLatin1String("title")) {
      title = child->text;
    } else if (name == QLatin1String("updated")) {
      updated = child->text;
    }
  }
  return true;
}

}  // namespace quire
}  // namespace kestrel
