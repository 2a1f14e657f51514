#include "quire/model/docs_entry.h"

#include "quire/model/internal/xml_lookup.h"
#include "quire/model/link_relations.h"

namespace kestrel {
namespace quire {

using internal::Latin1;
using internal::LookupAttribute;
using internal::UrlFromAttribute;

DocsEntry::DocsEntry() : removed(false), starred(false) {}

DocsEntry::~DocsEntry() = default;

bool DocsEntry::ParseFrom(kestrel::XmlNode* node) {
  if (node == nullptr) return false;
  if (node->name != Latin1("entry")) return false;

  // Assigned whether or not the attribute is there.
  etag = LookupAttribute(node, Latin1("qr:etag"));

  for (const XmlNode* child = node->first_child; child != nullptr; child = child->next_sibling) {
    const QString& name = child->name;
    if (name == Latin1("category")) {
      if (LookupAttribute(child, Latin1("scheme")) == Latin1(kLabelsScheme) &&
          LookupAttribute(child, Latin1("term")) == Latin1(kStarredLabelTerm)) {
        // Assigned, not only raised: a later starred category with another label clears it.
        starred = LookupAttribute(child, Latin1("label")) == Latin1("starred");
      }
    } else if (name == Latin1("content")) {
      content_type = LookupAttribute(child, Latin1("type"));
      content_src = UrlFromAttribute(LookupAttribute(child, Latin1("src")));
    } else if (name == Latin1("docs:removed")) {
      removed = true;
    } else if (name == Latin1("qr:feedLink")) {
      const QString& rel = LookupAttribute(child, Latin1("rel"));
      const QString& href = LookupAttribute(child, Latin1("href"));
      if (rel == Latin1(kAclFeedRel)) {
        acl_feed_link = UrlFromAttribute(href);
      } else if (rel == Latin1(kRevisionsFeedRel)) {
        revisions_feed_link = UrlFromAttribute(href);
      }
    } else if (name == Latin1("link")) {
      const QString& rel = LookupAttribute(child, Latin1("rel"));
      const QString& href = LookupAttribute(child, Latin1("href"));
      if (rel == Latin1("edit")) {
        edit_link = UrlFromAttribute(href);
      } else if (rel == Latin1(kResumableEditMediaRel)) {
        resumable_edit_media_link = UrlFromAttribute(href);
      }
    } else if (name == Latin1("id")) {
      id = child->text;
    } else if (name == Latin1("title")) {
      title = child->text;
    } else if (name == Latin1("updated")) {
      updated = child->text;
    }
  }
  return true;
}

}  // namespace quire
}  // namespace kestrel
