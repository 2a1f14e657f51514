# The one home of test infrastructure, linked by every suite and by the benchmarks: the scripted
# transport fixtures and leak checks (headers), raw TCP/TLS servers, the emulator as a child
# process and an HTTP(S) client with an Atom reader to talk to it, a runner for other programs,
# temporary folders, the deterministic data pattern (a header), test certificates and a
# real proxy. Included by tests/CMakeLists.txt, and by bench/CMakeLists.txt when the tests are off.
find_package(GTest REQUIRED)
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(pugixml REQUIRED)
find_package(Threads REQUIRED)

set(QUIRE_TEST_SUPPORT_SOURCES atom_view.cpp http_client.cpp process_runner.cpp proxy_server.cpp
  raw_server.cpp socket_stream.cpp tcp_listener.cpp temp_dir.cpp test_certificates.cpp)
list(TRANSFORM QUIRE_TEST_SUPPORT_SOURCES PREPEND ${CMAKE_CURRENT_LIST_DIR}/)
add_library(quire_test_support STATIC ${QUIRE_TEST_SUPPORT_SOURCES})
quire_warnings(quire_test_support)
target_include_directories(quire_test_support PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(quire_test_support PUBLIC quire kestrel quire_testing GTest::gtest CURL::libcurl
  OpenSSL::SSL OpenSSL::Crypto pugixml::pugixml Threads::Threads)
if(TARGET quire-server)
  # ServerProcess starts the emulator this build made (or the one given as
  # QUIRE_SERVER_EXECUTABLE).
  target_sources(quire_test_support PRIVATE ${CMAKE_CURRENT_LIST_DIR}/server_process.cpp)
  target_compile_definitions(quire_test_support PRIVATE
    QUIRE_SERVER_BINARY="$<TARGET_FILE:quire-server>")
  if(NOT QUIRE_SERVER_EXECUTABLE)
    add_dependencies(quire_test_support quire-server)
  endif()
endif()
