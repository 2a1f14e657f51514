# The desktop application's window driven with QTest under Qt's offscreen platform, against the
# emulator. Paths are relative to tests/.
#
# Not under ThreadSanitizer: the window's code runs on the main thread only, while Qt's GUI library
# hands work (fonts, images) to pooled threads that it synchronises with primitives an
# uninstrumented Qt hides from ThreadSanitizer, which then reports races inside Qt at random. The
# crossing from the network thread to Qt's loop is covered there by quire_qt_emulator_test.
if(TARGET desktop_window AND TARGET quire_fault_matrix_support AND NOT QUIRE_SANITIZE MATCHES "thread")
  find_package(Qt${QUIRE_QT_MAJOR} REQUIRED COMPONENTS Test)
  quire_add_test(quire_desktop_test
    SOURCES examples/desktop/desktop_window_test.cpp
    LIBS desktop_window quire_fault_matrix_support Qt${QUIRE_QT_MAJOR}::Test)
endif()
