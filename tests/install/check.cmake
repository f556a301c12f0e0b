# Installs the build tree into a scratch prefix, then configures, builds and runs the client
# project beside this script against it. Arguments: BUILD_DIR, WORK_DIR.
file(REMOVE_RECURSE ${WORK_DIR})
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${ARGN}\n${out}")
    endif()
    set(out "${out}" PARENT_SCOPE)
endfunction()
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR} -B ${WORK_DIR}/client -G Ninja
    -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/client)
run(${WORK_DIR}/client/app)
if(NOT out MATCHES "P2DrvEP-client 0x10001131")
    message(FATAL_ERROR "unexpected output of the client: ${out}")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
