// Thread priority, makePath, back-traces, and the report and customisation services.
#include <android/log.h>
#include <errno.h>
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
#include <vector>

#include "support/KorvTest.h"

namespace {

using korvtest::AndroidLogCapture;
using korvtest::LogRecord;

// Runs `body` on a thread of its own, so that whatever it does to its scheduling ends with it.
template <typename Body>
void onOwnThread(Body body) {
    std::thread thread(body);
    thread.join();
}

// --- setThreadPriority -------------------------------------------------------------------------

TEST(PlatformThreadPriority, NormalPolicyAppliesTheNiceValueToTheCallingThread) {
    int const mainNice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
    onOwnThread([] {
        EXPECT_TRUE(NSCam::Utils::setThreadPriority(SCHED_OTHER, 7));
        EXPECT_EQ(SCHED_OTHER, sched_getscheduler(0));
        EXPECT_EQ(7, getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())));
        EXPECT_TRUE(NSCam::Utils::setThreadPriority(SCHED_BATCH, -3));
        EXPECT_EQ(SCHED_BATCH, sched_getscheduler(0));
        EXPECT_EQ(-3, getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())));
    });
    EXPECT_EQ(mainNice, getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())));
}

TEST(PlatformThreadPriority, RealTimePolicyAppliesThePriority) {
    onOwnThread([] {
        errno = 0;
        if (!NSCam::Utils::setThreadPriority(SCHED_RR, 10)) {
            ASSERT_EQ(EPERM, errno);
            GTEST_SKIP() << "real-time scheduling not permitted here";
        }
        EXPECT_EQ(SCHED_RR, sched_getscheduler(0));
        sched_param param = {};
        ASSERT_EQ(0, sched_getparam(0, &param));
        EXPECT_EQ(10, param.sched_priority);
        // Back to normal before the thread ends.
        EXPECT_TRUE(NSCam::Utils::setThreadPriority(SCHED_OTHER, 0));
    });
}

TEST(PlatformThreadPriority, RefusalIsLoggedAndReturnsFalse) {
    AndroidLogCapture log;
    onOwnThread([] {
        EXPECT_FALSE(NSCam::Utils::setThreadPriority(SCHED_FIFO, 1000));
        EXPECT_EQ(EINVAL, errno);
        EXPECT_FALSE(NSCam::Utils::setThreadPriority(12345, 0));
        EXPECT_EQ(SCHED_OTHER, sched_getscheduler(0));
    });
    auto warnings = log.withTag("qrvcam-utils");
    ASSERT_EQ(2u, warnings.size());
    EXPECT_EQ(ANDROID_LOG_WARN, warnings[0].priority);
    EXPECT_NE(std::string::npos, warnings[0].text.find("policy=1, priority=1000"))
            << warnings[0].text;
}

// --- makePath ----------------------------------------------------------------------------------

TEST(PlatformMakePath, CreatesMissingParentsWithTheMode) {
    korvtest::TempDir dir;
    mode_t const mask = umask(0);
    umask(mask);
    std::string const deep = dir.path() + "/a/b/c";
    ASSERT_TRUE(NSCam::Utils::makePath(deep.c_str(), 0750));
    for (std::string const& path : {dir.path() + "/a", dir.path() + "/a/b", deep}) {
        struct stat status;
        ASSERT_EQ(0, stat(path.c_str(), &status)) << path;
        EXPECT_TRUE(S_ISDIR(status.st_mode)) << path;
        EXPECT_EQ(0750u & ~mask, status.st_mode & 07777u) << path;
    }
    EXPECT_TRUE(NSCam::Utils::makePath(deep.c_str(), 0750));          // exists already
    EXPECT_TRUE(NSCam::Utils::makePath((deep + "/").c_str(), 0750));  // trailing slash

    AndroidLogCapture log;
    std::string const file = dir.path() + "/file";
    FILE* created = fopen(file.c_str(), "we");
    ASSERT_NE(nullptr, created);
    fclose(created);
    EXPECT_FALSE(NSCam::Utils::makePath(file.c_str(), 0750));
    EXPECT_FALSE(NSCam::Utils::makePath((file + "/under").c_str(), 0750));
    EXPECT_FALSE(NSCam::Utils::makePath("", 0750));
    EXPECT_FALSE(NSCam::Utils::makePath(nullptr, 0750));
}

// --- Back-traces -------------------------------------------------------------------------------

std::mutex gParkLock;
std::condition_variable gParkWake;
bool gParked = false;   // guarded by gParkLock
bool gRelease = false;  // guarded by gParkLock

__attribute__((noinline)) void parkForBacktrace() {
    std::unique_lock<std::mutex> lock(gParkLock);
    gParked = true;
    gParkWake.notify_all();
    gParkWake.wait(lock, [] { return gRelease; });
}

TEST(PlatformBacktrace, EveryThreadIsNamedAndUnwound) {
    EXPECT_FALSE(NSCam::Utils::Backtrace::unwindCurProcessBT_Vector(nullptr));

    gParked = gRelease = false;
    pid_t helperTid = 0;
    std::thread helper([&helperTid] {
        helperTid = gettid();
        pthread_setname_np(pthread_self(), "korvtest-bt");
        parkForBacktrace();
    });
    {
        std::unique_lock<std::mutex> lock(gParkLock);
        gParkWake.wait(lock, [] { return gParked; });
    }

    std::vector<std::string> lines;
    bool const unwound = NSCam::Utils::Backtrace::unwindCurProcessBT_Vector(&lines);
    {
        std::lock_guard<std::mutex> lock(gParkLock);
        gRelease = true;
    }
    gParkWake.notify_all();
    helper.join();
    ASSERT_TRUE(unwound);

    // Blocks of: header, frames, an empty line.
    std::string const helperHeader = "\"korvtest-bt\" sysTid=" + std::to_string(helperTid);
    std::string const selfHeader = "sysTid=" + std::to_string(gettid());
    bool helperSeen = false;
    bool selfSeen = false;
    for (size_t i = 0; i < lines.size();) {
        ASSERT_EQ('"', lines[i][0]) << "block header expected: " << lines[i];
        size_t end = i + 1;
        while (end < lines.size() && !lines[end].empty()) ++end;
        ASSERT_LT(end, lines.size()) << "block without its empty line";
        std::string frames;
        for (size_t f = i + 1; f < end; ++f) frames += lines[f] + "\n";
        if (lines[i] == helperHeader) {
            helperSeen = true;
            EXPECT_NE(std::string::npos, frames.find("#00 pc")) << frames;
            EXPECT_NE(std::string::npos, frames.find("parkForBacktrace")) << frames;
        }
        if (lines[i].size() >= selfHeader.size() &&
            lines[i].compare(lines[i].size() - selfHeader.size(), selfHeader.size(), selfHeader) ==
                    0) {
            selfSeen = true;
            EXPECT_NE(std::string::npos, frames.find("EveryThreadIsNamedAndUnwound")) << frames;
        }
        i = end + 1;
    }
    EXPECT_TRUE(helperSeen);
    EXPECT_TRUE(selfSeen);
}

// --- Reports and customisation -----------------------------------------------------------------

TEST(PlatformServices, XemReportsAreLogLines) {
    AndroidLogCapture log;
    NSCam::Utils::Xem::triggerXemException("tovrix", nullptr, "VIDIOC_QBUF err=%d(%s)", -22,
                                           "Invalid argument");
    NSCam::Utils::Xem::triggerXemWarning("mod", "/some/path", "plain");
    NSCam::Utils::Xem::triggerTracePause();
    auto records = log.withTag("qrvcam-xem");
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ(ANDROID_LOG_ERROR, records[0].priority);
    EXPECT_EQ("exception module=tovrix path=null: VIDIOC_QBUF err=-22(Invalid argument)",
              records[0].text);
    EXPECT_EQ(ANDROID_LOG_WARN, records[1].priority);
    EXPECT_EQ("warning module=mod path=/some/path: plain", records[1].text);
    EXPECT_EQ(ANDROID_LOG_INFO, records[2].priority);
    EXPECT_EQ("trace pause", records[2].text);
}

TEST(PlatformServices, UadIsSwitchedByItsPropertyAndLogsReportThreads) {
    CustomCamUad* uad = CustomCamUad::getInstance();
    ASSERT_EQ(uad, CustomCamUad::getInstance());
    EXPECT_FALSE(uad->getUadEnable());
    {
        korvtest::ScopedProperty enable("debug.qrvcam.uad.enable", "true");
        EXPECT_TRUE(uad->getUadEnable());
    }
    EXPECT_FALSE(uad->getUadEnable());

    AndroidLogCapture log;
    uad->setReportThread("korv-worker", 2, 1234);
    auto records = log.withTag("qrvcam-uad");
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(ANDROID_LOG_INFO, records[0].priority);
    EXPECT_EQ("setReportThread(korv-worker, 2, 1234)", records[0].text);
}

TEST(PlatformServices, PerfctrlLogsWhatItWasAsked) {
    AndroidLogCapture log;
    EXPECT_EQ(0, customizeThreadReadyToRun("korv-worker-extra", 11));
    EXPECT_EQ(0, qrvcam_perfctrl_set_affinity(3));
    auto records = log.withTag("qrvcam-perfctrl");
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(ANDROID_LOG_DEBUG, records[0].priority);
    EXPECT_EQ("customizeThreadReadyToRun(name=korv-worker, length=11)", records[0].text);
    EXPECT_EQ("qrvcam_perfctrl_set_affinity(hint=3)", records[1].text);
}

}  // namespace
