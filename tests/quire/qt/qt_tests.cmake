# The Qt integration with a real QCoreApplication event loop. Paths are relative to tests/.
quire_add_test(quire_qt_test
  SOURCES quire/qt/qt_event_loop_driver_test.cpp
  LIBS quire_qt Threads::Threads)
if(TARGET quire_fault_matrix_support)
  # The same against the emulator over real HTTPS.
  quire_add_test(quire_qt_emulator_test
    SOURCES quire/qt/qt_emulator_test.cpp
    LIBS quire_qt quire_fault_matrix_support)
endif()
