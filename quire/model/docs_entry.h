/// @file
/// One document of the document service, as the Atom "entry" element describes it.
#pragma once

#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_node.h"
#include "quire/model/docs_entry_fields.h"
#include "quire/quire_export.h"

namespace kestrel {
namespace quire {

/// One document of the document service: a plain record filled by ParseFrom() from an "entry"
/// element of the host's XML tree. Its fields are those of DocsEntryFields, the part of it that
/// can be copied.
///
/// Ownership and lifetime: entries are allocated through the host's memory manager (plain new and
/// delete do that for this class). An entry inside a DocsFeed belongs to the feed's `entries` and
/// dies with it; the entry that a create or modify request returns belongs to the service's
/// completion handler and is deleted as soon as the caller's callback returns. Callers only ever
/// see a `const DocsEntry&`: copy out whatever must outlive the callback (its DocsEntryFields, as a
/// whole). Entries themselves are never copied.
///
/// Threading: none. One thread fills and reads a record at a time.
class QUIRE_EXPORT DocsEntry : public DocsEntryFields {
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
};

}  // namespace quire
}  // namespace kestrel
