quire_add_test(quire_services_test
  SOURCES
    services/content_download_test.cpp
    services/docs_service_test.cpp
    services/docs_service_wire_test.cpp
    services/service_test.cpp
    services/user_info_service_test.cpp
  LIBS quire_test_support)
