#include "tools/quire/doc_resolver.h"

#include <gtest/gtest.h>

#include "tools/quire/cli_failure.h"

namespace {

using quire_cli::CliFailure;
using quire_cli::DocRecord;
using quire_cli::DocResolver;
using quire_cli::ExitCode;

DocRecord Doc(const QString& id, const QString& title, const QString& updated = QString()) {
  DocRecord doc;
  doc.id = id;
  doc.title = title;
  doc.updated = updated;
  doc.edit_link =
      QUrl(QStringLiteral("https://docs.quire.example/feeds/default/private/full/") + id);
  return doc;
}

std::vector<DocRecord> Listing() {
  return {Doc(QStringLiteral("d1"), QStringLiteral("Report"),
              QStringLiteral("2024-01-01T00:00:00.000Z")),
          Doc(QStringLiteral("d2"), QStringLiteral("Notes")),
          Doc(QStringLiteral("d3"), QStringLiteral("Report"),
              QStringLiteral("2024-02-02T00:00:00.000Z")),
          Doc(QStringLiteral("d4"), QStringLiteral("d2")),
          Doc(QStringLiteral("d5 x"), QString::fromUtf8("Plan \xc3\xa9t\xc3\xa9"))};
}

CliFailure ResolveFailure(const std::vector<DocRecord>& docs, const QString& doc) {
  try {
    DocResolver(docs).Resolve(doc);
  } catch (const CliFailure& failure) {
    return failure;
  }
  ADD_FAILURE() << "resolved " << doc.toStdString();
  return CliFailure(ExitCode::kOk, "");
}

TEST(DocResolverTest, AUniqueTitleNamesItsDocument) {
  const auto docs = Listing();
  EXPECT_EQ(DocResolver(docs).Resolve(QStringLiteral("Notes")).id, QStringLiteral("d2"));
}

TEST(DocResolverTest, AnIdNamesItsDocumentAndWinsOverATitle) {
  const auto docs = Listing();
  EXPECT_EQ(DocResolver(docs).Resolve(QStringLiteral("d3")).id, QStringLiteral("d3"));
  // "d2" is d2's id and d4's title: the id wins.
  EXPECT_EQ(DocResolver(docs).Resolve(QStringLiteral("d2")).id, QStringLiteral("d2"));
}

TEST(DocResolverTest, AnEditAddressNamesItsDocumentEncodedOrNot) {
  const auto docs = Listing();
  EXPECT_EQ(DocResolver(docs)
                .Resolve(QStringLiteral("https://docs.quire.example/feeds/default/private/full/d1"))
                .id,
            QStringLiteral("d1"));
  EXPECT_EQ(
      DocResolver(docs)
          .Resolve(QStringLiteral("https://docs.quire.example/feeds/default/private/full/d5%20x"))
          .id,
      QStringLiteral("d5 x"));
}

TEST(DocResolverTest, TitlesAreComparedExactly) {
  const auto docs = Listing();
  EXPECT_EQ(ResolveFailure(docs, QStringLiteral("notes")).code(), ExitCode::kNotFound);
  EXPECT_EQ(ResolveFailure(docs, QStringLiteral("Notes ")).code(), ExitCode::kNotFound);
  EXPECT_EQ(DocResolver(docs).Resolve(QString::fromUtf8("Plan \xc3\xa9t\xc3\xa9")).id,
            QStringLiteral("d5 x"));
}

TEST(DocResolverTest, ASharedTitleIsAUsageFailureListingTheCandidates) {
  const auto docs = Listing();
  const CliFailure failure = ResolveFailure(docs, QStringLiteral("Report"));
  EXPECT_EQ(failure.code(), ExitCode::kUsage);
  EXPECT_NE(failure.message().find("2 documents"), std::string::npos) << failure.message();
  EXPECT_NE(failure.message().find("d1 (updated 2024-01-01T00:00:00.000Z)"), std::string::npos);
  EXPECT_NE(failure.message().find("d3 (updated 2024-02-02T00:00:00.000Z)"), std::string::npos);
  EXPECT_NE(failure.message().find("by its id"), std::string::npos);
  EXPECT_EQ(failure.message().find("d2"), std::string::npos);
}

TEST(DocResolverTest, NothingMatchingIsNotFoundAndPointsAtTheListing) {
  const auto docs = Listing();
  const CliFailure failure = ResolveFailure(docs, QStringLiteral("Budget"));
  EXPECT_EQ(failure.code(), ExitCode::kNotFound);
  EXPECT_NE(failure.message().find("\"Budget\""), std::string::npos);
  EXPECT_NE(failure.message().find("quire ls"), std::string::npos);
  EXPECT_EQ(ResolveFailure(docs, QStringLiteral("https://docs.quire.example/other")).code(),
            ExitCode::kNotFound);
}

TEST(DocResolverTest, AnEmptyNameIsAUsageFailure) {
  const auto docs = Listing();
  EXPECT_EQ(ResolveFailure(docs, QString()).code(), ExitCode::kUsage);
}

TEST(DocResolverTest, AnEmptyListingFindsNothing) {
  const std::vector<DocRecord> none;
  EXPECT_EQ(ResolveFailure(none, QStringLiteral("Report")).code(), ExitCode::kNotFound);
}

}  // namespace
