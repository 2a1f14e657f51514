# Streaming downloads in fresh processes beside the curl command (bench/run drives it).
add_executable(download_bench ${CMAKE_CURRENT_LIST_DIR}/download_bench.cpp)
quire_warnings(download_bench)
target_link_libraries(download_bench PRIVATE quire_bench_common quire kestrel)
