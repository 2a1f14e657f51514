# The programs that bench/run drives: transfers against the emulator beside curl, and the report.
find_package(CURL REQUIRED)
add_library(quire_bench_common STATIC ${CMAKE_CURRENT_LIST_DIR}/bench_common.cpp)
quire_warnings(quire_bench_common)
target_include_directories(quire_bench_common PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(quire_bench_common PUBLIC quire_test_support CURL::libcurl)

# The set-up of the programs that drive the library against the emulator.
add_library(quire_bench_service STATIC ${CMAKE_CURRENT_LIST_DIR}/bench_service.cpp)
quire_warnings(quire_bench_service)
target_include_directories(quire_bench_service PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(quire_bench_service PUBLIC quire kestrel ${QUIRE_QT_CORE})

add_executable(transfer_bench ${CMAKE_CURRENT_LIST_DIR}/transfer_bench.cpp)
quire_warnings(transfer_bench)
target_link_libraries(transfer_bench PRIVATE quire_bench_common quire_bench_service quire kestrel CURL::libcurl)

add_executable(resilience_bench ${CMAKE_CURRENT_LIST_DIR}/resilience_bench.cpp)
quire_warnings(resilience_bench)
target_link_libraries(resilience_bench PRIVATE quire_bench_common quire_bench_service quire kestrel)

add_executable(bench_report ${CMAKE_CURRENT_LIST_DIR}/bench_report.cpp)
quire_warnings(bench_report)
target_link_libraries(bench_report PRIVATE quire_bench_common)
