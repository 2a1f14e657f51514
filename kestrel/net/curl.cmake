# The HTTPS transport over libcurl, the network layer's built-in transport.
find_package(CURL REQUIRED)
target_sources(kestrel PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/curl_transport.cpp
  ${CMAKE_CURRENT_LIST_DIR}/curl_transport_config.cpp)
target_link_libraries(kestrel PRIVATE CURL::libcurl)
target_compile_definitions(kestrel PRIVATE
  KESTREL_HAVE_CURL_TRANSPORT=1
  KESTREL_QUIRE_VERSION="${PROJECT_VERSION}")
