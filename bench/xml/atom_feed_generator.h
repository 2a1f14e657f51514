// Generates document-list feeds as the service sends them, for benchmarks.
#pragma once

#include <QByteArray>

namespace quire_bench::xml {

// A feed of `entries` entries with every element and attribute that the feed model reads (entity
// tags, ids, timestamps, titles with entity and character references and non-ASCII text, content
// type and source, the edit and resumable-edit-media links, both feed links, the labels category,
// a removed marker on some) among the usual Atom furniture (authors, other links and categories),
// indented as a server pretty-prints it. The same count always gives the same bytes.
QByteArray GenerateAtomFeed(int entries);

}  // namespace quire_bench::xml
