// Any byte string through the XML reader: it must end in a tree or an error, never a crash, a leak
// or an out-of-bounds read; a tree it returns must be well linked, no larger than its source and no
// deeper than XmlReader::kMaxDepth.
// The checks live in fuzz_checks.cpp, which the seed replay of the test suite runs as well.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzz_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (const char* failure = quire_fuzz::CheckXmlReaderInput(data, size)) {
    std::fprintf(stderr, "xml_reader_fuzz: %s\n", failure);
    std::abort();
  }
  return 0;
}
