# Installs the build tree into a fresh prefix, then configures, builds and runs the consumer
# project against the installed tree alone, and checks the pkg-config file and the installed
# programs.
#
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... [-DSANITIZE=...] -P install_test.cmake

foreach(var BUILD_DIR SOURCE_DIR WORK_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "install_test: ${var} is not set")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out
                  ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "install_test: failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

function(expect text what)
  string(FIND "${run_output}" "${text}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "install_test: ${what}: '${text}' not found in:\n${run_output}")
  endif()
endfunction()

set(prefix "${WORK_DIR}/prefix")
set(consumer_build "${WORK_DIR}/consumer")
file(REMOVE_RECURSE "${WORK_DIR}")

run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")

foreach(file include/autoteza/rk.h include/autoteza/TezaInterface.h
             include/autoteza/TezaUtil.h lib/cmake/autoteza/autotezaConfig.cmake
             lib/cmake/autoteza/TezaGenerate.cmake lib/pkgconfig/autoteza.pc
             share/autoteza/teza-gen/templates/module.h.j2 bin/tezad bin/teza-call
             bin/teza-demo bin/teza-gen include/autoteza/TezaFanOut.h
             include/autoteza/TezaTrackerRegistry.h include/autoteza/TezaMetricsWriter.h
             lib/libautotezafleet.so)
  if(NOT EXISTS "${prefix}/${file}")
    message(FATAL_ERROR "install_test: ${file} was not installed")
  endif()
endforeach()

# The consumer sees the installed tree only.
set(flags "")
if(SANITIZE)
  set(flags "-DCMAKE_CXX_FLAGS=-fsanitize=${SANITIZE}"
            "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=${SANITIZE}")
endif()
run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/install/consumer" -B "${consumer_build}" -G Ninja
    "-DCMAKE_PREFIX_PATH=${prefix}" ${flags})
run(${CMAKE_COMMAND} --build "${consumer_build}")
run("${consumer_build}/greeter")
expect("Hello, installed world Hello, installed world (3 languages)" "the consumer's call")
expect("greet successes: 1" "the consumer's tracker")

# The installed generator runs from its link in bin.
run("${prefix}/bin/teza-gen" --check "${SOURCE_DIR}/tests/install/consumer/greeter.teza")

# The installed programs find the installed libraries.
run("${prefix}/bin/teza-call" --in-process system-get-corvi-version)
expect("<server>tezad" "teza-call from the installed tree")
run("${prefix}/bin/teza-demo")
expect("The demo ran as expected." "teza-demo from the installed tree")

# pkg-config: a program built by hand with the file's flags against the installed tree.
find_program(PKG_CONFIG pkg-config)
find_program(CXX NAMES c++ g++ clang++)
if(PKG_CONFIG AND CXX)
  set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig")
  run(${PKG_CONFIG} --cflags --libs autoteza)
  separate_arguments(pc_flags UNIX_COMMAND "${run_output}")
  set(sanitize_flags "")
  if(SANITIZE)
    set(sanitize_flags "-fsanitize=${SANITIZE}")
  endif()
  run(${CXX} -std=c++17 ${sanitize_flags} "${SOURCE_DIR}/tests/install/pc_consumer.cpp" -o "${WORK_DIR}/pc" ${pc_flags})
  set(ENV{LD_LIBRARY_PATH} "${prefix}/lib")
  run("${WORK_DIR}/pc")
  expect("pkg-config build works" "the pkg-config program")
endif()

file(REMOVE_RECURSE "${WORK_DIR}")
