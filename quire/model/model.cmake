# Feed model: the parsed Atom feed and entry records.
target_sources(quire PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/docs_entry.cpp
  ${CMAKE_CURRENT_LIST_DIR}/docs_feed.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/url_from_attribute.cpp
)
