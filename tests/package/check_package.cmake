# Run by ctest (see package.cmake): installs the build into a scratch prefix, checks what landed
# there, then builds outside projects against it (a small consumer and the examples) with
# find_package(Quire) and with pkg-config, and runs them; the examples against the installed
# emulator, when the tools were built.
cmake_minimum_required(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "command failed (${result}): ${ARGV}\n${out}\n${err}")
  endif()
endfunction()

# A file, or the same compressed (as Debian's packages ship guides and manual pages).
function(expect_file path)
  if(NOT EXISTS ${path} AND NOT EXISTS ${path}.gz)
    message(FATAL_ERROR "not installed: ${path}")
  endif()
endfunction()

# With PREFIX, the files are already in place (the packages extracted into a scratch root, by
# scripts/check-deb); DOC_DIR says where their guides went.
file(REMOVE_RECURSE ${WORK_DIR})
if(PREFIX)
  set(prefix ${PREFIX})
else()
  set(prefix ${WORK_DIR}/prefix)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
endif()
if(NOT DOC_DIR)
  set(DOC_DIR ${prefix}/share/doc/quire)
endif()

# 0. What an adopter finds in the prefix.
file(GLOB libdirs LIST_DIRECTORIES true ${prefix}/lib ${prefix}/lib64 ${prefix}/lib/*-linux-gnu)
foreach(dir ${libdirs})
  if(EXISTS ${dir}/cmake/Quire/QuireConfig.cmake)
    set(libdir ${dir})
  endif()
endforeach()
if(NOT libdir)
  message(FATAL_ERROR "no lib*/cmake/Quire/QuireConfig.cmake under ${prefix}")
endif()
foreach(lib quire kestrel)
  expect_file(${libdir}/lib${lib}.so)     # for linking
  expect_file(${libdir}/lib${lib}.so.0)   # the SONAME, for running
  expect_file(${libdir}/pkgconfig/${lib}.pc)
endforeach()
expect_file(${libdir}/libquire_qt.so)
expect_file(${libdir}/libquire_qt.so.0)
expect_file(${libdir}/pkgconfig/quire-qt.pc)
expect_file(${libdir}/libquire_testing.a)
expect_file(${libdir}/pkgconfig/quire-testing.pc)
expect_file(${prefix}/include/quire/qt/qt_event_loop_driver.h)
expect_file(${libdir}/cmake/Quire/QuireConfigVersion.cmake)
expect_file(${prefix}/include/quire/quire.h)
expect_file(${prefix}/include/kestrel/net/curl_transport.h)
file(GLOB_RECURSE private_headers ${prefix}/include/*/internal/*)
if(private_headers)
  message(FATAL_ERROR "private headers were installed: ${private_headers}")
endif()
foreach(doc ARCHITECTURE.md HOST_GUIDE.md CHANGELOG.md examples/list_documents/CMakeLists.txt
            examples/upload_file/CMakeLists.txt examples/desktop/CMakeLists.txt)
  expect_file(${DOC_DIR}/${doc})
endforeach()
set(tools "")
foreach(tool quire quire-server)
  if(EXISTS ${prefix}/bin/${tool})
    list(APPEND tools ${tool})
    expect_file(${prefix}/share/man/man1/${tool}.1)
    # The installed program starts: it finds its libraries from where it lies.
    run(${prefix}/bin/${tool} --help)
  endif()
endforeach()
message(STATUS "installed tools: ${tools}")

# 1. CMake package: the consumer and the examples, each its own project.
set(cmake_args -G Ninja -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-consumer ${cmake_args})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-consumer)
run(${WORK_DIR}/cmake-consumer/consumer)
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR}/../qt_consumer -B ${WORK_DIR}/cmake-qt_consumer ${cmake_args})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-qt_consumer)
run(${WORK_DIR}/cmake-qt_consumer/qt_consumer)
foreach(example list_documents upload_file desktop)
  run(${CMAKE_COMMAND} -S ${EXAMPLES_DIR}/${example} -B ${WORK_DIR}/cmake-${example} ${cmake_args})
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-${example})
endforeach()
# The package brings the Qt it was built with, and the platform target with the library.
file(READ ${WORK_DIR}/cmake-consumer/CMakeCache.txt cache)
if(NOT cache MATCHES "Qt${QT_MAJOR}Core_DIR:PATH=[^\n]*Qt${QT_MAJOR}Core")
  message(FATAL_ERROR "the consumer did not find Qt ${QT_MAJOR} Core through QuireConfig")
endif()
run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/components -B ${WORK_DIR}/cmake-components
    ${cmake_args} -DEXPECTED_QT_MAJOR=${QT_MAJOR})

# 2. pkg-config, with the warnings a careful consumer builds with.
find_program(PKG_CONFIG pkg-config REQUIRED)
find_program(CXX_COMPILER c++ REQUIRED)
set(ENV{PKG_CONFIG_PATH} "${libdir}/pkgconfig")
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs quire RESULT_VARIABLE result
                OUTPUT_VARIABLE flags ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config quire failed: ${err}")
endif()
# The consumers use the scripted transport, from the testing library.
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs quire-testing quire RESULT_VARIABLE result
                OUTPUT_VARIABLE testing_flags ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config quire-testing failed: ${err}")
endif()
separate_arguments(testing_flag_list UNIX_COMMAND "${testing_flags}")
execute_process(COMMAND ${PKG_CONFIG} --modversion quire OUTPUT_VARIABLE version
                OUTPUT_STRIP_TRAILING_WHITESPACE)
message(STATUS "pkg-config quire ${version}: ${flags}")
separate_arguments(flag_list UNIX_COMMAND "${flags}")
set(cxx ${CXX_COMPILER} -std=c++17 -Wall -Wextra -Werror)

# Every installed header compiles on its own terms: nothing refers to a header left out.
file(GLOB_RECURSE headers RELATIVE ${prefix}/include ${prefix}/include/quire/*.h
     ${prefix}/include/kestrel/*.h)
set(all_headers "")
foreach(header ${headers})
  string(APPEND all_headers "#include <${header}>\n")
endforeach()
file(WRITE ${WORK_DIR}/all_headers.cpp "${all_headers}int main() { return 0; }\n")
run(${cxx} -c ${WORK_DIR}/all_headers.cpp -o ${WORK_DIR}/all_headers.o ${flag_list})

run(${cxx} ${CONSUMER_DIR}/main.cpp -o ${WORK_DIR}/pc-consumer ${testing_flag_list})
run(${cxx} ${EXAMPLES_DIR}/list_documents/main.cpp -o ${WORK_DIR}/pc-list_documents ${flag_list})
run(${cxx} ${EXAMPLES_DIR}/upload_file/main.cpp ${EXAMPLES_DIR}/upload_file/progress_connection.cpp
    -o ${WORK_DIR}/pc-upload_file ${flag_list})
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs quire-qt quire-testing quire RESULT_VARIABLE result
                OUTPUT_VARIABLE qt_flags ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config quire-qt failed: ${err}")
endif()
separate_arguments(qt_flag_list UNIX_COMMAND "${qt_flags}")
run(${cxx} ${CONSUMER_DIR}/../qt_consumer/main.cpp -o ${WORK_DIR}/pc-qt_consumer ${qt_flag_list})
set(ENV{LD_LIBRARY_PATH} "${libdir}")
run(${WORK_DIR}/pc-consumer)
run(${WORK_DIR}/pc-qt_consumer)

# 3. The examples against the installed emulator, as built both ways.
if("quire-server" IN_LIST tools)
  run(${RUN_EXAMPLES} ${prefix}/bin/quire-server ${WORK_DIR}/cmake-list_documents/list_documents
      ${WORK_DIR}/cmake-upload_file/upload_file ${WORK_DIR}/run-cmake)
  run(${RUN_EXAMPLES} ${prefix}/bin/quire-server ${WORK_DIR}/pc-list_documents
      ${WORK_DIR}/pc-upload_file ${WORK_DIR}/run-pkg-config)
  message(STATUS "examples ran against the installed emulator")
endif()
message(STATUS "package: installed, built with CMake and pkg-config, and ran")
