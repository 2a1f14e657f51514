quire_add_test(quire_connection_test
  SOURCES
    quire/connection/connection_test.cpp
    quire/connection/host_connection_test.cpp
    quire/connection/retry_policy_test.cpp
    quire/connection/retrying_connection_test.cpp
    quire/connection/status_conversion_test.cpp
  LIBS quire_test_support)
