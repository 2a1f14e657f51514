# The XML reader of the platform, over pugixml (Debian's libpugixml-dev).
find_package(pugixml REQUIRED)
target_sources(kestrel PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/xml_reader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/xml_characters.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/xml_parse_buffer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/xml_scratch.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/xml_string_cache.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/xml_tree_builder.cpp)
target_link_libraries(kestrel PRIVATE pugixml::pugixml)
