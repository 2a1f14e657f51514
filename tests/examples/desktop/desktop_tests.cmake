# The desktop application's window driven with QTest under Qt's offscreen platform, against the
# emulator. Paths are relative to tests/.
#
# Not under ThreadSanitizer: the window's code runs on the main thread only, while Qt's GUI library
# hands work (fonts, images) to pooled threads that it synchronises with primitives an
# uninstrumented Qt hides from ThreadSanitizer, which then reports races inside Qt at random. The
# crossing from the network thread to Qt's loop is covered there by quire_qt_emulator_test.
if(TARGET desktop_window AND TARGET quire_fault_matrix_support AND NOT QUIRE_SANITIZE MATCHES "thread")
  find_package(Qt${QUIRE_QT_MAJOR} REQUIRED COMPONENTS Test)
  add_executable(quire_desktop_test examples/desktop/desktop_window_test.cpp)
  quire_warnings(quire_desktop_test)
  target_include_directories(quire_desktop_test PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(quire_desktop_test PRIVATE desktop_window quire_fault_matrix_support
    Qt${QUIRE_QT_MAJOR}::Test GTest::gtest GTest::gtest_main)
  # Under LeakSanitizer, fontconfig's process-long caches are left out (see lsan.supp).
  gtest_discover_tests(quire_desktop_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300
    ENVIRONMENT "LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_LIST_DIR}/lsan.supp")
endif()
