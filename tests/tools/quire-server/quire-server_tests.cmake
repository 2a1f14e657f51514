# Tests of the emulator, quire-server. Paths are relative to tests/.
if(TARGET quire-server)
  # The emulator's test fixture: a fresh server per test and the protocol's requests, and a bare
  # connection for requests HTTP libraries refuse to send.
  add_library(quire_server_test_support STATIC
    tools/quire-server/raw_connection.cpp
    tools/quire-server/server_test.cpp
  )
  quire_warnings(quire_server_test_support)
  target_include_directories(quire_server_test_support PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(quire_server_test_support PUBLIC
    quire_test_support)
  if(QUIRE_SERVER_EXECUTABLE)
    # The emulator was built and tested elsewhere; only the library's tests use it here.
    return()
  endif()
  add_dependencies(quire_server_test_support quire-server)

  quire_add_test(quire_server_test
    SOURCES
      tools/quire-server/bad_input_test.cpp
      tools/quire-server/fault_injection_test.cpp
      tools/quire-server/lifecycle_test.cpp
      tools/quire-server/protocol_test.cpp
      tools/quire-server/range_test.cpp
    LIBS quire_server_test_support)

  quire_add_test(quire_server_stress_test
    SOURCES
      tools/quire-server/concurrency_test.cpp
      tools/quire-server/crash_safety_test.cpp
    LIBS quire_server_test_support)

  # The whole story with the curl command-line tool.
  find_program(QUIRE_CURL_TOOL curl)
  if(QUIRE_CURL_TOOL)
    add_test(NAME quire_server_curl_smoke
      COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tools/quire-server/curl_smoke_test.sh
        $<TARGET_FILE:quire-server>)
    set_tests_properties(quire_server_curl_smoke PROPERTIES TIMEOUT 120)
  endif()
endif()
