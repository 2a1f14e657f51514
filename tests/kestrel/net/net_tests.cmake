# Tests of the network layer's parts without a socket.
quire_add_test(kestrel_net_test
  SOURCES
    kestrel/net/response_sink_test.cpp
    kestrel/net/scripted_transport_test.cpp
    kestrel/net/server_info_test.cpp
  LIBS quire_test_support)

# Tests of the HTTPS transport against servers on 127.0.0.1 that the tests start themselves.
find_package(PkgConfig REQUIRED)
pkg_check_modules(CURL_TEST_HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)

quire_add_test(kestrel_curl_test
  SOURCES
    kestrel/net/curl_test_server.cpp
    kestrel/net/curl_test_support.cpp
    kestrel/net/curl_body_test.cpp
    kestrel/net/curl_cancel_test.cpp
    kestrel/net/curl_connection_test.cpp
    kestrel/net/curl_failure_test.cpp
    kestrel/net/curl_headers_test.cpp
    kestrel/net/curl_recycle_test.cpp
    kestrel/net/curl_sink_test.cpp
    kestrel/net/curl_status_test.cpp
    kestrel/net/curl_proxy_test.cpp
  LIBS quire_test_support PkgConfig::CURL_TEST_HTTPLIB)
target_compile_definitions(kestrel_curl_test PRIVATE
  KESTREL_TEST_PROJECT_VERSION="${PROJECT_VERSION}")

# The transport's parts that need no socket (header lines, status mapping, body storage). They are
# internal to libkestrel (hidden), so their sources are compiled into the test program.
find_package(CURL REQUIRED)
quire_add_test(kestrel_curl_parts_test
  SOURCES
    kestrel/net/header_lines_test.cpp
    kestrel/net/curl_status_map_test.cpp
    kestrel/net/body_storage_test.cpp
    ${PROJECT_SOURCE_DIR}/kestrel/net/internal/body_storage.cpp
    ${PROJECT_SOURCE_DIR}/kestrel/net/internal/header_lines.cpp
    ${PROJECT_SOURCE_DIR}/kestrel/net/internal/curl_status.cpp
  LIBS kestrel CURL::libcurl)
