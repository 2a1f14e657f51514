# Builds the API reference and fails on any Doxygen warning or undocumented public declaration.
# Run by the `docs` target and the api_reference test (see cmake/QuireDocs.cmake):
#   cmake -DSOURCE_DIR=... -DOUTPUT_DIR=... -DVERSION=... -DDOXYGEN=... -DPYTHON=... -P this file
cmake_minimum_required(VERSION 3.25)
foreach(var SOURCE_DIR OUTPUT_DIR VERSION DOXYGEN PYTHON)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "build_api_reference.cmake needs -D${var}=...")
  endif()
endforeach()

set(PROJECT_SOURCE_DIR ${SOURCE_DIR})
set(PROJECT_VERSION ${VERSION})
set(QUIRE_DOCS_OUTPUT ${OUTPUT_DIR})
file(REMOVE_RECURSE ${OUTPUT_DIR}/html ${OUTPUT_DIR}/xml ${OUTPUT_DIR}/warnings.log)
file(MAKE_DIRECTORY ${OUTPUT_DIR})
configure_file(${SOURCE_DIR}/docs/api/Doxyfile.in ${OUTPUT_DIR}/Doxyfile @ONLY)

execute_process(COMMAND ${DOXYGEN} ${OUTPUT_DIR}/Doxyfile WORKING_DIRECTORY ${OUTPUT_DIR}
                RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
set(warnings "")
if(EXISTS ${OUTPUT_DIR}/warnings.log)
  file(READ ${OUTPUT_DIR}/warnings.log warnings)
endif()
if(NOT result EQUAL 0 OR NOT warnings STREQUAL "")
  message(FATAL_ERROR "the API reference has warnings (doxygen exit ${result}):\n${warnings}\n${out}${err}")
endif()

execute_process(COMMAND ${PYTHON} ${SOURCE_DIR}/docs/api/check_documented.py ${OUTPUT_DIR}/xml
                RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${out}${err}")
endif()
message(STATUS "${out}API reference: ${OUTPUT_DIR}/html/index.html")
