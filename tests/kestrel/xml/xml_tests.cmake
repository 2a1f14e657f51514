find_package(Threads REQUIRED)
find_package(pugixml REQUIRED)

set(KESTREL_XML_TEST_SOURCES
  kestrel/xml/xml_arena_test.cpp
  kestrel/xml/xml_reader_test.cpp
  kestrel/xml/xml_reader_malformed_test.cpp
  kestrel/xml/xml_reader_safety_test.cpp)

quire_add_test(kestrel_xml_test
  SOURCES ${KESTREL_XML_TEST_SOURCES}
  LIBS kestrel Threads::Threads)

# The reader built from its sources, with the tests of its internal parts (which the shared library
# does not export): the exhaustive character tests (every code point) and the string cache's tests.
# Built twice, so that both of the reader's scanning loops are tested as thoroughly:
#   kestrel_xml_sse2_test      the sixteen-bytes-at-a-time SSE2 loops that x86-64 builds ship
#                              (tests prefixed "sse2."; only where the compiler targets SSE2);
#   kestrel_xml_portable_test  the portable loops (KESTREL_XML_NO_SSE2), which builds for other
#                              processors get, with the reader's public tests run against them too
#                              (tests prefixed "portable.").
function(kestrel_xml_source_test name prefix)
  add_executable(${name}
    ${ARGN}
    kestrel/xml/xml_characters_test.cpp
    kestrel/xml/xml_string_cache_test.cpp
    ${PROJECT_SOURCE_DIR}/kestrel/xml/xml_reader.cpp
    ${PROJECT_SOURCE_DIR}/kestrel/xml/internal/xml_characters.cpp
    ${PROJECT_SOURCE_DIR}/kestrel/xml/internal/xml_parse_buffer.cpp
    ${PROJECT_SOURCE_DIR}/kestrel/xml/internal/xml_scratch.cpp
    ${PROJECT_SOURCE_DIR}/kestrel/xml/internal/xml_string_cache.cpp
    ${PROJECT_SOURCE_DIR}/kestrel/xml/internal/xml_tree_builder.cpp
    ${PROJECT_SOURCE_DIR}/kestrel/base/memory_manager.cpp)
  quire_warnings(${name})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE
    ${QUIRE_QT_CORE} pugixml::pugixml Threads::Threads GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${name} TEST_PREFIX "${prefix}."
    DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

include(CheckCXXSourceCompiles)
check_cxx_source_compiles("
#if !defined(__SSE2__)
#error no SSE2
#endif
int main() { return 0; }" KESTREL_XML_HAS_SSE2)
if(KESTREL_XML_HAS_SSE2)
  kestrel_xml_source_test(kestrel_xml_sse2_test sse2)
endif()

kestrel_xml_source_test(kestrel_xml_portable_test portable ${KESTREL_XML_TEST_SOURCES})
target_compile_definitions(kestrel_xml_portable_test PRIVATE KESTREL_XML_NO_SSE2)
