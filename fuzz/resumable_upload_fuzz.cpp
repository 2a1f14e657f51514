// The whole resumable upload driven by fuzzed server answers (statuses, "Location" and "Range"
// lines) over a host IConnection. Checked on every run:
//   * every PUT body is a view that lies inside the caller's data, starts where its Content-Range
//     line says, is as long as that range, and goes to the address from "Location";
//   * the caller's callback is called exactly once, and never from inside ResumableUpload();
//   * a made-up failure (status 2) carries an empty body, and a success carries the last answer's
//     body;
//   * the memory manager's live allocations return to their start value.
//
// Speed matters (ten million runs are wanted): the data is filled with memset, and the check that
// a body is readable asks ASan's shadow memory instead of reading every byte.
// The checks live in fuzz_checks.cpp, which the seed replay of the test suite runs as well.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzz_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (const char* failure = quire_fuzz::CheckResumableUploadInput(data, size)) {
    std::fprintf(stderr, "resumable_upload_fuzz: %s\n", failure);
    std::abort();
  }
  return 0;
}
