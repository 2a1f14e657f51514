# Installation: libraries, public headers and a versioned CMake package, so that an outside project
# uses the library with find_package(Quire) and target_link_libraries(app Quire::quire).
include(CMakePackageConfigHelpers)

install(TARGETS kestrel quire EXPORT QuireTargets
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
foreach(pc quire kestrel)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
