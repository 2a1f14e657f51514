# Tests of the quire command: its parts on their own, the commands in-process over the scripted
# transport, and the quire program end to end against the emulator.
quire_add_test(quire_cli_test
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/command_line_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/doc_list_formatter_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/doc_resolver_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/exit_codes_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/failure_classifier_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/mapped_file_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/progress_bar_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/settings_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/token_source_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/upload_state_test.cpp
  LIBS quire_cli_core quire_test_support)

# The quire program against the emulator, over HTTPS on 127.0.0.1.
if(TARGET quire-server AND TARGET quire_cli)
  quire_add_test(quire_cli_end_to_end_test
    SOURCES
      ${CMAKE_CURRENT_LIST_DIR}/cli_download_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/cli_end_to_end_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/cli_settings_end_to_end_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/cli_retry_test.cpp
    LIBS quire_cli_core quire_server_test_support)
  target_compile_definitions(quire_cli_end_to_end_test PRIVATE
    QUIRE_BINARY="$<TARGET_FILE:quire_cli>"
    QUIRE_SERVER_BINARY="$<TARGET_FILE:quire-server>"
    QUIRE_COMPLETION_SCRIPT="${PROJECT_SOURCE_DIR}/tools/quire/completion/quire.bash"
    QUIRE_COMPLETION_CHECK="${CMAKE_CURRENT_LIST_DIR}/completion_check.sh")
  add_dependencies(quire_cli_end_to_end_test quire_cli quire-server)

  # The quire program behind a real proxy (tinyproxy).
  quire_add_test(quire_cli_proxy_test
    SOURCES
      ${CMAKE_CURRENT_LIST_DIR}/cli_proxy_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/proxy_environment_test.cpp
    LIBS quire_cli_core quire_test_support)
  target_compile_definitions(quire_cli_proxy_test PRIVATE
    QUIRE_BINARY="$<TARGET_FILE:quire_cli>"
    QUIRE_SERVER_BINARY="$<TARGET_FILE:quire-server>")
  add_dependencies(quire_cli_proxy_test quire_cli quire-server)
endif()

# The bash completion without a service: commands, options, files and profiles.
if(TARGET quire_cli)
  add_test(NAME quire_completion
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/completion_check.sh
      ${PROJECT_SOURCE_DIR}/tools/quire/completion/quire.bash $<TARGET_FILE:quire_cli>)
  set_tests_properties(quire_completion PROPERTIES TIMEOUT 120)

  # An upload of 5 GiB through the program: minutes of disk and network, in the plain suite only.
  add_executable(quire_cli_large_upload_test
    ${CMAKE_CURRENT_LIST_DIR}/cli_large_upload_test.cpp)
  quire_warnings(quire_cli_large_upload_test)
  target_include_directories(quire_cli_large_upload_test PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(quire_cli_large_upload_test PRIVATE
    quire_cli_core quire_test_support GTest::gtest GTest::gtest_main)
  target_compile_definitions(quire_cli_large_upload_test PRIVATE
    QUIRE_BINARY="$<TARGET_FILE:quire_cli>"
    QUIRE_SERVER_BINARY="$<TARGET_FILE:quire-server>")
  add_dependencies(quire_cli_large_upload_test quire_cli quire-server)
  gtest_discover_tests(quire_cli_large_upload_test DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 900 LABELS heavy)
endif()
