// Layouts that cross a boundary the compiler cannot check: korv_dumpstate_params is filled by
// clients built separately from the library, and v4l2_buffer / v4l2_event are read and written by
// the kernel. Built and run on every architecture the library ships for (make test: x86_64,
// make test-arm64: arm64 under qemu), so a field that moves on one of them fails that build.

#include <gtest/gtest.h>
#include <korvalite/Korv_Dumpstate.h>
#include <linux/videodev2.h>
#include <stddef.h>
#include <sys/utsname.h>

namespace {

using NSCam::NSKorvalite::korv_dumpstate_params;

#if !defined(__LP64__)
#error "the library's interfaces are laid out for 64-bit targets only"
#endif

static_assert(offsetof(korv_dumpstate_params, tag) == 0);
static_assert(offsetof(korv_dumpstate_params, name) == 8);
static_assert(offsetof(korv_dumpstate_params, timeout) == 16);
static_assert(offsetof(korv_dumpstate_params, target) == 20);
static_assert(offsetof(korv_dumpstate_params, flags) == 24);
static_assert(offsetof(korv_dumpstate_params, reserved) == 28);
static_assert(sizeof(korv_dumpstate_params) == 48);
static_assert(alignof(korv_dumpstate_params) == 8);

static_assert(sizeof(v4l2_buffer) == 88);
static_assert(offsetof(v4l2_buffer, timestamp) == 24);
static_assert(offsetof(v4l2_buffer, m) == 64);
static_assert(offsetof(v4l2_buffer, request_fd) == 80);
static_assert(sizeof(v4l2_event) == 136);
static_assert(offsetof(v4l2_event, u) == 8);
static_assert(offsetof(v4l2_event, timestamp) == 80);
static_assert(offsetof(v4l2_event, id) == 96);

// The assertions above hold for the architecture this program was built for; this checks that it
// is the one it runs on, so that a cross build run by the wrong runner does not pass unseen.
TEST(Layout, RunsOnTheArchitectureItWasBuiltFor) {
    utsname system;
    ASSERT_EQ(uname(&system), 0);
#if defined(__aarch64__)
    EXPECT_STREQ(system.machine, "aarch64");
#elif defined(__x86_64__)
    EXPECT_STREQ(system.machine, "x86_64");
#else
    GTEST_SKIP() << "no expectation for " << system.machine;
#endif
}

}  // namespace
