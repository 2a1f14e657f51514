/// @file
/// The fields of one document of the document service, as a copyable value.
#pragma once

#include <QString>
#include <QStringList>
#include <QUrl>

namespace kestrel {
namespace quire {

/// The fields of one document of the document service, as a plain value that can be copied and
/// kept. DocsEntry fills them from an Atom "entry" element; a host that must keep a document past
/// the callback that shows it copies this part of the entry (`DocsEntryFields kept = entry;`).
struct DocsEntryFields {
  /// "href" of the "qr:feedLink" child whose "rel" is kAclFeedRel.
  QUrl acl_feed_link;
  /// "href" of the "link" child whose "rel" is "edit": the document's own address.
  QUrl edit_link;
  /// "href" of the "link" child whose "rel" is kResumableEditMediaRel: where a resumable upload of
  /// new content for this document starts.
  QUrl resumable_edit_media_link;
  /// The entry element's own "qr:etag" attribute; null when it has none.
  QString etag;
  /// Text of the "id" child, verbatim.
  QString id;
  /// Belongs to the record but is filled by nothing in this library; it stays empty.
  QStringList reserved_strings;
  /// Text of the "updated" child, verbatim (kept as text, never parsed as a date).
  QString updated;
  /// Attribute "type" of the "content" child: the document's media type.
  QString content_type;
  /// "href" of the "qr:feedLink" child whose "rel" is kRevisionsFeedRel.
  QUrl revisions_feed_link;
  /// Text of the "title" child, verbatim.
  QString title;
  /// Attribute "src" of the "content" child: where the document's bytes are.
  QUrl content_src;
  /// True when the entry has a "docs:removed" child (the document is in the trash).
  bool removed = false;
  /// The starred label: a "category" with scheme kLabelsScheme and term kStarredLabelTerm sets it
  /// to whether its "label" is exactly "starred" (so such a category with another label clears it).
  bool starred = false;
};

}  // namespace quire
}  // namespace kestrel
