// Reads the emulator's Atom and error documents the way the client library does: element and
// attribute names exactly as written (prefixes included), direct children only.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace quire_test {

// What entries and feeds both have: the root element's namespaces and entity tag, and the id,
// updated and title children.
struct AtomHeadView {
  bool parsed = false;
  // Namespace declarations on the root element (prefix -> URI; "" for the default).
  std::map<std::string, std::string> namespaces;
  std::string etag;
  bool has_etag = false;
  std::string id;
  std::string updated;
  std::string title;
};

struct EntryView : AtomHeadView {
  std::string content_type;
  std::string content_src;
  std::string edit;
  std::string resumable_edit;
  std::string acl;
  std::string revisions;
  bool starred = false;
  // Categories in the labels scheme with the starred term (whatever their label).
  int starred_categories = 0;
  bool removed = false;
};

struct FeedView : AtomHeadView {
  // rel -> href of the feed's link children.
  std::map<std::string, std::string> links;
  std::string total_results;
  std::string start_index;
  std::string items_per_page;
  std::vector<EntryView> entries;

  // The entry whose edit link ends in "/" + id, or null.
  const EntryView* Find(const std::string& id) const;
};

struct ErrorView {
  bool parsed = false;
  std::string code;
  std::string status;
  std::string message;
};

class AtomView {
 public:
  static FeedView ParseFeed(const std::string& xml);
  // An entry document (root element "entry").
  static EntryView ParseEntry(const std::string& xml);
  static ErrorView ParseError(const std::string& xml);
  // The document id at the end of an edit link.
  static std::string IdOf(const EntryView& entry);
};

}  // namespace quire_test
