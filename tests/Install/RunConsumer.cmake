# cmake -P script: install, build the consumer both ways, run it, check output.
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGV}\n${out}\n${err}")
  endif()
  set(last_out "${out}" PARENT_SCOPE)
  set(last_err "${err}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

foreach(f lib/cmake/EventKesto/EventKestoConfig.cmake lib/pkgconfig/eventkesto.pc
          include/Kesto/EventKesto.h include/Kesto/Core/String.h include/ZuSlab/ZuSlab.h)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
file(GLOB sonames ${prefix}/lib/libEventKesto.so.0 ${prefix}/lib/libKesto.so.0 ${prefix}/lib/libZuSlab.so.0)
list(LENGTH sonames count)
if(NOT count EQUAL 3)
  message(FATAL_ERROR "versioned libraries missing: ${sonames}")
endif()

# 1. find_package(EventKesto CONFIG REQUIRED)
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)

# No LD_LIBRARY_PATH: the programs find libEventKesto through their run path
# and the libraries find each other through theirs ($ORIGIN).
unset(ENV{LD_LIBRARY_PATH})
set(ENV{TRACE} "Consumer/3")
set(ENV{TRACEFORMAT} "handle,level")
unset(ENV{TRACEFILE})
run(${WORK_DIR}/cmake-build/consumer)
if(NOT last_err MATCHES "Consumer 3 main\\(\\) hello from outside 42")
  message(FATAL_ERROR "unexpected trace from the consumer:\n${last_err}")
endif()
if(NOT last_out MATCHES "consumer ok")
  message(FATAL_ERROR "unexpected output from the consumer:\n${last_out}")
endif()

# The command installed beside the libraries runs from there, finding them
# through its run path alone.
if(WITH_COMMAND)
  if(NOT EXISTS ${prefix}/bin/kesto)
    message(FATAL_ERROR "not installed: bin/kesto")
  endif()
  run(${prefix}/bin/kesto --help)
  if(NOT last_out MATCHES "^usage: kesto COMMAND")
    message(FATAL_ERROR "unexpected help from the installed kesto:\n${last_out}")
  endif()
  run(${prefix}/bin/kesto list)
  if(NOT last_out MATCHES "^PID +NAME +TITLE +STARTED\n")
    message(FATAL_ERROR "unexpected list from the installed kesto:\n${last_out}")
  endif()
endif()

# 2. pkg-config
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run(${PKG_CONFIG} --cflags --libs eventkesto)
string(STRIP "${last_out}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++20 ${CONSUMER_DIR}/consumer.cpp -o ${WORK_DIR}/consumer-pc ${flags} -Wl,-rpath,${prefix}/lib)
run(${WORK_DIR}/consumer-pc)
if(NOT last_err MATCHES "Consumer 3 main\\(\\) hello from outside 42")
  message(FATAL_ERROR "unexpected trace from the pkg-config consumer:\n${last_err}")
endif()
