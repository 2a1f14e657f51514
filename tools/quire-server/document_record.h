// One stored document as the database describes it.
#pragma once

#include <cstdint>
#include <string>

namespace quire_server {

struct DocumentRecord {
  std::string id;
  std::string title;
  std::string content_type;
  std::uint64_t size = 0;
  // Name of the content file in the content folder.
  std::string blob;
  // Quoted strong entity tag, new at every change.
  std::string etag;
  std::int64_t updated_ms = 0;
  bool starred = false;
  bool removed = false;
};

}  // namespace quire_server
