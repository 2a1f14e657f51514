// One resumable upload session as the database describes it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quire_server {

struct UploadSessionRecord {
  std::string id;
  // The document whose content the upload replaces; empty when it creates a new document.
  std::string document_id;
  // Title from the opening request's metadata, if it named one.
  std::optional<std::string> title;
  // X-Upload-Content-Type of the opening request; empty when none was sent.
  std::string content_type;
  // Announced length.
  std::uint64_t total = 0;
  // Length of the prefix [0, held) that is durably stored.
  std::uint64_t held = 0;
  std::int64_t last_ms = 0;
};

}  // namespace quire_server
