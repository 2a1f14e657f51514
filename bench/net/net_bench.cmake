# Network benchmarks: the HTTPS transport against the curl command and a plain libcurl loop.
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(Threads REQUIRED)
add_executable(net_bench
  net/net_bench.cpp
  net/bench_http_server.cpp
)
quire_warnings(net_bench)
target_include_directories(net_bench PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(net_bench PRIVATE quire_bench_common)
