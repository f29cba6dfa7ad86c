# Builds the consumer project against the library, installed into
# WORK_DIR/prefix (or with MP4STBL_SOURCE as a subproject), runs it on the
# shipped clip and checks what the README's examples print.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR}/run)

function(step)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGV}")
  endif()
endfunction()

set(configure -DREADME=${README} -DCMAKE_BUILD_TYPE=${BUILD_TYPE} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
if(MP4STBL_SOURCE)
  list(APPEND configure -DMP4STBL_SOURCE=${MP4STBL_SOURCE})
else()
  step(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
  list(APPEND configure -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
endif()
step(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G ${GENERATOR} ${configure})
step(${CMAKE_COMMAND} --build ${WORK_DIR}/build)

execute_process(COMMAND ${WORK_DIR}/build/consumer ${CLIP}
  WORKING_DIRECTORY ${WORK_DIR}/run
  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
message("${output}${errors}")
if(NOT result EQUAL 0)
  message(FATAL_ERROR "consumer failed (${result})")
endif()
# The shipped clip's 10 frames, 3 of them key frames, recorded again; the
# missing file refused; the cut starting where its frame starts.
foreach(expected "track 1 \\(vide\\): 10 samples, 3 key frames" "cannot open the file"
                 "cut from 0.080 s to 0.300 s" "consumer: ok")
  if(NOT "${output}${errors}" MATCHES "${expected}")
    message(FATAL_ERROR "consumer did not print '${expected}'")
  endif()
endforeach()
