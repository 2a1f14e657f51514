// Any answer body through the e-mail handler: status 0 comes with a non-empty address that stands
// in the body's text right behind "email="; anything else is status 1 with an empty string.
// The checks live in fuzz_checks.cpp, which the seed replay of the test suite runs as well.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzz_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (const char* failure = quire_fuzz::CheckUserEmailInput(data, size)) {
    std::fprintf(stderr, "user_email_fuzz: %s\n", failure);
    std::abort();
  }
  return 0;
}
