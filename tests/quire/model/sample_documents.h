// Atom documents as the document service writes them, for the model and service tests.
#pragma once

#include <QByteArray>
#include <QString>

#include "quire/model/link_relations.h"

namespace quire_test {

// The namespace declarations of the service's documents: the prefixes that the parsers read.
inline QByteArray NamespaceDeclarations() {
  return QByteArray("xmlns=\"http://www.w3.org/2005/Atom\" xmlns:qr=\"") +
         kestrel::quire::SchemaNamespace + "/g/2005\" xmlns:docs=\"" +
         kestrel::quire::SchemaNamespace + "/docs/2007\" xmlns:openSearch=\"" +
         kestrel::quire::SchemaNamespace + "/opensearch/1.1/\"";
}

// The children of a full entry for document `n`: every element that the entry parser reads, and a
// few that it skips.
inline QByteArray EntryChildren(int n) {
  const QByteArray num = QByteArray::number(n);
  const QByteArray ns(kestrel::quire::SchemaNamespace);
  return "<id>https://docs.quire.example/feeds/id/doc" + num +
         "</id>"
         "<published>2024-03-01T08:00:00.000Z</published>"
         "<updated>2024-03-05T17:42:09.123Z</updated>"
         "<category scheme=\"" +
         ns + "/g/2005#kind\" term=\"" + ns +
         "/docs/2007#file\"/>"
         "<category scheme=\"" +
         ns + "/g/2005/labels\" term=\"" + ns +
         "/g/2005/labels#starred\" label=\"starred\"/>"
         "<title>Report " +
         num +
         " &amp; notes &lt;draft&gt;</title>"
         "<content type=\"text/plain\" src=\"https://docs.quire.example/content/doc" +
         num +
         "?e=v1\"/>"
         "<link rel=\"alternate\" type=\"text/html\" href=\"https://docs.quire.example/view/doc" +
         num +
         "\"/>"
         "<link rel=\"edit\" href=\"https://docs.quire.example/feeds/default/private/full/doc" +
         num +
         "\"/>"
         "<link rel=\"edit-media\" href=\"https://docs.quire.example/media/doc" +
         num +
         "\"/>"
         "<link rel=\"" +
         ns +
         "/g/2005#resumable-edit-media\" href=\"https://docs.quire.example/"
         "upload/create-session/default/private/full/doc" +
         num +
         "\"/>"
         "<author><name>Ana</name><email>ana@quire.example</email></author>"
         "<qr:feedLink rel=\"" +
         ns +
         "/acl/2007#accessControlList\" href=\"https://docs.quire."
         "example/feeds/default/private/full/doc" +
         num +
         "/acl\"/>"
         "<qr:feedLink rel=\"" +
         ns +
         "/docs/2007/revisions\" href=\"https://docs.quire.example/"
         "feeds/default/private/full/doc" +
         num + "/revisions\"/>";
}

// A lone entry document, as create and replace answer.
inline QByteArray EntryDocument(int n, bool removed = false) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><entry " + NamespaceDeclarations() +
         " qr:etag=\"&quot;e" + QByteArray::number(n) + "&quot;\">" + EntryChildren(n) +
         (removed ? QByteArray("<docs:removed/>") : QByteArray()) + "</entry>";
}

// A feed of `count` entries.
inline QByteArray FeedDocument(int count) {
  const QByteArray ns(kestrel::quire::SchemaNamespace);
  QByteArray feed = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><feed " + NamespaceDeclarations() +
                    " qr:etag=\"W/&quot;feed1&quot;\">"
                    "<id>https://docs.quire.example/feeds/default/private/full</id>"
                    "<updated>2024-03-05T17:42:10.500Z</updated>"
                    "<title>Available Documents - ana@quire.example</title>"
                    "<link rel=\"" +
                    ns +
                    "/g/2005#feed\" type=\"application/atom+xml\" "
                    "href=\"https://docs.quire.example/feeds/default/private/full\"/>"
                    "<link rel=\"" +
                    ns +
                    "/g/2005#post\" type=\"application/atom+xml\" "
                    "href=\"https://docs.quire.example/feeds/default/private/full/post\"/>"
                    "<link rel=\"" +
                    ns +
                    "/g/2005#batch\" type=\"application/atom+xml\" "
                    "href=\"https://docs.quire.example/feeds/default/private/full/batch\"/>"
                    "<link rel=\"" +
                    ns +
                    "/g/2005#resumable-create-media\" href=\"https://docs."
                    "quire.example/upload/create-session/default/private/full\"/>"
                    "<link rel=\"self\" href=\"https://docs.quire.example/self\"/>"
                    "<openSearch:totalResults>" +
                    QByteArray::number(count) +
                    "</openSearch:totalResults><openSearch:startIndex>1</openSearch:startIndex>"
                    "<openSearch:itemsPerPage>" +
                    QByteArray::number(count) + "</openSearch:itemsPerPage>";
  for (int n = 0; n < count; ++n) {
    feed += "<entry qr:etag=\"&quot;e" + QByteArray::number(n) + "&quot;\">" + EntryChildren(n) +
            "</entry>";
  }
  feed += "</feed>";
  return feed;
}

}  // namespace quire_test
