find_package(Threads REQUIRED)
quire_add_test(kestrel_xml_test
  SOURCES
    xml/xml_arena_test.cpp
    xml/xml_reader_test.cpp
    xml/xml_reader_malformed_test.cpp
    xml/xml_reader_safety_test.cpp
  LIBS kestrel Threads::Threads)
