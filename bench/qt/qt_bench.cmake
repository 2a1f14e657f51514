# A host on Qt's event loop beside one on RunUntil(): idle wake-ups, completion latency, upload
# throughput against the emulator (bench/run).
add_executable(qt_loop_bench ${CMAKE_CURRENT_LIST_DIR}/qt_loop_bench.cpp)
quire_warnings(qt_loop_bench)
target_link_libraries(qt_loop_bench PRIVATE quire_bench_common quire_bench_service quire_qt quire kestrel)
