quire_add_test(quire_upload_test
  SOURCES
    upload/upload_headers_test.cpp
    upload/resumable_upload_test.cpp
    upload/resumable_upload_connection_test.cpp
    upload/resumable_uploader_test.cpp
  LIBS quire_test_support)
