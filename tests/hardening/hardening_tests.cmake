# Hardening: the fault matrix against the emulator, security tests through the real transport, and
# the fuzzers' seed inputs in every build. Paths are relative to tests/.

# The fuzz targets' checks (fuzz/fuzz_checks.cpp) read their inputs with libFuzzer's
# FuzzedDataProvider, a header that comes with clang's compiler-rt; it is copied alone into the
# build tree so that compilers other than clang see none of clang's own headers.
file(GLOB QUIRE_FUZZED_DATA_PROVIDER
  /usr/lib/llvm-*/lib/clang/*/include/fuzzer/FuzzedDataProvider.h)
if(NOT QUIRE_FUZZED_DATA_PROVIDER)
  message(FATAL_ERROR "fuzzer/FuzzedDataProvider.h (Debian package libclang-rt-14-dev) is "
    "missing: run scripts/setup")
endif()
list(GET QUIRE_FUZZED_DATA_PROVIDER 0 QUIRE_FUZZED_DATA_PROVIDER)
configure_file(${QUIRE_FUZZED_DATA_PROVIDER}
  ${CMAKE_CURRENT_BINARY_DIR}/fuzz_include/fuzzer/FuzzedDataProvider.h COPYONLY)

quire_add_test(quire_fuzz_corpus_test
  SOURCES hardening/fuzz_corpus_test.cpp ${PROJECT_SOURCE_DIR}/fuzz/fuzz_checks.cpp
  LIBS quire_test_support)
target_include_directories(quire_fuzz_corpus_test SYSTEM PRIVATE
  ${CMAKE_CURRENT_BINARY_DIR}/fuzz_include)
target_compile_definitions(quire_fuzz_corpus_test PRIVATE
  QUIRE_FUZZ_CORPUS_DIR="${PROJECT_SOURCE_DIR}/fuzz/corpus")

# A host's view of the library over CurlTransport, and what tests need to watch it.
add_library(quire_hardening_support STATIC
  hardening/library_client.cpp
  hardening/operation_runner.cpp
)
quire_warnings(quire_hardening_support)
target_include_directories(quire_hardening_support PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(quire_hardening_support PUBLIC
  quire_test_support)

quire_add_test(quire_security_test
  SOURCES hardening/security_test.cpp
  LIBS quire_hardening_support)

if(TARGET quire-server)
  add_library(quire_fault_matrix_support STATIC
    hardening/fault_emulator.cpp
    hardening/fault_matrix_test.cpp
  )
  quire_warnings(quire_fault_matrix_support)
  target_link_libraries(quire_fault_matrix_support PUBLIC
    quire_hardening_support quire_server_test_support)

  quire_add_test(quire_fault_matrix_test
    SOURCES hardening/fault_columns_test.cpp hardening/fault_retry_test.cpp
    LIBS quire_fault_matrix_support)

  # A column of its own, labelled for the suites that leave it out.
  function(quire_fault_column name source label)
    add_executable(${name} ${source})
    quire_warnings(${name})
    target_link_libraries(${name} PRIVATE quire_fault_matrix_support GTest::gtest GTest::gtest_main)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 600 LABELS ${label})
  endfunction()
  # The column that waits out the connection's 60 s stall time-out: CI runs it in the plain suite
  # only.
  quire_fault_column(quire_fault_delay_test hardening/fault_delay_test.cpp slow)
  # The 200 MB feed: one thread parses it, so the ThreadSanitizer suite, where it takes minutes,
  # leaves it out.
  quire_fault_column(quire_fault_huge_feed_test hardening/fault_huge_feed_test.cpp heavy)
  # Twenty uploads of up to 64 MiB under random faults: about a gigabyte through TLS and the
  # emulator's disk, so the plain suite only.
  quire_fault_column(quire_upload_chaos_test hardening/upload_chaos_test.cpp heavy)
endif()
