find_package(Threads REQUIRED)
find_package(pugixml REQUIRED)

set(KESTREL_XML_TEST_SOURCES
  xml/xml_arena_test.cpp
  xml/xml_reader_test.cpp
  xml/xml_reader_malformed_test.cpp
  xml/xml_reader_safety_test.cpp)

quire_add_test(kestrel_xml_test
  SOURCES ${KESTREL_XML_TEST_SOURCES}
  LIBS kestrel Threads::Threads)

# The same tests against the reader built from its sources with its portable loops only (no
# SSE2), which is what builds for other processors get; and the tests of its internal parts, which
# the shared library does not export.
add_executable(kestrel_xml_portable_test
  ${KESTREL_XML_TEST_SOURCES}
  xml/xml_characters_test.cpp
  xml/xml_string_cache_test.cpp
  ${PROJECT_SOURCE_DIR}/kestrel/xml/xml_reader.cpp
  ${PROJECT_SOURCE_DIR}/kestrel/xml/internal/xml_characters.cpp
  ${PROJECT_SOURCE_DIR}/kestrel/xml/internal/xml_string_cache.cpp
  ${PROJECT_SOURCE_DIR}/kestrel/base/memory_manager.cpp)
quire_warnings(kestrel_xml_portable_test)
target_compile_definitions(kestrel_xml_portable_test PRIVATE KESTREL_XML_NO_SSE2)
target_include_directories(kestrel_xml_portable_test PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(kestrel_xml_portable_test PRIVATE
  ${QUIRE_QT_CORE} pugixml::pugixml Threads::Threads GTest::gtest GTest::gtest_main)
gtest_discover_tests(kestrel_xml_portable_test TEST_PREFIX "portable."
  DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
