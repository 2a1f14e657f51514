// Any byte string through the XML reader, then DocsFeed::ParseFrom and DocsEntry::ParseFrom on the
// root it yields: no crash, no leak; each parser accepts exactly the root element of its name, and
// a feed holds exactly its root's "entry" children.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_reader.h"
#include "quire/model/docs_entry.h"
#include "quire/model/docs_feed.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const long live = kestrel::MemoryManager::Default()->live_allocations();
  {
    kestrel::XmlReader reader(reinterpret_cast<const char*>(data), size);
    kestrel::XmlNode* root = reader.GetRootNode();
    auto* feed = kestrel::doNew<kestrel::quire::DocsFeed>();
    const bool feed_ok = feed->ParseFrom(root);
    if (feed_ok != (root != nullptr && root->name == QLatin1String("feed"))) std::abort();
    if (feed_ok) {
      std::size_t entries = 0;
      for (kestrel::XmlNode* child = root->first_child; child; child = child->next_sibling) {
        if (child->name == QLatin1String("entry")) ++entries;
      }
      if (feed->entries.size() != entries) std::abort();
      for (std::size_t i = 0; i < feed->entries.size(); ++i) {
        if (feed->entries[i] == nullptr) std::abort();
      }
    }
    kestrel::doDelete(feed);
    auto* entry = kestrel::doNew<kestrel::quire::DocsEntry>();
    const bool entry_ok = entry->ParseFrom(root);
    if (entry_ok != (root != nullptr && root->name == QLatin1String("entry"))) std::abort();
    if (!entry->reserved_strings.isEmpty()) std::abort();
    kestrel::doDelete(entry);
  }
  if (kestrel::MemoryManager::Default()->live_allocations() != live) std::abort();
  return 0;
}
