#include "tools/quire/doc_list_formatter.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QStringList>
#include <algorithm>

namespace quire_cli {
namespace {

QJsonValue Text(const QString& text) {
  return text.isNull() ? QJsonValue(QJsonValue::Null) : QJsonValue(text);
}

QJsonValue Address(const QUrl& url) { return QString::fromLatin1(url.toEncoded()); }

}  // namespace

std::string DocListFormatter::Table(const std::vector<DocRecord>& documents) {
  if (documents.empty()) return "no documents\n";
  const QStringList heading = {QStringLiteral("TITLE"),   QStringLiteral("TYPE"),
                               QStringLiteral("UPDATED"), QStringLiteral("STARRED"),
                               QStringLiteral("REMOVED"), QStringLiteral("ETAG")};
  std::vector<QStringList> rows;
  rows.push_back(heading);
  for (const DocRecord& doc : documents) {
    rows.push_back({doc.title, doc.content_type, doc.updated,
                    doc.starred ? QStringLiteral("yes") : QStringLiteral("no"),
                    doc.removed ? QStringLiteral("yes") : QStringLiteral("no"), doc.etag});
  }
  std::vector<int> widths(static_cast<std::size_t>(heading.size()), 0);
  for (const QStringList& row : rows) {
    for (int i = 0; i < row.size(); ++i) {
      widths[static_cast<std::size_t>(i)] =
          std::max(widths[static_cast<std::size_t>(i)], static_cast<int>(row[i].size()));
    }
  }
  std::string table;
  for (const QStringList& row : rows) {
    QString line;
    for (int i = 0; i < row.size(); ++i) {
      const bool last = i + 1 == row.size();
      line += last ? row[i] : row[i].leftJustified(widths[static_cast<std::size_t>(i)] + 2);
    }
    table += line.toStdString();
    table += '\n';
  }
  return table;
}

QJsonObject DocListFormatter::ToJson(const DocRecord& doc) {
  QJsonObject object;
  object.insert(QStringLiteral("acl_feed_link"), Address(doc.acl_feed_link));
  object.insert(QStringLiteral("edit_link"), Address(doc.edit_link));
  object.insert(QStringLiteral("resumable_edit_media_link"),
                Address(doc.resumable_edit_media_link));
  object.insert(QStringLiteral("etag"), Text(doc.etag));
  object.insert(QStringLiteral("id"), Text(doc.id));
  object.insert(QStringLiteral("reserved_strings"),
                QJsonArray::fromStringList(doc.reserved_strings));
  object.insert(QStringLiteral("updated"), Text(doc.updated));
  object.insert(QStringLiteral("content_type"), Text(doc.content_type));
  object.insert(QStringLiteral("revisions_feed_link"), Address(doc.revisions_feed_link));
  object.insert(QStringLiteral("title"), Text(doc.title));
  object.insert(QStringLiteral("content_src"), Address(doc.content_src));
  object.insert(QStringLiteral("removed"), doc.removed);
  object.insert(QStringLiteral("starred"), doc.starred);
  return object;
}

QByteArray DocListFormatter::Json(const std::vector<DocRecord>& documents) {
  QJsonArray array;
  for (const DocRecord& doc : documents) array.append(ToJson(doc));
  return QJsonDocument(array).toJson(QJsonDocument::Indented);
}

}  // namespace quire_cli
