// The document list as the command keeps it: the feed's addresses and a copy of every entry.
#pragma once

#include <QString>
#include <QUrl>
#include <vector>

#include "tools/quire/doc_record.h"

namespace quire_cli {

struct FeedSnapshot {
  // Where a POST creates a document, and where a resumable upload that creates one starts.
  QUrl post_link;
  QUrl resumable_create_media_link;
  // The feed's entity tag (changes whenever any document changes).
  QString etag;
  std::vector<DocRecord> documents;
};

}  // namespace quire_cli
