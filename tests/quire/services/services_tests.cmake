quire_add_test(quire_services_test
  SOURCES
    quire/services/content_download_test.cpp
    quire/services/docs_service_test.cpp
    quire/services/docs_service_wire_test.cpp
    quire/services/service_test.cpp
    quire/services/user_info_service_test.cpp
  LIBS quire_test_support)
