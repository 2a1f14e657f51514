# Parsing a document feed through the XML reader and the feed model, beside a raw pugixml parse.
find_package(pugixml REQUIRED)
# The model's address parsing is compiled in for the records-alone road (the library does not
# export it).
add_executable(feed_parse_bench ${CMAKE_CURRENT_LIST_DIR}/feed_parse_bench.cpp
  ${PROJECT_SOURCE_DIR}/quire/model/internal/url_from_attribute.cpp)
quire_warnings(feed_parse_bench)
target_link_libraries(feed_parse_bench PRIVATE quire_bench_common quire kestrel pugixml::pugixml)
