# The HTTPS transport over libcurl, the network layer's built-in transport, with its internal parts
# (kestrel/net/internal: neither installed nor exported).
find_package(CURL REQUIRED)
target_sources(kestrel PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/curl_transport.cpp
  ${CMAKE_CURRENT_LIST_DIR}/curl_transport_config.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/body_storage.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/curl_settings.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/curl_status.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/curl_transfer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/header_lines.cpp)
target_link_libraries(kestrel PRIVATE CURL::libcurl)
target_compile_definitions(kestrel PRIVATE KESTREL_QUIRE_VERSION="${PROJECT_VERSION}")
