// The two forms of the document list: a table for people and JSON for programs.
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <string>
#include <vector>

#include "tools/quire/doc_record.h"

namespace quire_cli {

class DocListFormatter {
 public:
  // One row per document under a heading: title, media type, updated, starred, removed, entity tag.
  // Columns are as wide as their widest cell; an empty list gives a line that says so.
  static std::string Table(const std::vector<DocRecord>& documents);

  // A JSON array with one object per document, in listing order, holding every field of the entry
  // under the field's name: addresses as encoded text (empty when absent), texts as strings (null
  // when the service sent none), the flags as booleans and reserved_strings as an array.
  static QByteArray Json(const std::vector<DocRecord>& documents);

  // The object of one document in Json().
  static QJsonObject ToJson(const DocRecord& document);
};

}  // namespace quire_cli
