#include "tools/quire/doc_resolver.h"

#include <string>

#include "tools/quire/cli_failure.h"

namespace quire_cli {

const DocRecord& DocResolver::Resolve(const QString& doc) const {
  if (doc.isEmpty()) {
    throw CliFailure(ExitCode::kUsage,
                     "the document is given as an empty text; give its title, id or edit address");
  }
  if (doc.contains(QLatin1String("://"))) {
    // Given as typed (percent-encoded or not), compared as a URL.
    const QUrl address = QUrl::fromEncoded(doc.toUtf8());
    for (const DocRecord& record : documents_) {
      if (!record.edit_link.isEmpty() && record.edit_link == address) return record;
    }
  }
  for (const DocRecord& record : documents_) {
    if (!record.id.isEmpty() && record.id == doc) return record;
  }
  std::vector<const DocRecord*> titled;
  for (const DocRecord& record : documents_) {
    if (record.title == doc) titled.push_back(&record);
  }
  if (titled.size() == 1) return *titled.front();
  if (titled.empty()) {
    throw CliFailure(ExitCode::kNotFound, "no document has the title, id or edit address \"" +
                                              doc.toStdString() +
                                              "\"; run quire ls to see the documents");
  }
  std::string candidates;
  for (const DocRecord* record : titled) {
    if (!candidates.empty()) candidates += ", ";
    candidates += record->id.toStdString() + " (updated " + record->updated.toStdString() +
                  (record->removed ? ", removed" : "") + ")";
  }
  throw CliFailure(ExitCode::kUsage, std::to_string(titled.size()) +
                                         " documents have the title \"" + doc.toStdString() +
                                         "\": " + candidates + "; name one of them by its id");
}

}  // namespace quire_cli
