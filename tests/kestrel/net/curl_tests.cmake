# Tests of the HTTPS transport against servers on 127.0.0.1 that the tests start themselves.
find_package(PkgConfig REQUIRED)
pkg_check_modules(CURL_TEST_HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
find_package(OpenSSL REQUIRED)

quire_add_test(kestrel_curl_test
  SOURCES
    net/curl_raw_server.cpp
    net/curl_test_certificates.cpp
    net/curl_test_server.cpp
    net/curl_test_support.cpp
    net/curl_body_test.cpp
    net/curl_cancel_test.cpp
    net/curl_connection_test.cpp
    net/curl_failure_test.cpp
    net/curl_headers_test.cpp
    net/curl_recycle_test.cpp
    net/curl_status_test.cpp
  LIBS quire_test_support quire_test_certificates PkgConfig::CURL_TEST_HTTPLIB OpenSSL::SSL OpenSSL::Crypto Threads::Threads)
target_compile_definitions(kestrel_curl_test PRIVATE
  KESTREL_TEST_PROJECT_VERSION="${PROJECT_VERSION}")
