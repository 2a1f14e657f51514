# quire-server: a local emulator of the document service, serving both of the library's host names
# on one address. Built on Boost.Beast (HTTP/1.1 over Boost.Asio, TLS through OpenSSL), SQLite for
# metadata and CLI11 for the command line. It shares only header-only constants with the library.
if(QUIRE_SERVER_EXECUTABLE)
  if(NOT EXISTS "${QUIRE_SERVER_EXECUTABLE}")
    message(FATAL_ERROR "QUIRE_SERVER_EXECUTABLE: no such file: ${QUIRE_SERVER_EXECUTABLE}")
  endif()
  add_executable(quire-server IMPORTED GLOBAL)
  set_target_properties(quire-server PROPERTIES IMPORTED_LOCATION "${QUIRE_SERVER_EXECUTABLE}")
  return()
endif()

find_package(Boost 1.74 REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(CLI11 CONFIG REQUIRED)
find_package(pugixml REQUIRED)
find_package(Threads REQUIRED)

add_executable(quire-server
  quire-server/byte_range.cpp
  quire-server/certificate_maker.cpp
  quire-server/content_file_body.cpp
  quire-server/content_range.cpp
  quire-server/data_folder.cpp
  quire-server/database.cpp
  quire-server/db_transaction.cpp
  quire-server/document_store.cpp
  quire-server/error_document.cpp
  quire-server/fault_injector.cpp
  quire-server/feed_writer.cpp
  quire-server/field_text.cpp
  quire-server/file_body_exchange.cpp
  quire-server/file_sink.cpp
  quire-server/http_connection.cpp
  quire-server/http_front.cpp
  quire-server/http_response.cpp
  quire-server/i_exchange.cpp
  quire-server/main.cpp
  quire-server/memory_body_exchange.cpp
  quire-server/random_id.cpp
  quire-server/request_head.cpp
  quire-server/service_handler.cpp
  quire-server/session_chunk_exchange.cpp
  quire-server/session_claim.cpp
  quire-server/sqlite_statement.cpp
  quire-server/timestamp.cpp
  quire-server/unique_fd.cpp
  quire-server/upload_session_store.cpp
  quire-server/url_layout.cpp
  quire-server/xml_text.cpp
)
quire_warnings(quire-server)
# GCC warns that ThreadSanitizer does not model standalone fences. Boost.Asio's fenced blocks issue
# them next to the mutexes that actually order its handlers, and ThreadSanitizer sees those
# mutexes; only the emulator uses Asio, so only it is spared the warning.
if(QUIRE_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(quire-server PRIVATE -Wno-tsan)
endif()
target_include_directories(quire-server PRIVATE ${PROJECT_SOURCE_DIR})
# Asio without deprecated interfaces, and no separate Boost.System library to link.
target_compile_definitions(quire-server PRIVATE BOOST_ASIO_NO_DEPRECATED BOOST_BEAST_USE_STD_STRING_VIEW)
target_link_libraries(quire-server PRIVATE
  Boost::headers OpenSSL::SSL OpenSSL::Crypto SQLite::SQLite3 CLI11::CLI11 pugixml::pugixml
  Threads::Threads)
