# A 1 GiB resumable upload over the scripted transport: throughput, peak memory, allocations.
add_executable(upload_bench ${CMAKE_CURRENT_LIST_DIR}/upload_bench.cpp)
quire_warnings(upload_bench)
target_link_libraries(upload_bench PRIVATE quire_bench_common quire kestrel quire_testing)
