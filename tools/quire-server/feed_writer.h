// Writes the Atom documents of the service: the feed of all documents and the lone entry that
// create, replace and finished uploads return. Prefixes are declared exactly as the client reads
// them ("qr", "docs", "openSearch"); relations are the library's own constants.
#pragma once

#include <string>

#include "tools/quire-server/document_record.h"
#include "tools/quire-server/document_store.h"

namespace quire_server {

class UrlLayout;

class FeedWriter {
 public:
  FeedWriter(const UrlLayout& urls, std::string account);

  std::string Feed(const DocumentStore::Listing& listing) const;
  // One entry as the root element, with the same namespace declarations as the feed.
  std::string Entry(const DocumentRecord& record) const;

 private:
  void AppendEntry(std::string* out, const DocumentRecord& record, bool root) const;

  const UrlLayout& urls_;
  std::string account_;
};

}  // namespace quire_server
