// File, directory and event-descriptor wrappers on real descriptors, and the log frame they share.
// Descriptor exhaustion and over-long lines are in test_Reliability.cpp.

#include <android/log.h>
#include <cutils/trace.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <korvalite/Korv_Trace.h>
#include <korvalite/SystemCall.h>
#include <qrvcam/fdsan.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "support/KorvTest.h"

// Heap allocations of the process; sanitizer builds bring their own allocator and count none.
static std::atomic<long> gAllocations{0};
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define KORV_COUNTING 1
extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
#endif

namespace {

namespace System = NSCam::NSKorvalite::System;

constexpr char kTag[] = "korvalite-syscall";

unsigned long tagOf(int const& holder) {
    return reinterpret_cast<unsigned long>(&holder);
}

bool ownedBy(int fd, int const& holder) {
    return qrvcam_fdsan_get_owner_tag(fd) == qrvcam_fdsan_create_tag(tagOf(holder), 1);
}

// The mask is fixed at load; the tests set the exported variable meanwhile.
struct ScopedTracebits {
    explicit ScopedTracebits(uint64_t bits) { korvalite_enabled_tracebits = bits; }
    ~ScopedTracebits() { korvalite_enabled_tracebits = mOld; }
    uint64_t const mOld = korvalite_enabled_tracebits;
};

// Section names of a trace as one string, "E" for an end.
std::string sections(korvtest::TraceCapture const& trace) {
    std::string names;
    for (auto& e : trace.events()) names += (e.rfind("B|", 0) == 0 ? e.substr(2) : e) + " ";
    return names;
}

class SystemCallTest : public ::testing::Test {
protected:
    // Details level 0: error lines are never gated.
    SystemCallTest() { mSwitches.mode(0x3).details(0); }

    std::string path(char const* name) const { return mDir.path() + "/" + name; }

    // Each plain text "[<name>] ..." was logged at error level, in order, and nothing else: to the
    // Android log with " (<name>){#<line>:src/utils/sys/SystemCall}", to ULog as it is. Empties
    // the logs.
    void expectReports(std::vector<std::string> const& expected) {
        auto android = mLog.withTag(kTag);
        auto ulog = mULog.records();
        ASSERT_EQ(android.size(), expected.size());
        ASSERT_EQ(ulog.size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            std::string const& plain = expected[i];
            std::string const name = plain.substr(1, plain.find(']') - 1);
            EXPECT_THAT(android[i].text,
                        ::testing::AllOf(::testing::StartsWith(plain + " (" + name + "){#"),
                                         ::testing::MatchesRegex(
                                                 ".*\\{#[0-9]+:src/utils/sys/SystemCall\\}")));
            EXPECT_EQ(std::make_tuple(android[i].priority, ulog[i].tag, ulog[i].module,
                                      ulog[i].level, ulog[i].text, ulog[i].length),
                      std::make_tuple(ANDROID_LOG_ERROR, kTag, 0x8002001u, 1u, plain,
                                      uint32_t(plain.size())));
        }
        mLog.clear();
        mULog.clear();
    }

    korvtest::ScopedSwitches mSwitches;
    korvtest::AndroidLogCapture mLog;
    korvtest::ULogCapture mULog;
    korvtest::TempDir mDir;
};

// Bit 0 traces the file calls, Stat excepted.
TEST_F(SystemCallTest, FileCalls) {
    ScopedTracebits bits(0x1);
    korvtest::TraceCapture trace;
    std::string const file = path("plain");
    std::string const missing = path("missing");
    std::ofstream(file) << "x";
    ASSERT_EQ(symlink("target-name", path("link").c_str()), 0);
    auto const before = korvtest::openFds();
    int fd = -1;
    EXPECT_EQ(System::Open(file.c_str(), O_RDONLY, tagOf(fd)), -ENODEV);
    EXPECT_EQ(System::Open(mDir.path().c_str(), O_RDONLY, tagOf(fd)), -ENODEV);
    EXPECT_EQ(System::Open(missing.c_str(), O_RDONLY, tagOf(fd)), -ENOENT);
    EXPECT_EQ(korvtest::openFds(), before);  // nothing was opened
    fd = System::Open("/dev/null", O_RDWR | O_NONBLOCK, tagOf(fd));
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(ownedBy(fd, fd));
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);  // the flags as given, no more
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    int other = -1;
    EXPECT_EQ(System::Close(fd, tagOf(other)), -EBADF);  // refused: it stays open
    EXPECT_EQ(System::Close(fd, tagOf(fd)), 0);

    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK), 0);
    char buffer[32] = {};
    EXPECT_EQ(System::Write(pipeFds[1], "abc", 3), 3);
    EXPECT_EQ(System::Read(pipeFds[0], buffer, 16), 3);  // short, not retried
    EXPECT_EQ(System::Read(pipeFds[0], buffer, 16), -EAGAIN);
    EXPECT_EQ(System::Write(pipeFds[0], buffer, 2), -EBADF);
    char call[64];
    snprintf(call, sizeof(call), "(%d, %p, ", pipeFds[0], static_cast<void*>(buffer));
    close(pipeFds[0]);
    close(pipeFds[1]);

    DIR* dir = System::OpenDir(mDir.path().c_str());
    ASSERT_NE(dir, nullptr);
    for (errno = 0; System::ReadDir(dir) != nullptr;) {
    }
    EXPECT_EQ(System::CloseDir(dir), 0);
    EXPECT_EQ(System::OpenDir(missing.c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);  // as opendir left it, for the caller
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(System::ReadLink(path("link").c_str(), buffer, sizeof(buffer)), 11);
    EXPECT_EQ(std::string(buffer, 12), "target-name#");  // not terminated
    EXPECT_EQ(System::ReadLink(file.c_str(), buffer, sizeof(buffer)), -EINVAL);
    std::string const noent = ": No such file or directory";
    expectReports(
            {"[Open] Invalid device node: " + file, "[Open] Invalid device node: " + mDir.path(),
             "[Stat] stat(" + missing + ")" + noent, "[Open] Invalid device " + missing + noent,
             "[Close] close(" + std::to_string(fd) + ") return -1: err=-9(Bad file descriptor)",
             "[Read] read" + std::string(call) +
                     "16) return -1: err=-11(Resource temporarily unavailable)",
             "[Write] write" + std::string(call) + "2) return -1: err=-9(Bad file descriptor)",
             "[ReadDir] readdir() return NULL: err=0(Success)",
             "[OpenDir] opendir(" + missing + ") return NULL: err=-2(No such file or directory)",
             "[ReadLink] readlink(" + file + ") return -1: err=-22(Invalid argument)"});
    EXPECT_EQ(sections(trace),
              "Open E Open E Open E Open E Close E Close E Write E Read E Read E Write E OpenDir E "
              "ReadDir E ReadDir E ReadDir E ReadDir E ReadDir E CloseDir E OpenDir E ReadLink E "
              "ReadLink E ");

    struct stat st;  // a block device passes the check too
    if (stat("/dev/loop0", &st) == 0 && S_ISBLK(st.st_mode)) {
        fd = System::Open("/dev/loop0", O_RDONLY | O_CLOEXEC, tagOf(fd));
        EXPECT_NE(fd, -ENODEV);
        if (fd >= 0) System::Close(fd, tagOf(fd));
    }
}

// Bit 1 traces the timer setting and the epoll control and wait.
TEST_F(SystemCallTest, EventCalls) {
    ScopedTracebits bits(0x2);
    korvtest::TraceCapture trace;
    int fds[3] = {-1, -1, -1};
    int const event = fds[0] = System::EventFD(0, EFD_CLOEXEC | EFD_NONBLOCK, tagOf(fds[0]));
    int const timer = fds[1] = System::TimerFDCreate(CLOCK_MONOTONIC, TFD_NONBLOCK, tagOf(fds[1]));
    int const epoll = fds[2] = System::EPollCreate(1024, tagOf(fds[2]));
    for (int& fd : fds) ASSERT_TRUE(fd >= 0 && ownedBy(fd, fd));
    EXPECT_EQ(fcntl(epoll, F_GETFD) & FD_CLOEXEC, 0);  // the old entry

    itimerspec value = {{0, 0}, {100, 0}};
    EXPECT_EQ(System::TimerFDSetTime(timer, 0, &value, nullptr), 0);
    value = {};
    EXPECT_EQ(System::TimerFDGetTime(timer, &value), 0);
    EXPECT_GT(value.it_value.tv_sec, 0);
    EXPECT_EQ(System::TimerFDSetTime(event, 0, &value, nullptr), -EINVAL);
    EXPECT_EQ(System::TimerFDGetTime(event, &value), -EINVAL);
    EXPECT_EQ(System::EventFD(0, -1, 0), -EINVAL);
    EXPECT_EQ(System::TimerFDCreate(-1, 0, 0), -EINVAL);
    EXPECT_EQ(System::EPollCreate(0, 0), -EINVAL);

    epoll_event registration = {};
    registration.events = EPOLLIN;
    epoll_event ready[4] = {};
    uint64_t one = 1;
    EXPECT_EQ(System::EPollCtlAdd(epoll, event, &registration), 0);
    EXPECT_EQ(System::EPollCtlAdd(epoll, event, &registration), -EEXIST);
    EXPECT_EQ(System::EPollWait(epoll, ready, 4, 0), 0);
    ASSERT_EQ(write(event, &one, sizeof(one)), 8);
    EXPECT_EQ(System::EPollCtlMod(epoll, event, &registration), 0);
    EXPECT_EQ(System::EPollWait(epoll, ready, 4, 0), 1);
    EXPECT_EQ(System::EPollCtlDel(epoll, event, nullptr), 0);
    EXPECT_EQ(System::EPollCtlDel(epoll, event, nullptr), -ENOENT);
    EXPECT_EQ(System::EPollCtlMod(epoll, event, &registration), -ENOENT);
    EXPECT_EQ(System::EPollWait(event, ready, 4, 0), -EINVAL);
    for (int& fd : fds) EXPECT_EQ(System::Close(fd, tagOf(fd)), 0);

    std::string const e = std::to_string(event);
    std::string const ctl = "epoll_ctl(" + std::to_string(epoll) + ", EPOLL_CTL_";
    std::string const inval = " return -1: err=-22(Invalid argument)";
    std::string const noent = ", " + e + ") return -1: err=-2(No such file or directory)";
    expectReports({"[TimerFDSetTime] timerfd_settime(" + e + ")" + inval,
                   "[TimerFDGetTime] timerfd_gettime(" + e + ")" + inval,
                   "[EventFD] eventfd(0, 0xffffffff)" + inval,
                   "[TimerFDCreate] timerfd_create()" + inval,
                   "[EPollCreate] epoll_create()" + inval,
                   "[EPollCtlAdd] " + ctl + "ADD, " + e + ") return -1: err=-17(File exists)",
                   "[EPollCtlDel] " + ctl + "DEL" + noent, "[EPollCtlMod] " + ctl + "MOD" + noent,
                   "[EPollWait] epoll_wait(" + e + ", maxevents=4, timeout=0)" + inval});
    EXPECT_EQ(sections(trace),
              "TimerFDSetTime E TimerFDGetTime E TimerFDSetTime E TimerFDGetTime E EPollCtlAdd E "
              "EPollCtlAdd E EPollWait E EPollCtlMod E EPollWait E EPollCtlDel E EPollCtlDel E "
              "EPollCtlMod E EPollWait E ");
}

// With both routes off a failure logs and allocates nothing, and results and ownership stay; a
// success allocates nothing either way. sMode is read again between the Android and the ULog
// form. Bit 2 traces Stat; nothing is traced while the camera tag is off.
TEST_F(SystemCallTest, LogFrame) {
    mSwitches.mode(0);
    std::string const missing = path("missing");
    int fd = -1;
    struct stat st;
    long const start = gAllocations.load();
    int const missingResult = System::Open(missing.c_str(), O_RDONLY, tagOf(fd));
    int const dirResult = System::Open(mDir.path().c_str(), O_RDONLY, tagOf(fd));
    mSwitches.mode(0x3);
    int const statResult = System::Stat("/dev/null", &st);
    [[maybe_unused]] long const allocated = gAllocations.load() - start;
    EXPECT_EQ(std::make_tuple(missingResult, dirResult, statResult),
              std::make_tuple(-ENOENT, -ENODEV, 0));
#ifdef KORV_COUNTING
    EXPECT_EQ(allocated, 0);
#endif
    mSwitches.mode(0);
    fd = System::Open("/dev/null", O_RDONLY | O_CLOEXEC, tagOf(fd));
    EXPECT_TRUE(ownedBy(fd, fd));
    EXPECT_EQ(System::Close(fd, tagOf(fd)), 0);
    EXPECT_TRUE(mLog.records().empty() && mULog.records().empty());

    mSwitches.mode(0x1);
    __android_log_set_logger([](__android_logger_data const*, char const*) {
        __atomic_store_n(&NSCam::Utils::ULog::ULogger::sMode, 0x2u, __ATOMIC_RELAXED);
    });
    {
        ScopedTracebits bits(0x4);
        korvtest::TraceCapture trace;
        EXPECT_EQ(System::Stat(missing.c_str(), &st), -ENOENT);
        EXPECT_EQ(sections(trace), "Stat E ");
    }
    __android_log_set_logger(__android_log_stderr_logger);
    EXPECT_EQ(mULog.texts(kTag),
              std::vector<std::string>{"[Stat] stat(" + missing + "): No such file or directory"});

    ScopedTracebits all(~UINT64_C(0));
    korvtest::TraceCapture cameraOff(~ATRACE_TAG_CAMERA);
    EXPECT_EQ(System::Stat(missing.c_str(), &st), -ENOENT);
    EXPECT_TRUE(cameraOff.events().empty());
}

TEST_F(SystemCallTest, EpollWaitInterruptedBySignalIsQuiet) {
    struct sigaction action = {};
    struct sigaction old = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
    int epoll = -1;
    epoll = System::EPollCreate(1024, tagOf(epoll));
    std::atomic<bool> done{false};
    std::thread signaller([&, waiter = pthread_self()] {  // one signal lands while it blocks
        while (!done.load()) {
            pthread_kill(waiter, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    epoll_event ready[1];
    EXPECT_EQ(System::EPollWait(epoll, ready, 1, 10000), -EINTR);
    done = true;
    signaller.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(System::Close(epoll, tagOf(epoll)), 0);
    EXPECT_TRUE(mLog.records().empty() && mULog.records().empty());
}

}  // namespace
