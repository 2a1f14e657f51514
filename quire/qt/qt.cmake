# quire_qt: runs the library's callbacks from Qt's event loop. A library of its own, so that hosts
# without a Qt event loop do not pay for it (Quire::qt, find_package(Quire COMPONENTS qt),
# pkg-config quire-qt).
add_library(quire_qt SHARED qt/qt_event_loop_driver.cpp qt/internal/qt_event_loop_receiver.h)
set_target_properties(quire_qt PROPERTIES AUTOMOC ON)
quire_shared_library(quire_qt EXPORT_NAME qt
  VERSION_SCRIPT ${CMAKE_CURRENT_SOURCE_DIR}/qt/quire_qt.map)
target_link_libraries(quire_qt PUBLIC kestrel ${QUIRE_QT_CORE})
target_compile_options(quire_qt PRIVATE -fno-exceptions)
