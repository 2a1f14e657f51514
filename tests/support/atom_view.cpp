#include "tests/support/atom_view.h"

#include <cstring>
#include <pugixml.hpp>

#include "quire/model/link_relations.h"

namespace quire_test {
namespace {

namespace q = kestrel::quire;

std::map<std::string, std::string> Namespaces(const pugi::xml_node& node) {
  std::map<std::string, std::string> result;
  for (pugi::xml_attribute attribute : node.attributes()) {
    std::string name = attribute.name();
    if (name == "xmlns") result[""] = attribute.value();
    if (name.compare(0, 6, "xmlns:") == 0) result[name.substr(6)] = attribute.value();
  }
  return result;
}

// Reads the root element `node` into `head` when it is named `root_name`; false when it is not.
bool ReadHead(const pugi::xml_node& node, const char* root_name, AtomHeadView* head) {
  if (std::strcmp(node.name(), root_name) != 0) return false;
  head->parsed = true;
  head->namespaces = Namespaces(node);
  if (pugi::xml_attribute etag = node.attribute("qr:etag")) {
    head->has_etag = true;
    head->etag = etag.value();
  }
  return true;
}

// Reads `child` (named `name`) into `head` when it is one of the children heads have.
void ReadHeadChild(const std::string& name, const pugi::xml_node& child, AtomHeadView* head) {
  if (name == "id") head->id = child.text().get();
  if (name == "updated") head->updated = child.text().get();
  if (name == "title") head->title = child.text().get();
}

EntryView ReadEntry(const pugi::xml_node& node) {
  EntryView entry;
  if (!ReadHead(node, "entry", &entry)) return entry;
  for (pugi::xml_node child : node.children()) {
    if (child.type() != pugi::node_element) continue;
    std::string name = child.name();
    std::string rel = child.attribute("rel").value();
    std::string href = child.attribute("href").value();
    ReadHeadChild(name, child, &entry);
    if (name == "content") {
      entry.content_type = child.attribute("type").value();
      entry.content_src = child.attribute("src").value();
    }
    if (name == "link" && rel == "edit") entry.edit = href;
    if (name == "link" && rel == q::kResumableEditMediaRel) entry.resumable_edit = href;
    if (name == "qr:feedLink" && rel == q::kAclFeedRel) entry.acl = href;
    if (name == "qr:feedLink" && rel == q::kRevisionsFeedRel) entry.revisions = href;
    if (name == "category" && std::string(child.attribute("scheme").value()) == q::kLabelsScheme &&
        std::string(child.attribute("term").value()) == q::kStarredLabelTerm) {
      ++entry.starred_categories;
      entry.starred = std::string(child.attribute("label").value()) == "starred";
    }
    if (name == "docs:removed") entry.removed = true;
  }
  return entry;
}

}  // namespace

const EntryView* FeedView::Find(const std::string& id) const {
  for (const EntryView& entry : entries) {
    if (AtomView::IdOf(entry) == id) return &entry;
  }
  return nullptr;
}

FeedView AtomView::ParseFeed(const std::string& xml) {
  FeedView feed;
  pugi::xml_document doc;
  if (!doc.load_buffer(xml.data(), xml.size())) return feed;
  pugi::xml_node root = doc.document_element();
  if (!ReadHead(root, "feed", &feed)) return feed;
  for (pugi::xml_node child : root.children()) {
    if (child.type() != pugi::node_element) continue;
    std::string name = child.name();
    ReadHeadChild(name, child, &feed);
    if (name == "link")
      feed.links[child.attribute("rel").value()] = child.attribute("href").value();
    if (name == "openSearch:totalResults") feed.total_results = child.text().get();
    if (name == "openSearch:startIndex") feed.start_index = child.text().get();
    if (name == "openSearch:itemsPerPage") feed.items_per_page = child.text().get();
    if (name == "entry") feed.entries.push_back(ReadEntry(child));
  }
  return feed;
}

EntryView AtomView::ParseEntry(const std::string& xml) {
  pugi::xml_document doc;
  if (!doc.load_buffer(xml.data(), xml.size())) return EntryView();
  return ReadEntry(doc.document_element());
}

ErrorView AtomView::ParseError(const std::string& xml) {
  ErrorView error;
  pugi::xml_document doc;
  if (!doc.load_buffer(xml.data(), xml.size())) return error;
  pugi::xml_node root = doc.document_element();
  if (std::strcmp(root.name(), "errors") != 0) return error;
  pugi::xml_node first = root.child("error");
  if (!first) return error;
  error.parsed = true;
  error.code = first.child("code").text().get();
  error.status = first.child("status").text().get();
  error.message = first.child("message").text().get();
  return error;
}

std::string AtomView::IdOf(const EntryView& entry) {
  std::size_t slash = entry.edit.rfind('/');
  return slash == std::string::npos ? std::string() : entry.edit.substr(slash + 1);
}

}  // namespace quire_test
