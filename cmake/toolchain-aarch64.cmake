# Cross build for arm64 (aarch64) Linux with Debian's g++-aarch64-linux-gnu.
#
# Headers and link-time libraries come from the machine itself: the compiler's own libc under
# /usr/aarch64-linux-gnu, and the arm64 multiarch packages (GoogleTest, liblog, libbacktrace)
# under /usr/lib/aarch64-linux-gnu, which the project finds through CMAKE_LIBRARY_ARCHITECTURE
# exactly as it finds the host's.
#
# The programs run under qemu-aarch64-static with the root TOVRIX_ARM64_ROOT (built by
# scripts/arm64/make-root.sh from the arm64 .debs). It must not be the compiler's
# /usr/aarch64-linux-gnu: that libc is a different build from the multiarch libc6:arm64 the
# libraries were made against, and threads hang in pthread_create under it.
#
#   cmake -S . -B build/arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

if(NOT TOVRIX_ARM64_ROOT)
    if(DEFINED ENV{TOVRIX_ARM64_ROOT})
        set(TOVRIX_ARM64_ROOT "$ENV{TOVRIX_ARM64_ROOT}")
    else()
        get_filename_component(TOVRIX_ARM64_ROOT "${CMAKE_CURRENT_LIST_DIR}/../build/arm64/root"
                               ABSOLUTE)
    endif()
endif()
set(TOVRIX_ARM64_ROOT "${TOVRIX_ARM64_ROOT}" CACHE PATH "Root (loader, libc, 7z.so) for qemu")

# QEMU_LD_PREFIX rather than -L: qemu hands its environment to the program, so a test that
# re-executes itself (death tests, load-time checks) starts its child through binfmt_misc's qemu
# with the same root.
set(CMAKE_CROSSCOMPILING_EMULATOR
    /usr/bin/env "QEMU_LD_PREFIX=${TOVRIX_ARM64_ROOT}" /usr/bin/qemu-aarch64-static)

# libbacktrace names 7z.so through its run path /usr/lib/p7zip, where the machine has only the
# amd64 one; the linker takes the arm64 one from the root.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${TOVRIX_ARM64_ROOT}/usr/lib/p7zip")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${TOVRIX_ARM64_ROOT}/usr/lib/p7zip")
