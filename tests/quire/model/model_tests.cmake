quire_add_test(quire_model_test
  SOURCES
    quire/model/docs_entry_test.cpp
    quire/model/docs_feed_test.cpp
    quire/model/pointer_vector_test.cpp
    quire/model/url_from_attribute_test.cpp
    ${PROJECT_SOURCE_DIR}/quire/model/internal/url_from_attribute.cpp
  LIBS quire_test_support)
