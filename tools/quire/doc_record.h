// A document as the command keeps it: a copy of every field of the library's entry, which lives
// only for the duration of a callback.
#pragma once

#include <QString>
#include <QStringList>
#include <QUrl>

namespace kestrel {
namespace quire {
class DocsEntry;
}  // namespace quire
}  // namespace kestrel

namespace quire_cli {

struct DocRecord {
  // A copy of `entry`, field by field.
  static DocRecord FromEntry(const kestrel::quire::DocsEntry& entry);

  QUrl acl_feed_link;
  QUrl edit_link;
  QUrl resumable_edit_media_link;
  QString etag;
  QString id;
  QStringList reserved_strings;
  QString updated;
  QString content_type;
  QUrl revisions_feed_link;
  QString title;
  QUrl content_src;
  bool removed = false;
  bool starred = false;
};

}  // namespace quire_cli
