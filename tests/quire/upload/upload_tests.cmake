quire_add_test(quire_upload_test
  SOURCES
    quire/upload/upload_headers_test.cpp
    quire/upload/resumable_upload_test.cpp
    quire/upload/resumable_upload_connection_test.cpp
    quire/upload/resumable_uploader_test.cpp
  LIBS quire_test_support)
