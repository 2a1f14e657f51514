# The desktop application's window driven with QTest under Qt's offscreen platform, against the
# emulator. Paths are relative to tests/.
if(TARGET desktop_window AND TARGET quire_fault_matrix_support)
  find_package(Qt${QUIRE_QT_MAJOR} REQUIRED COMPONENTS Test)
  quire_add_test(quire_desktop_test
    SOURCES examples/desktop/desktop_window_test.cpp
    LIBS desktop_window quire_fault_matrix_support Qt${QUIRE_QT_MAJOR}::Test)
endif()
