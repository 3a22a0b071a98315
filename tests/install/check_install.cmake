# Installs the build into a scratch prefix (or takes PREFIX and LIBDIR where the
# packages lie), then builds two consumers against it: one through
# find_package(WexCryptCpp), one through pkg-config. The consumers get the
# build's compiler flags, so a sanitizer build stays whole.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
endfunction()

if(NOT PREFIX)
  set(PREFIX ${WORK_DIR}/prefix)
  set(LIBDIR lib)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
endif()
set(ENV{LD_LIBRARY_PATH} ${PREFIX}/${LIBDIR})

# CMake package consumer.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/cmake-consumer
    -DCMAKE_PREFIX_PATH=${PREFIX} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-consumer)
run(${WORK_DIR}/cmake-consumer/consumer)

# pkg-config consumer.
set(ENV{PKG_CONFIG_PATH} ${PREFIX}/${LIBDIR}/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs wexcryptcpp RESULT_VARIABLE rc OUTPUT_VARIABLE flags
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know wexcryptcpp")
endif()
separate_arguments(flags UNIX_COMMAND "${CXX_FLAGS} ${flags}")
run(c++ -std=c++17 ${SOURCE_DIR}/tests/install/consumer/consumer.cpp -o ${WORK_DIR}/pc-consumer ${flags})
run(${WORK_DIR}/pc-consumer)
