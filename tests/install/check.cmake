# Installs the build tree into a scratch prefix, then builds the client beside this script against
# it twice, with find_package(tovrix_cmt) and with pkg-config, for the architecture of the build
# under test, and runs both (through the build's emulator, if it has one).
# Arguments: BUILD_DIR, WORK_DIR, CXX (the build's compiler), LINKER_FLAGS (the build's
# CMAKE_EXE_LINKER_FLAGS), and for a cross build TOOLCHAIN, ARM64_ROOT and EMULATOR (its words
# separated by "|").
file(REMOVE_RECURSE ${WORK_DIR})
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${ARGN}\n${out}")
    endif()
    set(out "${out}" PARENT_SCOPE)
endfunction()
function(run_client app)
    run(${emulator} ${app})
    if(NOT out MATCHES "P2DrvEP-client 0x10001131")
        message(FATAL_ERROR "unexpected output of ${app}: ${out}")
    endif()
    message(STATUS "${app}: ${out}")
endfunction()

string(REPLACE "|" ";" emulator "${EMULATOR}")
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

set(cross_args)
if(TOOLCHAIN)
    set(cross_args -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DTOVRIX_ARM64_ROOT=${ARM64_ROOT})
endif()
run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR} -B ${WORK_DIR}/client -G Ninja
    -DCMAKE_PREFIX_PATH=${prefix} ${cross_args})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/client)
run_client(${WORK_DIR}/client/app)

# Only the package's own .pc file, never the machine's.
file(GLOB_RECURSE pc_file ${prefix}/tovrix_cmt.pc)
get_filename_component(pc_dir "${pc_file}" DIRECTORY)
set(ENV{PKG_CONFIG_LIBDIR} ${pc_dir})
unset(ENV{PKG_CONFIG_PATH})
run(pkg-config --cflags --libs tovrix_cmt)
separate_arguments(pc_flags UNIX_COMMAND "${out}")
separate_arguments(linker_flags UNIX_COMMAND "${LINKER_FLAGS}")
run(${CXX} -std=c++17 ${CMAKE_CURRENT_LIST_DIR}/main.cpp -o ${WORK_DIR}/app-pkg-config
    ${pc_flags} ${linker_flags})
run_client(${WORK_DIR}/app-pkg-config)
file(REMOVE_RECURSE ${WORK_DIR})
