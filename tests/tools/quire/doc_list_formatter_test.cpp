#include "tools/quire/doc_list_formatter.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <sstream>

namespace {

using quire_cli::DocListFormatter;
using quire_cli::DocRecord;

DocRecord Full() {
  DocRecord doc;
  doc.acl_feed_link = QUrl(QStringLiteral("https://docs.quire.example/acl/d1"));
  doc.edit_link = QUrl(QStringLiteral("https://docs.quire.example/feeds/default/private/full/d1"));
  doc.resumable_edit_media_link = QUrl(QStringLiteral("https://docs.quire.example/upload/d1"));
  doc.etag = QStringLiteral("\"e-1\"");
  doc.id = QStringLiteral("d1");
  doc.updated = QStringLiteral("2024-03-04T05:06:07.089Z");
  doc.content_type = QStringLiteral("text/plain");
  doc.revisions_feed_link = QUrl(QStringLiteral("https://docs.quire.example/revisions/d1"));
  doc.title = QString::fromUtf8("Caf\xc3\xa9 \"menu\"");
  doc.content_src = QUrl(QStringLiteral("https://docs.quire.example/content/d1?x=a%20b"));
  doc.removed = true;
  doc.starred = true;
  return doc;
}

TEST(DocListFormatterTest, JsonIsAnArrayWithEveryFieldOfEachEntry) {
  DocRecord bare;  // nothing filled: null texts, empty addresses
  const QByteArray json = DocListFormatter::Json({Full(), bare});
  QJsonParseError error{};
  const QJsonDocument parsed = QJsonDocument::fromJson(json, &error);
  ASSERT_EQ(error.error, QJsonParseError::NoError) << json.constData();
  ASSERT_TRUE(parsed.isArray());
  const QJsonArray array = parsed.array();
  ASSERT_EQ(array.size(), 2);

  const QJsonObject full = array.at(0).toObject();
  EXPECT_EQ(full.size(), 13);
  EXPECT_EQ(full.value(QStringLiteral("acl_feed_link")).toString(),
            QStringLiteral("https://docs.quire.example/acl/d1"));
  EXPECT_EQ(full.value(QStringLiteral("edit_link")).toString(),
            QStringLiteral("https://docs.quire.example/feeds/default/private/full/d1"));
  EXPECT_EQ(full.value(QStringLiteral("resumable_edit_media_link")).toString(),
            QStringLiteral("https://docs.quire.example/upload/d1"));
  EXPECT_EQ(full.value(QStringLiteral("etag")).toString(), QStringLiteral("\"e-1\""));
  EXPECT_EQ(full.value(QStringLiteral("id")).toString(), QStringLiteral("d1"));
  EXPECT_TRUE(full.value(QStringLiteral("reserved_strings")).toArray().isEmpty());
  EXPECT_TRUE(full.value(QStringLiteral("reserved_strings")).isArray());
  EXPECT_EQ(full.value(QStringLiteral("updated")).toString(),
            QStringLiteral("2024-03-04T05:06:07.089Z"));
  EXPECT_EQ(full.value(QStringLiteral("content_type")).toString(), QStringLiteral("text/plain"));
  EXPECT_EQ(full.value(QStringLiteral("revisions_feed_link")).toString(),
            QStringLiteral("https://docs.quire.example/revisions/d1"));
  EXPECT_EQ(full.value(QStringLiteral("title")).toString(),
            QString::fromUtf8("Caf\xc3\xa9 \"menu\""));
  EXPECT_EQ(full.value(QStringLiteral("content_src")).toString(),
            QStringLiteral("https://docs.quire.example/content/d1?x=a%20b"));
  EXPECT_TRUE(full.value(QStringLiteral("removed")).toBool());
  EXPECT_TRUE(full.value(QStringLiteral("starred")).toBool());

  const QJsonObject empty = array.at(1).toObject();
  EXPECT_EQ(empty.size(), 13);
  EXPECT_TRUE(empty.value(QStringLiteral("title")).isNull());
  EXPECT_TRUE(empty.value(QStringLiteral("etag")).isNull());
  EXPECT_EQ(empty.value(QStringLiteral("edit_link")).toString(), QString());
  EXPECT_FALSE(empty.value(QStringLiteral("removed")).toBool());
  EXPECT_TRUE(empty.value(QStringLiteral("starred")).isBool());
}

TEST(DocListFormatterTest, AnEmptyListIsAnEmptyJsonArray) {
  const QJsonDocument parsed = QJsonDocument::fromJson(DocListFormatter::Json({}));
  ASSERT_TRUE(parsed.isArray());
  EXPECT_TRUE(parsed.array().isEmpty());
}

TEST(DocListFormatterTest, TheTableHasAHeadingAndOneAlignedRowPerDocument) {
  DocRecord second;
  second.title = QStringLiteral("b");
  second.content_type = QStringLiteral("application/octet-stream");
  second.updated = QStringLiteral("2024-01-01T00:00:00.000Z");
  second.etag = QStringLiteral("\"x\"");
  const std::string table = DocListFormatter::Table({Full(), second});
  std::istringstream lines(table);
  std::string heading;
  std::string one;
  std::string two;
  std::string extra;
  ASSERT_TRUE(std::getline(lines, heading));
  ASSERT_TRUE(std::getline(lines, one));
  ASSERT_TRUE(std::getline(lines, two));
  EXPECT_FALSE(std::getline(lines, extra));
  EXPECT_EQ(heading.rfind("TITLE", 0), 0u);
  for (const char* column : {"TYPE", "UPDATED", "STARRED", "REMOVED", "ETAG"}) {
    EXPECT_NE(heading.find(column), std::string::npos) << column;
  }
  // Columns line up (the second row is plain ASCII, so bytes are characters).
  EXPECT_EQ(two.find("application/octet-stream"), heading.find("TYPE"));
  EXPECT_EQ(two.find("2024-01-01T00:00:00.000Z"), heading.find("UPDATED"));
  EXPECT_EQ(two.find("\"x\""), heading.find("ETAG"));
  EXPECT_NE(one.find("text/plain"), std::string::npos);
  EXPECT_NE(one.find("yes      yes"), std::string::npos) << one;
  EXPECT_NE(two.find("no       no"), std::string::npos) << two;
}

TEST(DocListFormatterTest, AnEmptyListSaysSo) {
  EXPECT_EQ(DocListFormatter::Table({}), "no documents\n");
}

}  // namespace
