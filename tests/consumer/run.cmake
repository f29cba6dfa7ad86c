# Installs the built library into WORK_DIR/prefix, then configures, builds
# and runs the consumer project against that prefix.
file(REMOVE_RECURSE ${WORK_DIR})

function(step)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGV}")
  endif()
endfunction()

step(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
step(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G ${GENERATOR}
     -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix
     -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
     "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
step(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
step(${WORK_DIR}/build/consumer)
