# The API reference, built by Doxygen from the public headers (the `docs` target, not part of
# `all`). Any Doxygen warning, and any public declaration without documentation, fails it; the
# api_reference test runs the same check. Installed with the package when it has been built.
find_package(Doxygen)
find_package(Python3 COMPONENTS Interpreter)
if(NOT DOXYGEN_FOUND OR NOT Python3_Interpreter_FOUND)
  message(STATUS "Doxygen or Python 3 not found: no API reference (docs target)")
  return()
endif()

set(QUIRE_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs/api)
set(QUIRE_DOCS_COMMAND ${CMAKE_COMMAND}
  -DSOURCE_DIR=${PROJECT_SOURCE_DIR} -DVERSION=${PROJECT_VERSION}
  -DDOXYGEN=${DOXYGEN_EXECUTABLE} -DPYTHON=${Python3_EXECUTABLE})
add_custom_target(docs
  COMMAND ${QUIRE_DOCS_COMMAND} -DOUTPUT_DIR=${QUIRE_DOCS_OUTPUT}
    -P ${PROJECT_SOURCE_DIR}/docs/api/build_api_reference.cmake
  COMMENT "API reference (fails on any warning or undocumented public declaration)"
  VERBATIM)

# The check does not depend on how the code is built: once per tree is enough, in the plain one.
if(QUIRE_BUILD_TESTS AND NOT QUIRE_SANITIZE)
  add_test(NAME api_reference
    COMMAND ${QUIRE_DOCS_COMMAND} -DOUTPUT_DIR=${PROJECT_BINARY_DIR}/tests/api-reference
      -P ${PROJECT_SOURCE_DIR}/docs/api/build_api_reference.cmake)
  set_tests_properties(api_reference PROPERTIES TIMEOUT 300)
endif()

install(DIRECTORY ${QUIRE_DOCS_OUTPUT}/html/ DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/quire/api
  OPTIONAL)
