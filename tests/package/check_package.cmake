# Run by ctest (see package.cmake): install, then build and run an outside consumer project.
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "command failed (${result}): ${ARGV}\n${out}\n${err}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# 1. CMake package.
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-build -G Ninja
    -DCMAKE_PREFIX_PATH=${prefix} -DQUIRE_QT_MAJOR=${QT_MAJOR})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)

# 2. pkg-config.
find_program(PKG_CONFIG pkg-config REQUIRED)
find_program(CXX_COMPILER c++ REQUIRED)
file(GLOB pc_dirs ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
string(REPLACE ";" ":" pc_path "${pc_dirs}")
set(ENV{PKG_CONFIG_PATH} "${pc_path}")
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs quire RESULT_VARIABLE result
                OUTPUT_VARIABLE flags ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config quire failed: ${err}")
endif()
separate_arguments(flag_list UNIX_COMMAND "${flags}")
run(${CXX_COMPILER} -std=c++17 -fPIC ${CONSUMER_DIR}/main.cpp -o ${WORK_DIR}/pc-consumer ${flag_list})
string(REGEX MATCHALL "-L[^ ]+" libdirs "${flags}")
string(REPLACE "-L" "" libdirs "${libdirs}")
string(REPLACE ";" ":" libdirs "${libdirs}")
set(ENV{LD_LIBRARY_PATH} "${libdirs}")
run(${WORK_DIR}/pc-consumer)
message(STATUS "package consumer: CMake and pkg-config builds ran")
