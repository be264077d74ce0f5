# Installs the build tree into a scratch prefix, then builds and runs two
# consumers against it: a C99 program compiled by hand with strict warnings,
# and a CMake project that uses find_package(velr).
file(REMOVE_RECURSE ${VELR_WORK_DIR})
set(prefix ${VELR_WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${VELR_BUILD_DIR} --prefix ${prefix})

foreach(f include/velr.h include/velcore.h lib/libvelr.so lib/libvelcore.so
          lib/cmake/velr/velrConfig.cmake lib/pkgconfig/velr.pc)
  file(GLOB found ${prefix}/${f} ${prefix}/lib/*/${f})
  string(REPLACE "lib/" "lib/*/" alt ${f})
  file(GLOB found_alt ${prefix}/${alt})
  if(NOT found AND NOT found_alt)
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

# Where the libraries went (lib or lib/<multiarch>).
file(GLOB_RECURSE libvelr ${prefix}/libvelr.so)
get_filename_component(libdir ${libvelr} DIRECTORY)

# The C99 program, with the flags a strict C user would pick.
separate_arguments(extra UNIX_COMMAND "${VELR_C_FLAGS}")
run(cc -std=c99 -Wall -Wextra -pedantic -Werror ${extra}
    -I${prefix}/include ${VELR_CONSUMER_DIR}/c99_program.c
    -L${libdir} -lvelr -lvelcore -Wl,-rpath,${libdir}
    -o ${VELR_WORK_DIR}/c99_program)
run(${VELR_WORK_DIR}/c99_program)

# The find_package consumer.
run(${CMAKE_COMMAND} -S ${VELR_CONSUMER_DIR}/package -B ${VELR_WORK_DIR}/package
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_C_FLAGS=${VELR_C_FLAGS}
    -DCMAKE_EXE_LINKER_FLAGS=${VELR_C_FLAGS})
run(${CMAKE_COMMAND} --build ${VELR_WORK_DIR}/package)
run(${VELR_WORK_DIR}/package/consumer)
message(STATUS "installed tree works for C99 and find_package consumers")
