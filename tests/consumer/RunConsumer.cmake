# cmake -P script: install, build the consumer both ways, run it.
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${ABI_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${ABI_FLAGS}" -DCMAKE_BUILD_RPATH=${prefix}/lib)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)
message(STATUS "find_package consumer: ${last_output}")
if(NOT last_output MATCHES "consumer ok")
  message(FATAL_ERROR "unexpected consumer output: ${last_output}")
endif()

# The same program through pkg-config.
find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
  run(${PKG_CONFIG} --cflags --libs kronlog)
  string(STRIP "${last_output}" flags)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  separate_arguments(abi UNIX_COMMAND "${ABI_FLAGS}")
  run(${CXX} -std=c++17 -Wall -Wextra -Wshadow -Woverloaded-virtual -Werror ${abi}
      ${SOURCE_DIR}/main.cpp -o ${WORK_DIR}/consumer-pc ${flags}
      -Wl,-rpath,${prefix}/lib)
  run(${WORK_DIR}/consumer-pc)
  message(STATUS "pkg-config consumer: ${last_output}")
endif()
