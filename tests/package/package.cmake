# Installs the build into a scratch prefix and builds an outside project against it, once with
# find_package(Quire) and once with pkg-config, then runs what was built. Skipped under sanitizers
# (an outside project would need the same instrumentation).
if(NOT QUIRE_SANITIZE)
  add_test(NAME package_consumer
    COMMAND ${CMAKE_COMMAND}
      -DBUILD_DIR=${PROJECT_BINARY_DIR}
      -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/package-check
      -DCONSUMER_DIR=${CMAKE_CURRENT_LIST_DIR}/consumer
      -DQT_MAJOR=${QUIRE_QT_MAJOR}
      -P ${CMAKE_CURRENT_LIST_DIR}/check_package.cmake)
  set_tests_properties(package_consumer PROPERTIES TIMEOUT 600 RUN_SERIAL TRUE)
endif()

add_test(NAME exported_symbols
  COMMAND ${CMAKE_CURRENT_LIST_DIR}/exported_symbols.sh $<TARGET_FILE:quire> $<TARGET_FILE:kestrel>)
