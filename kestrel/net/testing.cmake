# quire_testing: the test doubles a host's own tests use (ScriptedTransport), kept out of the shared
# libraries that ship to users. A static library installed with the development files; hosts find it
# with find_package(Quire COMPONENTS testing) as Quire::testing, or with pkg-config quire-testing.
add_library(quire_testing STATIC ${CMAKE_CURRENT_LIST_DIR}/scripted_transport.cpp)
add_library(Quire::testing ALIAS quire_testing)
set_target_properties(quire_testing PROPERTIES EXPORT_NAME testing)
quire_warnings(quire_testing)
target_link_libraries(quire_testing PUBLIC kestrel)
