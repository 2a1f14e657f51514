#include "tools/quire/doc_record.h"

#include "quire/model/docs_entry.h"

namespace quire_cli {

DocRecord DocRecord::FromEntry(const kestrel::quire::DocsEntry& entry) {
  DocRecord record;
  record.acl_feed_link = entry.acl_feed_link;
  record.edit_link = entry.edit_link;
  record.resumable_edit_media_link = entry.resumable_edit_media_link;
  record.etag = entry.etag;
  record.id = entry.id;
  record.reserved_strings = entry.reserved_strings;
  record.updated = entry.updated;
  record.content_type = entry.content_type;
  record.revisions_feed_link = entry.revisions_feed_link;
  record.title = entry.title;
  record.content_src = entry.content_src;
  record.removed = entry.removed;
  record.starred = entry.starred;
  return record;
}

}  // namespace quire_cli
