quire_add_test(quire_model_test
  SOURCES
    model/docs_entry_test.cpp
    model/docs_feed_test.cpp
    model/pointer_vector_test.cpp
  LIBS quire_test_support)
