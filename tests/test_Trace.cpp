// The trace mask is read once while the library loads, so each case runs in a child process
// started with its own properties file.

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <korvalite/Korv_Trace.h>
#include <korvalite/SystemCall.h>

#include "support/KorvTest.h"

namespace {

using korvtest::runSelfChild;

constexpr char kTracebits[] = "persist.vendor.camera.korvalite.tracebits";
constexpr char kInfoLine[] = "[getEnabledTracebitsFromSysprop] persist.vendor.camera.korvalite.tracebits=";

// The child's view: the mask through both exported symbols.
TEST(TraceMaskChild, DISABLED_Print) {
    std::printf("mask=%#llx variable=%#llx\n",
                static_cast<unsigned long long>(get_korvalite_enabled_tracebits()),
                static_cast<unsigned long long>(korvalite_enabled_tracebits));
}

// The child runs a traced call (EventFD and Close answer to bit 0) with every atrace tag on.
TEST(TraceMaskChild, DISABLED_TraceEventFd) {
    korvtest::TraceCapture trace(~UINT64_C(0));
    int fd = -1;
    fd = NSCam::NSKorvalite::System::EventFD(0, EFD_CLOEXEC, reinterpret_cast<unsigned long>(&fd));
    NSCam::NSKorvalite::System::Close(fd, reinterpret_cast<unsigned long>(&fd));
    std::printf("trace-lines=%zu\n", trace.lines().size());
    for (auto& event : trace.events()) std::printf("event=%s\n", event.c_str());
}

std::string maskOf(std::map<std::string, std::string> const& properties) {
    auto child = runSelfChild("TraceMaskChild.DISABLED_Print", properties);
    EXPECT_TRUE(child.exited && child.exitCode == 0) << child.err;
    auto at = child.out.find("mask=");
    if (at == std::string::npos) return "?";
    return child.out.substr(at, child.out.find('\n', at) - at);
}

TEST(TraceMask, DefaultWhenThePropertyIsUnset) {
    EXPECT_EQ(maskOf({}), "mask=0x10001131 variable=0x10001131");
}

TEST(TraceMask, KeepsTheHighBits) {
    // Bits 32, 36 and 37 gate DQueueEvent, the observer counter and the observer slices.
    EXPECT_EQ(maskOf({{kTracebits, "0x3100000000"}}), "mask=0x3100000000 variable=0x3100000000");
    EXPECT_EQ(maskOf({{kTracebits, "0x3110001131"}}), "mask=0x3110001131 variable=0x3110001131");
}

TEST(TraceMask, UnparsableValueGivesTheDefault) {
    EXPECT_EQ(maskOf({{kTracebits, "lots"}}), "mask=0x10001131 variable=0x10001131");
}

TEST(TraceMask, ZeroTracesNothingWhateverAtraceEnables) {
    auto child = runSelfChild("TraceMaskChild.DISABLED_TraceEventFd", {{kTracebits, "0"}});
    ASSERT_TRUE(child.exited && child.exitCode == 0) << child.out << child.err;
    EXPECT_NE(child.out.find("trace-lines=0\n"), std::string::npos) << child.out;
}

TEST(TraceMask, BitZeroTracesTheFileCalls) {
    auto child = runSelfChild("TraceMaskChild.DISABLED_TraceEventFd", {{kTracebits, "0x1"}});
    ASSERT_TRUE(child.exited && child.exitCode == 0) << child.out << child.err;
    EXPECT_NE(child.out.find("event=B|EventFD\nevent=E\nevent=B|Close\nevent=E\n"),
              std::string::npos)
            << child.out;
}

TEST(TraceMask, InfoLineAtDetailsLevelThreeOnly) {
    // Both routes: the Android log (mode bit 0) and the default ULog sink (mode 0x2), both on
    // stderr in a child.
    auto atThree = runSelfChild("TraceMaskChild.DISABLED_Print",
                                {{kTracebits, "0x1000000031"},
                                 {"debug.qrvcam.ulog.detailslevel", "3"},
                                 {"debug.qrvcam.ulog.mode", "3"}});
    ASSERT_TRUE(atThree.exited) << atThree.err;
    std::string const expected = std::string(kInfoLine) + "0x1000000031 default=0x10001131";
    // liblog's stderr lines read "<tag> <priority letter> <date> <pid> <tid> <text>".
    bool androidLine = false;
    std::istringstream lines(atThree.err);
    for (std::string line; std::getline(lines, line);) {
        androidLine = androidLine || (line.rfind("korvalite-Trace I ", 0) == 0 &&
                                      line.size() >= expected.size() &&
                                      line.compare(line.size() - expected.size(),
                                                   expected.size(), expected) == 0);
    }
    EXPECT_TRUE(androidLine) << atThree.err;
    EXPECT_NE(atThree.err.find("ULOG 8002001 3 korvalite-Trace: " + expected), std::string::npos)
            << atThree.err;

    auto atTwo = runSelfChild("TraceMaskChild.DISABLED_Print",
                              {{"debug.qrvcam.ulog.detailslevel", "2"},
                               {"debug.qrvcam.ulog.mode", "3"}});
    ASSERT_TRUE(atTwo.exited) << atTwo.err;
    EXPECT_EQ(atTwo.err.find(kInfoLine), std::string::npos) << atTwo.err;
}

}  // namespace
