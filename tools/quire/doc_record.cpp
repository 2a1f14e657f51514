#include "tools/quire/doc_record.h"

#include "quire/model/docs_entry.h"

namespace quire_cli {

DocRecord DocRecord::FromEntry(const kestrel::quire::DocsEntry& entry) {
  DocRecord record;
  static_cast<kestrel::quire::DocsEntryFields&>(record) = entry;
  return record;
}

}  // namespace quire_cli
