quire_add_test(kestrel_xml_test
  SOURCES xml/xml_reader_test.cpp
  LIBS kestrel)
