// Thread priority, makePath, back-traces, and the report and customisation services.
#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <qrvcam/Backtrace.h>
#include <qrvcam/CustomCamUad.h>
#include <qrvcam/Utils.h>
#include <qrvcam/Xem.h>
#include <qrvcam/perfctrl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/KorvTest.h"

namespace {

using korvtest::AndroidLogCapture;
using NSCam::Utils::setThreadPriority;

// The calling thread's policy and nice value.
std::pair<int, int> scheduling() {
    return {sched_getscheduler(0), getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()))};
}

// On a thread of its own, so that whatever is done to its scheduling ends with it.
TEST(PlatformUtils, SetThreadPriorityAppliesToTheCallingThreadOrWarns) {
    std::pair<int, int> const before = scheduling();
    AndroidLogCapture log;
    std::thread([] {
        EXPECT_TRUE(setThreadPriority(SCHED_OTHER, 7));
        EXPECT_EQ(std::make_pair(SCHED_OTHER, 7), scheduling());
        EXPECT_TRUE(setThreadPriority(SCHED_BATCH, -3));
        EXPECT_EQ(std::make_pair(SCHED_BATCH, -3), scheduling());
        EXPECT_FALSE(setThreadPriority(SCHED_FIFO, 1000));
        EXPECT_FALSE(setThreadPriority(12345, 0));
        sched_param param = {};
        if (setThreadPriority(SCHED_RR, 10) && sched_getparam(0, &param) == 0) {
            EXPECT_EQ(std::make_pair(SCHED_RR, 10),
                      std::make_pair(scheduling().first, param.sched_priority));
        }
    }).join();
    EXPECT_EQ(before, scheduling());
    auto warnings = log.withTag("qrvcam-utils");
    ASSERT_LE(2u, warnings.size());
    EXPECT_EQ(ANDROID_LOG_WARN, warnings[0].priority);
    EXPECT_NE(std::string::npos, warnings[0].text.find("policy=1, priority=1000"));
}

TEST(PlatformUtils, MakePathCreatesMissingParentsWithTheMode) {
    korvtest::TempDir dir;
    std::string const deep = dir.path() + "/a/b/c";
    mode_t const mask = umask(022);
    EXPECT_TRUE(NSCam::Utils::makePath(deep.c_str(), 0770));
    EXPECT_TRUE(NSCam::Utils::makePath((deep + "/").c_str(), 0770));  // exists already
    umask(mask);
    for (std::string const& path : {dir.path() + "/a", deep}) {
        struct stat status = {};
        stat(path.c_str(), &status);
        EXPECT_EQ(S_IFDIR | 0750u, status.st_mode) << path;
    }
    AndroidLogCapture log;
    fclose(fopen((dir.path() + "/file").c_str(), "we"));
    EXPECT_FALSE(NSCam::Utils::makePath((dir.path() + "/file").c_str(), 0770));
    EXPECT_FALSE(NSCam::Utils::makePath(nullptr, 0770));
}

// Blocks in a call that the unwinder's signal interrupts (also under ThreadSanitizer, which
// delays signals outside intercepted calls) until released.
std::mutex gParkLock;
std::condition_variable gParkWake;
pid_t gParkedTid = 0;   // guarded by gParkLock
bool gRelease = false;  // guarded by gParkLock

__attribute__((noinline)) void parkForBacktrace() {
    pthread_setname_np(pthread_self(), "korvtest-bt");
    std::unique_lock<std::mutex> lock(gParkLock);
    gParkedTid = gettid();
    gParkWake.notify_all();
    gParkWake.wait(lock, [] { return gRelease; });
}

// The frames of the block whose header line ends with `header`: the lines up to the empty one.
std::string framesAfter(std::string const& text, std::string const& header) {
    size_t start = text.find(header + "\n");
    if (start == std::string::npos) return "(no block)";
    start += header.size() + 1;
    return text.substr(start, text.find("\n\n", start) - start);
}

TEST(PlatformUtils, BacktraceNamesAndUnwindsEveryThread) {
    gParkedTid = 0;
    gRelease = false;
    std::thread helper(parkForBacktrace);
    std::unique_lock<std::mutex> lock(gParkLock);
    gParkWake.wait(lock, [] { return gParkedTid != 0; });
    std::string const helperHeader = "\"korvtest-bt\" sysTid=" + std::to_string(gParkedTid);
    lock.unlock();
    std::vector<std::string> lines;
    bool const unwound = NSCam::Utils::Backtrace::unwindCurProcessBT_Vector(&lines);
    lock.lock();
    gRelease = true;
    gParkWake.notify_all();
    lock.unlock();
    helper.join();
    ASSERT_TRUE(unwound);
    std::string text = "\n";
    for (auto const& line : lines) text += line + "\n";
    EXPECT_EQ("\n\n", text.substr(text.size() - 2));
    EXPECT_THAT(framesAfter(text, "\n" + helperHeader), testing::HasSubstr("#00 pc"));
    EXPECT_THAT(framesAfter(text, "\n" + helperHeader), testing::HasSubstr("parkForBacktrace"));
    EXPECT_THAT(framesAfter(text, "\" sysTid=" + std::to_string(gettid())),
                testing::HasSubstr("BacktraceNamesAndUnwindsEveryThread"));
}

TEST(PlatformUtils, ReportAndCustomisationServicesLogWhatTheyWereAsked) {
    CustomCamUad* uad = CustomCamUad::getInstance();
    EXPECT_FALSE(uad->getUadEnable());
    korvtest::ScopedProperty enable("debug.qrvcam.uad.enable", "true");
    EXPECT_TRUE(uad->getUadEnable());
    AndroidLogCapture log;
    NSCam::Utils::Xem::triggerXemException("tovrix", nullptr, "VIDIOC_QBUF err=%d(%s)", -22,
                                           "Invalid argument");
    NSCam::Utils::Xem::triggerXemWarning("mod", "/some/path", "plain");
    NSCam::Utils::Xem::triggerTracePause();
    uad->setReportThread("korv-worker", 2, 1234);
    EXPECT_EQ(0, customizeThreadReadyToRun("korv-worker-extra", 11));
    EXPECT_EQ(0, qrvcam_perfctrl_set_affinity(3));

    std::vector<std::string> texts;
    for (auto const& record : log.records()) {
        texts.push_back(std::to_string(record.priority) + " " + record.tag + " " + record.text);
    }
    EXPECT_EQ((std::vector<std::string>{
                      "6 qrvcam-xem exception module=tovrix path=null: VIDIOC_QBUF "
                      "err=-22(Invalid argument)",
                      "5 qrvcam-xem warning module=mod path=/some/path: plain",
                      "4 qrvcam-xem trace pause",
                      "4 qrvcam-uad setReportThread(korv-worker, 2, 1234)",
                      "3 qrvcam-perfctrl customizeThreadReadyToRun(name=korv-worker, length=11)",
                      "3 qrvcam-perfctrl qrvcam_perfctrl_set_affinity(hint=3)"}),
              texts);
}

}  // namespace
