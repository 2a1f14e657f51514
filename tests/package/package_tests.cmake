# Installs the build into a scratch prefix and builds outside projects against it (a small
# consumer and the examples), once with find_package(Quire) and once with pkg-config, then runs
# what was built, the examples against the installed emulator. Skipped under sanitizers (an
# outside project would need the same instrumentation).
if(NOT QUIRE_SANITIZE)
  add_test(NAME package_consumer
    COMMAND ${CMAKE_COMMAND}
      -DBUILD_DIR=${PROJECT_BINARY_DIR}
      -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/package-check
      -DCONSUMER_DIR=${CMAKE_CURRENT_LIST_DIR}/consumer
      -DEXAMPLES_DIR=${PROJECT_SOURCE_DIR}/examples
      -DRUN_EXAMPLES=${CMAKE_CURRENT_LIST_DIR}/run_examples.sh
      -DQT_MAJOR=${QUIRE_QT_MAJOR}
      -P ${CMAKE_CURRENT_LIST_DIR}/check_package.cmake)
  set_tests_properties(package_consumer PROPERTIES TIMEOUT 900 RUN_SERIAL TRUE)
endif()

add_test(NAME exported_symbols
  COMMAND ${CMAKE_CURRENT_LIST_DIR}/exported_symbols.sh $<TARGET_FILE:quire> $<TARGET_FILE:kestrel>)

# The examples are also built in the tree, with the project's warnings and sanitizers, and run
# against the emulator built beside them.
foreach(example list_documents upload_file)
  add_subdirectory(${PROJECT_SOURCE_DIR}/examples/${example}
    ${PROJECT_BINARY_DIR}/examples/${example})
  quire_warnings(${example})
endforeach()
add_subdirectory(${PROJECT_SOURCE_DIR}/examples/desktop ${PROJECT_BINARY_DIR}/examples/desktop)
quire_warnings(desktop_window)
quire_warnings(desktop)
if(TARGET quire-server)
  add_test(NAME examples_against_emulator
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/run_examples.sh $<TARGET_FILE:quire-server>
      $<TARGET_FILE:list_documents> $<TARGET_FILE:upload_file>
      ${CMAKE_CURRENT_BINARY_DIR}/examples-run)
  set_tests_properties(examples_against_emulator PROPERTIES TIMEOUT 300)
endif()

# The Debian packages from a fresh clone of the committed tree: built, checked with lintian,
# extracted into a scratch root, the examples built and run against it, the demo run from it
# (scripts/check-deb). Its work folder stays in the build tree, so that later runs compile from
# ccache.
if(NOT QUIRE_SANITIZE AND QUIRE_QT_MAJOR STREQUAL "6")
  find_program(QUIRE_DPKG_BUILDPACKAGE dpkg-buildpackage)
  if(QUIRE_DPKG_BUILDPACKAGE)
    add_test(NAME check_deb
      COMMAND ${PROJECT_SOURCE_DIR}/scripts/check-deb ${CMAKE_CURRENT_BINARY_DIR}/check-deb)
    set_tests_properties(check_deb PROPERTIES TIMEOUT 1800 RUN_SERIAL TRUE LABELS heavy)
  endif()
endif()
