/// @file
/// One document of the document service, as the Atom "entry" element describes it.
#pragma once

#include <QString>
#include <QStringList>
#include <QUrl>

#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_node.h"
#include "quire/quire_export.h"

namespace kestrel {
namespace quire {

/// One document of the document service: a plain record filled by ParseFrom() from an "entry"
/// element of the host's XML tree.
///
/// Ownership and lifetime: entries are allocated through the host's memory manager (plain new and
/// delete do that for this class). An entry inside a DocsFeed belongs to the feed's `entries` and
/// dies with it; the entry that a create or modify request returns belongs to the service's
/// completion handler and is deleted as soon as the caller's callback returns. Callers only ever
/// see a `const DocsEntry&`: copy out whatever must outlive the callback. Entries are never copied.
///
/// Threading: none. One thread fills and reads a record at a time.
class QUIRE_EXPORT DocsEntry {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// An empty record: null strings, empty URLs and lists, both flags false.
  DocsEntry();
  /// Releases the fields.
  virtual ~DocsEntry();
  DocsEntry(const DocsEntry&) = delete;
  DocsEntry& operator=(const DocsEntry&) = delete;

  /// Fills the record from `node`, an element named exactly "entry" (element names are compared as
  /// written, prefix included; namespaces are not resolved). Returns false, leaving the record
  /// untouched, when `node` is null or is not such an element; anything else is accepted: missing
  /// elements leave fields as they were, missing attributes give null strings and empty URLs, and
  /// other elements are skipped. Only the node's direct children are read; when an element occurs
  /// more than once the last one wins. The record is not reset first, except `etag`, which is
  /// always assigned: parse into a freshly constructed record. Nothing of the tree is kept.
  virtual bool ParseFrom(kestrel::XmlNode* node);

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
  bool removed;
  /// The starred label: a "category" with scheme kLabelsScheme and term kStarredLabelTerm sets it
  /// to whether its "label" is exactly "starred" (so such a category with another label clears it).
  bool starred;
};

}  // namespace quire
}  // namespace kestrel
