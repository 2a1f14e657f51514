# Installation: libraries, public headers and a versioned CMake package, so that an outside project
# uses the library with find_package(Quire) and target_link_libraries(app Quire::quire).
include(CMakePackageConfigHelpers)

install(TARGETS kestrel quire quire_qt quire_testing EXPORT QuireTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Public headers keep their place in the source tree: quire/..., kestrel/...
foreach(dir kestrel quire)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir}
    FILES_MATCHING PATTERN "*.h" PATTERN "internal" EXCLUDE)
endforeach()

set(QUIRE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Quire)
install(EXPORT QuireTargets NAMESPACE Quire:: DESTINATION ${QUIRE_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/QuireConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QuireConfig.cmake INSTALL_DESTINATION ${QUIRE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QuireConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QuireConfig.cmake ${PROJECT_BINARY_DIR}/QuireConfigVersion.cmake
  DESTINATION ${QUIRE_CMAKE_DIR})

# pkg-config files, relocatable: the prefix is found from where the .pc file lies.
file(RELATIVE_PATH QUIRE_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" QUIRE_PC_TO_PREFIX "${QUIRE_PC_TO_PREFIX}")
set(QUIRE_QT_PC Qt${QUIRE_QT_MAJOR}Core)
set(QUIRE_PC_CFLAGS "")
if(QUIRE_QT_MAJOR STREQUAL "5")
  set(QUIRE_PC_CFLAGS " -fPIC")
endif()
foreach(pc quire kestrel quire-qt quire-testing)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# The command-line tool and the emulator, each with its manual page, when they are built (the
# tools' targets exist only with QUIRE_BUILD_TOOLS and their sources present). The tool finds the
# libraries next to it (lib beside bin) unless they are in a system folder.
set(QUIRE_TOOL_RPATH "")
list(FIND CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES "${CMAKE_INSTALL_FULL_LIBDIR}" quire_libdir_is_system)
if(quire_libdir_is_system EQUAL -1)
  file(RELATIVE_PATH quire_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(QUIRE_TOOL_RPATH "$ORIGIN/${quire_bin_to_lib}")
endif()
foreach(tool quire_cli quire-server)
  if(NOT TARGET ${tool})
    continue()
  endif()
  get_target_property(tool_imported ${tool} IMPORTED)
  if(tool_imported)  # built elsewhere (QUIRE_SERVER_EXECUTABLE): installed from there
    continue()
  endif()
  get_target_property(tool_name ${tool} OUTPUT_NAME)
  if(NOT tool_name)
    set(tool_name ${tool})
  endif()
  set_target_properties(${tool} PROPERTIES INSTALL_RPATH "${QUIRE_TOOL_RPATH}")
  install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  configure_file(${PROJECT_SOURCE_DIR}/docs/man/${tool_name}.1.in
    ${PROJECT_BINARY_DIR}/docs/man/${tool_name}.1 @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/docs/man/${tool_name}.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  list(APPEND QUIRE_MAN_PAGES ${PROJECT_BINARY_DIR}/docs/man/${tool_name}.1)
endforeach()
# The bash completion of the command, where bash-completion looks for it on demand.
if(TARGET quire_cli)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/quire/completion/quire.bash
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions RENAME quire)
endif()

# The guides, the change log and the examples (the API reference, when built, comes with
# cmake/QuireDocs.cmake).
install(FILES ${PROJECT_SOURCE_DIR}/docs/ARCHITECTURE.md ${PROJECT_SOURCE_DIR}/docs/HOST_GUIDE.md
  ${PROJECT_SOURCE_DIR}/docs/CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/quire)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/quire/examples)

# The manual pages format without a warning.
if(QUIRE_BUILD_TESTS AND QUIRE_MAN_PAGES)
  find_program(QUIRE_GROFF groff)
  if(QUIRE_GROFF)
    add_test(NAME man_pages
      COMMAND ${PROJECT_SOURCE_DIR}/tests/package/check_man_pages.sh ${QUIRE_MAN_PAGES})
  endif()
endif()
