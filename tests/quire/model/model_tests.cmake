quire_add_test(quire_model_test
  SOURCES
    model/docs_entry_test.cpp
    model/docs_feed_test.cpp
    model/pointer_vector_test.cpp
    model/url_from_attribute_test.cpp
    ${PROJECT_SOURCE_DIR}/quire/model/internal/url_from_attribute.cpp
  LIBS quire_test_support)
