# quire: the command-line host of the library (CLI11 from Debian's libcli11-dev).
find_package(CLI11 REQUIRED)

# Everything but main() sits in a static library that the tests link as well.
add_library(quire_cli_core STATIC
  ${CMAKE_CURRENT_LIST_DIR}/cli_failure.cpp
  ${CMAKE_CURRENT_LIST_DIR}/client.cpp
  ${CMAKE_CURRENT_LIST_DIR}/command_line.cpp
  ${CMAKE_CURRENT_LIST_DIR}/config_file.cpp
  ${CMAKE_CURRENT_LIST_DIR}/curl_transport_factory.cpp
  ${CMAKE_CURRENT_LIST_DIR}/demo_runner.cpp
  ${CMAKE_CURRENT_LIST_DIR}/doc_list_formatter.cpp
  ${CMAKE_CURRENT_LIST_DIR}/doc_record.cpp
  ${CMAKE_CURRENT_LIST_DIR}/doc_resolver.cpp
  ${CMAKE_CURRENT_LIST_DIR}/downloader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/effective_settings.cpp
  ${CMAKE_CURRENT_LIST_DIR}/exit_codes.cpp
  ${CMAKE_CURRENT_LIST_DIR}/failure_classifier.cpp
  ${CMAKE_CURRENT_LIST_DIR}/interrupt_handler.cpp
  ${CMAKE_CURRENT_LIST_DIR}/mapped_file.cpp
  ${CMAKE_CURRENT_LIST_DIR}/network_diagnostics.cpp
  ${CMAKE_CURRENT_LIST_DIR}/progress_bar.cpp
  ${CMAKE_CURRENT_LIST_DIR}/proxy_environment.cpp
  ${CMAKE_CURRENT_LIST_DIR}/request_log.cpp
  ${CMAKE_CURRENT_LIST_DIR}/retry_tally.cpp
  ${CMAKE_CURRENT_LIST_DIR}/server_process.cpp
  ${CMAKE_CURRENT_LIST_DIR}/token_source.cpp
  ${CMAKE_CURRENT_LIST_DIR}/transport_installation.cpp
  ${CMAKE_CURRENT_LIST_DIR}/upload_state.cpp
  ${CMAKE_CURRENT_LIST_DIR}/uploader.cpp
)
quire_warnings(quire_cli_core)
target_include_directories(quire_cli_core PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(quire_cli_core PUBLIC quire kestrel CLI11::CLI11 ${QUIRE_QT_CORE})
target_compile_definitions(quire_cli_core PRIVATE QUIRE_VERSION="${PROJECT_VERSION}")
# The demo finds the emulator next to quire first, then where the build put it.
if(TARGET quire-server)
  target_compile_definitions(quire_cli_core PRIVATE
    QUIRE_SERVER_PATH="$<TARGET_FILE:quire-server>")
endif()

add_executable(quire_cli ${CMAKE_CURRENT_LIST_DIR}/main.cpp)
set_target_properties(quire_cli PROPERTIES OUTPUT_NAME quire)
quire_warnings(quire_cli)
target_link_libraries(quire_cli PRIVATE quire_cli_core)
