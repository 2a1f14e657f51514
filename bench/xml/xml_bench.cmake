# The XML reader's benchmark: XmlReader against QXmlStreamReader and a raw pugixml parse.
find_package(pugixml REQUIRED)
add_executable(xml_reader_bench
  ${CMAKE_CURRENT_LIST_DIR}/xml_reader_bench.cpp
  ${CMAKE_CURRENT_LIST_DIR}/atom_feed_generator.cpp
  ${CMAKE_CURRENT_LIST_DIR}/heap_counter.cpp
  ${CMAKE_CURRENT_LIST_DIR}/stream_reader_tree.cpp)
quire_warnings(xml_reader_bench)
target_link_libraries(xml_reader_bench PRIVATE kestrel pugixml::pugixml benchmark::benchmark)
# Counting every malloc works by standing in for the C allocator, which the sanitizers replace.
if(NOT QUIRE_SANITIZE)
  target_compile_definitions(xml_reader_bench PRIVATE XML_BENCH_COUNT_HEAP)
endif()
