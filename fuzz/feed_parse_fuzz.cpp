// Any byte string through the XML reader, then DocsFeed::ParseFrom and DocsEntry::ParseFrom on the
// root it yields: no crash, no leak; each parser accepts exactly the root element of its name, and
// a feed holds exactly its root's "entry" children.
// The checks live in fuzz_checks.cpp, which the seed replay of the test suite runs as well.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzz_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (const char* failure = quire_fuzz::CheckFeedParseInput(data, size)) {
    std::fprintf(stderr, "feed_parse_fuzz: %s\n", failure);
    std::abort();
  }
  return 0;
}
