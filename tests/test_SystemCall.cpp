// File, directory and event-descriptor wrappers, on real descriptors.

#include <cutils/trace.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvalite/Korv_Trace.h>
#include <korvalite/SystemCall.h>
#include <pthread.h>
#include <qrvcam/fdsan.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/KorvTest.h"

namespace {

namespace System = NSCam::NSKorvalite::System;

constexpr char kTag[] = "korvalite-syscall";

unsigned long tagOf(int const& holder) {
    return reinterpret_cast<unsigned long>(&holder);
}

bool ownedBy(int fd, int const& holder) {
    return qrvcam_fdsan_get_owner_tag(fd) == qrvcam_fdsan_create_tag(tagOf(holder), 1);
}

// The source line that an Android error line's suffix names ("" when there is none).
std::string lineOf(std::string const& text) {
    size_t open = text.rfind("){#");
    size_t colon = text.rfind(':');
    if (open == std::string::npos || colon == std::string::npos || colon < open + 4) return "";
    std::string line = text.substr(open + 3, colon - open - 3);
    return line.find_first_not_of("0123456789") == std::string::npos ? line : "";
}

std::string pointer(void const* p) {
    char text[32];
    snprintf(text, sizeof(text), "%p", p);
    return text;
}

// The mask is fixed at load; tests that look at sections set the exported variable meanwhile.
class ScopedTracebits {
public:
    explicit ScopedTracebits(uint64_t bits) : mOld(korvalite_enabled_tracebits) {
        korvalite_enabled_tracebits = bits;
    }
    ~ScopedTracebits() { korvalite_enabled_tracebits = mOld; }

private:
    uint64_t mOld;
};

class SystemCallTest : public ::testing::Test {
protected:
    SystemCallTest() { mSwitches.mode(0x3).details(3); }

    // Each expected failure is (wrapper name, plain text): the Android line is the plain text and
    // " (<name>){#<line>:src/utils/sys/SystemCall}", the ULog record the plain text at level 1.
    // Nothing else was logged under the layer's tag.
    void expectReports(std::vector<std::pair<std::string, std::string>> const& expected) {
        auto android = mLog.withTag(kTag);
        std::vector<korvtest::ULogRecord> ulog;
        for (auto& record : mULog.records()) {
            if (record.tag == kTag) ulog.push_back(record);
        }
        ASSERT_EQ(android.size(), expected.size());
        ASSERT_EQ(ulog.size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            auto const& [name, plain] = expected[i];
            EXPECT_EQ(android[i].priority, ANDROID_LOG_ERROR);
            EXPECT_EQ(android[i].text, plain + " (" + name + "){#" + lineOf(android[i].text) +
                                               ":src/utils/sys/SystemCall}");
            EXPECT_EQ(ulog[i].module, 0x8002001u);
            EXPECT_EQ(ulog[i].level, 1u);
            EXPECT_EQ(ulog[i].text, plain);
            EXPECT_EQ(ulog[i].length, plain.size());
        }
    }

    korvtest::ScopedSwitches mSwitches;
    korvtest::AndroidLogCapture mLog;
    korvtest::ULogCapture mULog;
    korvtest::TempDir mDir;
};

// --- Open and Close ------------------------------------------------------------------------

TEST_F(SystemCallTest, OpenAcceptsOnlyDeviceNodes) {
    std::string file = mDir.path() + "/plain";
    std::string missing = mDir.path() + "/missing";
    std::ofstream(file) << "x";
    auto before = korvtest::openFds();
    int fd = -1;
    EXPECT_EQ(System::Open(file.c_str(), O_RDONLY, tagOf(fd)), -ENODEV);
    EXPECT_EQ(System::Open(mDir.path().c_str(), O_RDONLY, tagOf(fd)), -ENODEV);
    EXPECT_EQ(System::Open(missing.c_str(), O_RDONLY, tagOf(fd)), -ENOENT);
    EXPECT_EQ(korvtest::openFds(), before);
    expectReports({{"Open", "[Open] Invalid device node: " + file},
                   {"Open", "[Open] Invalid device node: " + mDir.path()},
                   {"Stat", "[Stat] stat(" + missing + "): No such file or directory"},
                   {"Open", "[Open] Invalid device " + missing + ": No such file or directory"}});

    // A block device passes the same check (opening it may still fail).
    for (auto const* node : {"/dev/loop0", "/dev/vda", "/dev/sda", "/dev/nvme0n1"}) {
        struct stat st;
        if (stat(node, &st) != 0 || !S_ISBLK(st.st_mode)) continue;
        fd = System::Open(node, O_RDONLY | O_CLOEXEC, tagOf(fd));
        EXPECT_NE(fd, -ENODEV) << node;
        if (fd >= 0) {
            EXPECT_EQ(System::Close(fd, tagOf(fd)), 0);
        }
        break;
    }
}

TEST_F(SystemCallTest, OpenedDeviceHasTheFlagsAndTheOwnerItWasGiven) {
    int nonBlocking = -1;
    nonBlocking = System::Open("/dev/null", O_RDWR | O_NONBLOCK | O_CLOEXEC, tagOf(nonBlocking));
    int plain = -1;
    plain = System::Open("/dev/null", O_RDONLY, tagOf(plain));
    ASSERT_GE(nonBlocking, 0);
    ASSERT_GE(plain, 0);
    EXPECT_TRUE(ownedBy(plain, plain));
    EXPECT_NE(fcntl(nonBlocking, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(nonBlocking, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(fcntl(plain, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(plain, F_GETFD) & FD_CLOEXEC, 0);

    // Another owner's tag is refused, reported, and the descriptor stays open.
    EXPECT_EQ(System::Close(plain, tagOf(nonBlocking)), -EBADF);
    EXPECT_GE(fcntl(plain, F_GETFD), 0);
    EXPECT_FALSE(mLog.withTag("qrvcam-fdsan").empty());
    expectReports({{"Close", "[Close] close(" + std::to_string(plain) +
                                     ") return -1: err=-9(Bad file descriptor)"}});
    EXPECT_EQ(System::Close(plain, tagOf(plain)), 0);
    EXPECT_EQ(System::Close(nonBlocking, tagOf(nonBlocking)), 0);
}

TEST_F(SystemCallTest, ModeZeroLogsNothingAndChangesNothingElse) {
    mSwitches.mode(0);
    std::string missing = mDir.path() + "/missing";
    int fd = -1;
    EXPECT_EQ(System::Open(missing.c_str(), O_RDONLY, tagOf(fd)), -ENOENT);
    EXPECT_EQ(System::Open(mDir.path().c_str(), O_RDONLY, tagOf(fd)), -ENODEV);
    fd = System::Open("/dev/null", O_RDONLY | O_CLOEXEC, tagOf(fd));
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(ownedBy(fd, fd));
    EXPECT_EQ(System::Close(fd, tagOf(fd)), 0);
    EXPECT_TRUE(mLog.withTag(kTag).empty());
    EXPECT_TRUE(mULog.records().empty());
}

// --- Read, Write, directories, links -------------------------------------------------------

TEST_F(SystemCallTest, ReadAndWriteReturnCountsAsTheyComeAndReportFailures) {
    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK), 0);
    char buffer[16] = {};
    EXPECT_EQ(System::Write(pipeFds[1], "abc", 3), 3);
    EXPECT_EQ(System::Read(pipeFds[0], buffer, sizeof(buffer)), 3);  // short, not retried
    EXPECT_EQ(System::Read(pipeFds[0], buffer, sizeof(buffer)), -EAGAIN);
    EXPECT_EQ(System::Write(pipeFds[0], buffer, 2), -EBADF);
    std::string const r = std::to_string(pipeFds[0]);
    expectReports({{"Read", "[Read] read(" + r + ", " + pointer(buffer) +
                                    ", 16) return -1: err=-11(Resource temporarily unavailable)"},
                   {"Write", "[Write] write(" + r + ", " + pointer(buffer) +
                                     ", 2) return -1: err=-9(Bad file descriptor)"}});
    close(pipeFds[0]);
    close(pipeFds[1]);
}

TEST_F(SystemCallTest, DirectoriesAndLinks) {
    std::ofstream(mDir.path() + "/a") << "a";
    ASSERT_EQ(symlink("target-name", (mDir.path() + "/link").c_str()), 0);
    DIR* dir = System::OpenDir(mDir.path().c_str());
    ASSERT_NE(dir, nullptr);
    errno = 0;
    int entries = 0;
    while (System::ReadDir(dir) != nullptr) ++entries;
    EXPECT_EQ(entries, 4);  // ".", "..", "a", "link"
    EXPECT_EQ(System::CloseDir(dir), 0);

    std::string missing = mDir.path() + "/missing";
    EXPECT_EQ(System::OpenDir(missing.c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);  // as opendir left it, for the caller

    char buffer[32];
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(System::ReadLink((mDir.path() + "/link").c_str(), buffer, sizeof(buffer)), 11);
    EXPECT_EQ(std::string(buffer, 12), "target-name#");  // not terminated
    std::string file = mDir.path() + "/a";
    EXPECT_EQ(System::ReadLink(file.c_str(), buffer, sizeof(buffer)), -EINVAL);

    expectReports({{"ReadDir", "[ReadDir] readdir() return NULL: err=0(Success)"},
                   {"OpenDir", "[OpenDir] opendir(" + missing +
                                       ") return NULL: err=-2(No such file or directory)"},
                   {"ReadLink",
                    "[ReadLink] readlink(" + file + ") return -1: err=-22(Invalid argument)"}});
}

// A real exhaustion: the wrapper reports and returns -EMFILE. The listing of descriptors needs
// one of its own for /proc/self/fd and is skipped quietly here; it is checked with a scripted
// EMFILE in the device tests.
TEST(SystemCallEmfile, EventFdAtTheDescriptorLimit) {
    auto child = korvtest::runInChild([] {
        korvtest::ScopedSwitches switches;
        switches.mode(0x1).details(3);
        rlimit limit;
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = static_cast<rlim_t>(*korvtest::openFds().rbegin() + 1);
        setrlimit(RLIMIT_NOFILE, &limit);
        while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
        }
        int fd = -1;
        printf("result=%d\n", System::EventFD(0, EFD_CLOEXEC | EFD_NONBLOCK, tagOf(fd)));
    });
    ASSERT_TRUE(child.exited) << child.err;
    EXPECT_EQ(child.out, "result=-24\n");
    EXPECT_NE(child.err.find("[EventFD] eventfd(0, 0x80800) return -1: err=-24(Too many open "
                             "files) (EventFD){#"),
              std::string::npos)
            << child.err;
    EXPECT_EQ(child.err.find("dumpProcessFileState"), std::string::npos) << child.err;
}

// --- Event descriptors ---------------------------------------------------------------------

TEST_F(SystemCallTest, EventAndTimerDescriptors) {
    int event = -1;
    event = System::EventFD(0, EFD_CLOEXEC | EFD_NONBLOCK, tagOf(event));
    int timer = -1;
    timer = System::TimerFDCreate(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK, tagOf(timer));
    ASSERT_GE(event, 0);
    ASSERT_GE(timer, 0);
    EXPECT_TRUE(ownedBy(event, event));
    EXPECT_TRUE(ownedBy(timer, timer));

    itimerspec value = {{0, 0}, {100, 0}};
    itimerspec current = {};
    EXPECT_EQ(System::TimerFDSetTime(timer, 0, &value, nullptr), 0);
    EXPECT_EQ(System::TimerFDGetTime(timer, &current), 0);
    EXPECT_GT(current.it_value.tv_sec, 0);
    EXPECT_EQ(System::TimerFDSetTime(event, 0, &value, nullptr), -EINVAL);
    EXPECT_EQ(System::TimerFDGetTime(event, &current), -EINVAL);
    EXPECT_EQ(System::EventFD(0, -1, 0), -EINVAL);
    EXPECT_EQ(System::TimerFDCreate(-1, 0, 0), -EINVAL);
    EXPECT_EQ(System::Close(event, tagOf(event)), 0);
    EXPECT_EQ(System::Close(timer, tagOf(timer)), 0);

    std::string const e = std::to_string(event);
    expectReports(
            {{"TimerFDSetTime",
              "[TimerFDSetTime] timerfd_settime(" + e + ") return -1: err=-22(Invalid argument)"},
             {"TimerFDGetTime",
              "[TimerFDGetTime] timerfd_gettime(" + e + ") return -1: err=-22(Invalid argument)"},
             {"EventFD", "[EventFD] eventfd(0, 0xffffffff) return -1: err=-22(Invalid argument)"},
             {"TimerFDCreate",
              "[TimerFDCreate] timerfd_create() return -1: err=-22(Invalid argument)"}});
}

TEST_F(SystemCallTest, EpollRegistrationAndWait) {
    int epoll = -1;
    epoll = System::EPollCreate(1024, tagOf(epoll));
    int event = -1;
    event = System::EventFD(0, EFD_CLOEXEC | EFD_NONBLOCK, tagOf(event));
    ASSERT_GE(epoll, 0);
    ASSERT_GE(event, 0);
    EXPECT_TRUE(ownedBy(epoll, epoll));
    EXPECT_EQ(fcntl(epoll, F_GETFD) & FD_CLOEXEC, 0);  // the old entry

    epoll_event registration = {};
    registration.events = EPOLLIN;
    epoll_event ready[4] = {};
    EXPECT_EQ(System::EPollCtlAdd(epoll, event, &registration), 0);
    EXPECT_EQ(System::EPollCtlAdd(epoll, event, &registration), -EEXIST);
    EXPECT_EQ(System::EPollCtlMod(epoll, event, &registration), 0);
    EXPECT_EQ(System::EPollWait(epoll, ready, 4, 0), 0);
    uint64_t one = 1;
    ASSERT_EQ(write(event, &one, sizeof(one)), 8);
    EXPECT_EQ(System::EPollWait(epoll, ready, 4, 0), 1);
    EXPECT_EQ(System::EPollCtlDel(epoll, event, nullptr), 0);
    EXPECT_EQ(System::EPollCtlDel(epoll, event, nullptr), -ENOENT);
    EXPECT_EQ(System::EPollCtlMod(epoll, event, &registration), -ENOENT);
    EXPECT_EQ(System::EPollWait(event, ready, 4, 0), -EINVAL);
    EXPECT_EQ(System::EPollCreate(0, 0), -EINVAL);
    EXPECT_EQ(System::Close(event, tagOf(event)), 0);
    EXPECT_EQ(System::Close(epoll, tagOf(epoll)), 0);

    std::string const ep = std::to_string(epoll) + ", EPOLL_CTL_";
    std::string const ev = std::to_string(event);
    expectReports(
            {{"EPollCtlAdd",
              "[EPollCtlAdd] epoll_ctl(" + ep + "ADD, " + ev + ") return -1: err=-17(File exists)"},
             {"EPollCtlDel", "[EPollCtlDel] epoll_ctl(" + ep + "DEL, " + ev +
                                     ") return -1: err=-2(No such file or directory)"},
             {"EPollCtlMod", "[EPollCtlMod] epoll_ctl(" + ep + "MOD, " + ev +
                                     ") return -1: err=-2(No such file or directory)"},
             {"EPollWait",
              "[EPollWait] epoll_wait(" + ev +
                      ", maxevents=4, timeout=0) return -1: err=-22(Invalid argument)"},
             {"EPollCreate", "[EPollCreate] epoll_create() return -1: err=-22(Invalid argument)"}});
}

void ignoreSignal(int) {}

TEST_F(SystemCallTest, EpollWaitInterruptedBySignalIsQuiet) {
    struct sigaction action = {};
    struct sigaction old = {};
    action.sa_handler = ignoreSignal;
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
    int epoll = -1;
    epoll = System::EPollCreate(1024, tagOf(epoll));
    ASSERT_GE(epoll, 0);

    // Signals until the wait has returned: one of them lands while it blocks.
    std::atomic<bool> done{false};
    pthread_t waiter = pthread_self();
    std::thread signaller([&] {
        while (!done.load()) {
            pthread_kill(waiter, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    epoll_event ready[1];
    int result = System::EPollWait(epoll, ready, 1, 10000);
    done = true;
    signaller.join();
    sigaction(SIGUSR1, &old, nullptr);

    EXPECT_EQ(result, -EINTR);
    EXPECT_EQ(System::Close(epoll, tagOf(epoll)), 0);
    EXPECT_TRUE(mLog.withTag(kTag).empty());
    EXPECT_TRUE(mULog.records().empty());
}

// --- Trace sections ------------------------------------------------------------------------

// Every call of the layer, successful, in a fixed order.
void runFileAndEventCalls(std::string const& dirPath) {
    int fd = -1;
    fd = System::Open("/dev/null", O_RDONLY | O_CLOEXEC, tagOf(fd));
    char byte;
    System::Read(fd, &byte, 1);
    System::Close(fd, tagOf(fd));
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) abort();
    System::Write(pipeFds[1], "x", 1);
    close(pipeFds[0]);
    close(pipeFds[1]);
    struct stat st;
    System::Stat("/dev/null", &st);
    DIR* dir = System::OpenDir(dirPath.c_str());
    System::ReadDir(dir);
    System::CloseDir(dir);
    char link[64];
    System::ReadLink("/proc/self/exe", link, sizeof(link));
    int event = -1;
    event = System::EventFD(0, EFD_CLOEXEC, tagOf(event));
    int timer = -1;
    timer = System::TimerFDCreate(CLOCK_MONOTONIC, TFD_CLOEXEC, tagOf(timer));
    itimerspec value = {};
    System::TimerFDSetTime(timer, 0, &value, nullptr);
    System::TimerFDGetTime(timer, &value);
    int epoll = -1;
    epoll = System::EPollCreate(1024, tagOf(epoll));
    epoll_event registration = {};
    registration.events = EPOLLIN;
    System::EPollCtlAdd(epoll, event, &registration);
    System::EPollCtlMod(epoll, event, &registration);
    System::EPollWait(epoll, &registration, 1, 0);
    System::EPollCtlDel(epoll, event, nullptr);
    System::Close(epoll, tagOf(epoll));
    System::Close(timer, tagOf(timer));
    System::Close(event, tagOf(event));
}

// The section names as one string, "E" for an end.
std::string sectionsOf(uint64_t bits, uint64_t atraceTags, std::string const& dirPath) {
    ScopedTracebits mask(bits);
    korvtest::TraceCapture trace(atraceTags);
    runFileAndEventCalls(dirPath);
    std::string names;
    for (auto& event : trace.events()) {
        names += (names.empty() ? "" : " ") + (event.rfind("B|", 0) == 0 ? event.substr(2) : event);
    }
    return names;
}

TEST_F(SystemCallTest, TraceSectionsFollowTheirBitsAndTheCameraTag) {
    EXPECT_EQ(sectionsOf(0x7, ATRACE_TAG_CAMERA, mDir.path()),
              "Open Stat E E Read E Close E Write E Stat E OpenDir E ReadDir E CloseDir E "
              "ReadLink E EventFD E TimerFDCreate E TimerFDSetTime E TimerFDGetTime E "
              "EPollCreate E EPollCtlAdd E EPollCtlMod E EPollWait E EPollCtlDel E Close E "
              "Close E Close E");
    EXPECT_EQ(sectionsOf(0x1, ATRACE_TAG_CAMERA, mDir.path()),
              "Open E Read E Close E Write E OpenDir E ReadDir E CloseDir E ReadLink E EventFD E "
              "TimerFDCreate E EPollCreate E Close E Close E Close E");
    EXPECT_EQ(sectionsOf(0x6, ATRACE_TAG_CAMERA, mDir.path()),
              "Stat E Stat E TimerFDSetTime E TimerFDGetTime E EPollCtlAdd E EPollCtlMod E "
              "EPollWait E EPollCtlDel E");
    EXPECT_EQ(sectionsOf(~UINT64_C(0), ~ATRACE_TAG_CAMERA, mDir.path()), "");
}

}  // namespace
