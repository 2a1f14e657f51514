/// @file
/// The document list of the signed-in user, as the Atom "feed" document describes it.
#pragma once

#include <QString>
#include <QUrl>

#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_node.h"
#include "quire/model/docs_entry.h"
#include "quire/model/pointer_vector.h"
#include "quire/quire_export.h"

namespace kestrel {
namespace quire {

/// The document list of the signed-in user: a plain record filled by ParseFrom() from a "feed"
/// element of the host's XML tree, with the feed's own links, its paging numbers, its timestamp
/// text and entity tag, and its entries.
///
/// Ownership and lifetime: feeds are allocated through the host's memory manager (plain new and
/// delete do that for this class). A feed owns its entries; destroying it destroys each of them
/// once. The feed that DocsService::GetFeed delivers belongs to the service's completion handler
/// and is deleted as soon as the caller's callback returns: the callback sees a `const DocsFeed&`
/// and copies out what it keeps. Feeds are never copied.
///
/// Threading: none. One thread fills and reads a record at a time.
class QUIRE_EXPORT DocsFeed {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// An empty record: null strings, empty URLs, numbers 0, no entries.
  DocsFeed();
  /// Releases the fields; destroys every entry once.
  virtual ~DocsFeed();
  DocsFeed(const DocsFeed&) = delete;
  DocsFeed& operator=(const DocsFeed&) = delete;

  /// Fills the record from `node`, an element named exactly "feed" (names are compared as written,
  /// prefix included). Returns false, leaving the record untouched, when `node` is null or not such
  /// an element. Each "entry" child becomes a new DocsEntry appended to `entries`; when an entry
  /// refuses its node, ParseFrom deletes it and returns false at once, leaving the record partly
  /// filled (what was read before stays). Only direct children are read; the last occurrence of a
  /// link relation, a paging number or "updated" wins. The record is not reset first, except
  /// `etag`, which is always assigned, and entries are appended after any already present: parse
  /// into a freshly constructed record.
  virtual bool ParseFrom(kestrel::XmlNode* node);

  /// "href" of the "link" child whose "rel" is kBatchRel.
  QUrl batch_link;
  /// "href" of the "link" child whose "rel" is kResumableCreateMediaRel: where a resumable upload
  /// that creates a new document starts.
  QUrl resumable_create_media_link;
  /// The feed element's own "qr:etag" attribute; null when it has none.
  QString etag;
  /// "href" of the "link" child whose "rel" is kFeedRel: the feed's own address.
  QUrl feed_link;
  /// The number in the "openSearch:itemsPerPage" child; 0 when it is not a 32-bit decimal number.
  int items_per_page;
  /// The entries in document order, duplicates included.
  util::kit::PointerVector<DocsEntry> entries;
  /// Text of the "updated" child, verbatim.
  QString updated;
  /// "href" of the "link" child whose "rel" is kPostRel: where a POST creates a document.
  QUrl post_link;
  /// The number in the "openSearch:startIndex" child; 0 when it is not a 32-bit decimal number.
  int start_index;
};

}  // namespace quire
}  // namespace kestrel
