# Parsing a document feed through the XML reader and the feed model, beside a raw pugixml parse.
find_package(pugixml REQUIRED)
add_executable(feed_parse_bench ${CMAKE_CURRENT_LIST_DIR}/feed_parse_bench.cpp)
quire_warnings(feed_parse_bench)
target_link_libraries(feed_parse_bench PRIVATE quire kestrel pugixml::pugixml)
