// A document as the command keeps it: a copy of every field of the library's entry, which lives
// only for the duration of a callback.
#pragma once

#include "quire/model/docs_entry_fields.h"

namespace kestrel {
namespace quire {
class DocsEntry;
}  // namespace quire
}  // namespace kestrel

namespace quire_cli {

struct DocRecord : kestrel::quire::DocsEntryFields {
  // A copy of `entry`'s fields.
  static DocRecord FromEntry(const kestrel::quire::DocsEntry& entry);
};

}  // namespace quire_cli
