# Helpers shared by every target of the project.

# Our own code builds with all warnings as errors; third-party headers come in as system headers.
function(quire_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# A gtest executable made of the given sources, registered with ctest test by test.
function(quire_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  quire_warnings(${name})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# The settings every shared library of the package shares, for a target made with
# add_library(<target> SHARED ...): the alias Quire::<EXPORT_NAME> (the name it is exported under),
# the package's version and soname, our warnings, the headers from the source tree (from the
# include folder once installed), and only the names of its VERSION_SCRIPT exported.
function(quire_shared_library target)
  cmake_parse_arguments(ARG "" "EXPORT_NAME;VERSION_SCRIPT" "" ${ARGN})
  if(NOT ARG_EXPORT_NAME OR NOT ARG_VERSION_SCRIPT)
    message(FATAL_ERROR "quire_shared_library(${target}): EXPORT_NAME and VERSION_SCRIPT are needed")
  endif()
  add_library(Quire::${ARG_EXPORT_NAME} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    EXPORT_NAME ${ARG_EXPORT_NAME})
  quire_warnings(${target})
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_options(${target} PRIVATE -Wl,--version-script=${ARG_VERSION_SCRIPT})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${ARG_VERSION_SCRIPT})
endfunction()
