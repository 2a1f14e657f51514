quire_add_test(kestrel_base_test
  SOURCES
    kestrel/base/atomic_test.cpp
    kestrel/base/main_loop_test.cpp
    kestrel/base/memory_manager_test.cpp
  LIBS kestrel Threads::Threads)
