// Arbitrary header lists through the upload header readers: GetHeaderValue must return a suffix of
// the first line that starts with the key, and GetResumableStartPos must leave the position alone
// whenever it finds no "-" in a non-empty "Range" value.
// The checks live in fuzz_checks.cpp, which the seed replay of the test suite runs as well.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzz_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (const char* failure = quire_fuzz::CheckUploadHeadersInput(data, size)) {
    std::fprintf(stderr, "upload_headers_fuzz: %s\n", failure);
    std::abort();
  }
  return 0;
}
