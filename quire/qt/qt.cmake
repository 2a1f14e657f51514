# quire_qt: runs the library's callbacks from Qt's event loop. A library of its own, so that hosts
# without a Qt event loop do not pay for it (Quire::qt, find_package(Quire COMPONENTS qt),
# pkg-config quire-qt).
add_library(quire_qt SHARED qt/qt_event_loop_driver.cpp qt/internal/qt_event_loop_receiver.h)
add_library(Quire::qt ALIAS quire_qt)
set_target_properties(quire_qt PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
  EXPORT_NAME qt
  AUTOMOC ON)
quire_warnings(quire_qt)
target_include_directories(quire_qt PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(quire_qt PUBLIC kestrel ${QUIRE_QT_CORE})
target_compile_options(quire_qt PRIVATE -fno-exceptions)
target_link_options(quire_qt PRIVATE -Wl,--version-script=${CMAKE_CURRENT_SOURCE_DIR}/qt/quire_qt.map)
set_property(TARGET quire_qt APPEND PROPERTY LINK_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/qt/quire_qt.map)
