// Turns what a person types for a document (its title, its id or its edit address) into one
// document of the listing.
#pragma once

#include <QString>
#include <vector>

#include "tools/quire/doc_record.h"

namespace quire_cli {

class DocResolver {
 public:
  explicit DocResolver(const std::vector<DocRecord>& documents) : documents_(documents) {}

  // The document that `doc` names, tried in this order: the edit address (exact, as encoded), the
  // id (exact), then the title (exact, case-sensitive). Throws CliFailure: not found when nothing
  // matches, usage when the title is shared by several documents (the message lists each
  // candidate's id and last update so that the person can pick one by id).
  const DocRecord& Resolve(const QString& doc) const;

 private:
  const std::vector<DocRecord>& documents_;
};

}  // namespace quire_cli
