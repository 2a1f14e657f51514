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
  // A copy of every field of `entry`, grouped by what the command does with them.
  static DocRecord FromEntry(const kestrel::quire::DocsEntry& entry);

  // The columns of `ls`; the entity tag also guards `rm` and `replace`.
  QString title;
  QString content_type;
  QString updated;
  bool starred = false;
  bool removed = false;
  QString etag;
  // How the command names a document in its messages and finds the one it uploaded.
  QString id;
  // Where `get` reads the content and `replace`, `rm` and `upload` send their requests.
  QUrl content_src;
  QUrl edit_link;
  QUrl resumable_edit_media_link;
  // Carried into `ls --json` only.
  QUrl acl_feed_link;
  QUrl revisions_feed_link;
  QStringList reserved_strings;
};

}  // namespace quire_cli
