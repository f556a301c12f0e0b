// The System wrappers: results and descriptor ownership on real descriptors; every failure report,
// the errno hook and the driver-fault ending through scripted doubles.
//
// This executable defines the C library calls that the wrappers make, and raise(), nanosleep()
// and the steady clock; the library binds to them by symbol preemption. Each double forwards to
// the real call unless the script names it. A scripted file or event call answers once with the
// scripted result and errno (the descriptor listing that may follow uses the same calls; write()
// only for the descriptor number kBadFd, since the trace writer writes too); a scripted ioctl
// answers every call and records it, and meanwhile raise() and nanosleep() record what they were
// asked instead of doing it. With `elapsedNs` set, the clock's readings come in pairs that far
// apart. The real endings are death tests.

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <korvalite/Korv_Trace.h>
#include <korvalite/SystemCall.h>
#include <linux/media.h>
#include <linux/videodev2.h>
#include <qrvcam/fdsan.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <deque>
#include <regex>

#include "support/KorvTest.h"

namespace {

// Touched only by the test's own thread (or a death-test child).
struct Script {
    std::string call;  // the scripted C library call; empty: every double forwards
    long result = -1;
    int err = 0;
    std::function<void(void*)> onArg;  // ioctl: sees, and may fill, the argument
    std::vector<std::pair<unsigned long, void*>> ioctls;
    std::deque<int> raises;  // raise()'s results, then 0
    bool fakeEnd = true;     // raise() and nanosleep() only record
    std::vector<int> signals;
    std::vector<long> pausesNs;
    long elapsedNs = -1;  // the clock: every second reading this far after the one before
    int clockReads = 0;
} gScript;

struct Scripted {
    Scripted(char const* call, long result, int err) {
        gScript = Script{call, result, err, {}, {}, {}, true, {}, {}, -1, 0};
    }
    ~Scripted() { gScript = Script{}; }
};

bool scripted(char const* call) {
    if (gScript.call != call) return false;
    if (gScript.call != "ioctl") gScript.call.clear();
    errno = gScript.err;
    return true;
}

constexpr int kBadFd = 555;

template <typename F>
F* realCall(char const* name) {
    return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define KORV_DOUBLE(type, name, params, ...)                               \
    extern "C" type name params {                                          \
        static auto* const real = realCall<type params>(#name);            \
        return scripted(#name) ? (type)gScript.result : real(__VA_ARGS__); \
    }
KORV_DOUBLE(int, stat, (char const* p, struct stat* s), p, s)
KORV_DOUBLE(int, __open_2, (char const* p, int f), p, f)
KORV_DOUBLE(int, qrvcam_fdsan_close_with_tag, (int fd, uint64_t tag, int f), fd, tag, f)
KORV_DOUBLE(ssize_t, read, (int fd, void* b, size_t n), fd, b, n)
KORV_DOUBLE(DIR*, opendir, (char const* p), p)
KORV_DOUBLE(dirent*, readdir, (DIR * d), d)
KORV_DOUBLE(int, closedir, (DIR * d), d)
KORV_DOUBLE(ssize_t, readlink, (char const* p, char* b, size_t n), p, b, n)
KORV_DOUBLE(int, eventfd, (unsigned int v, int f), v, f)
KORV_DOUBLE(int, timerfd_create, (int c, int f), c, f)
KORV_DOUBLE(int, timerfd_settime, (int fd, int f, itimerspec const* n, itimerspec* o), fd, f, n, o)
KORV_DOUBLE(int, timerfd_gettime, (int fd, itimerspec* c), fd, c)
KORV_DOUBLE(int, epoll_create, (int s), s)
KORV_DOUBLE(int, epoll_ctl, (int e, int op, int fd, epoll_event* ev), e, op, fd, ev)
KORV_DOUBLE(int, epoll_wait, (int e, epoll_event* ev, int m, int t), e, ev, m, t)

extern "C" ssize_t write(int fd, void const* b, size_t n) {
    static auto* const real = realCall<ssize_t(int, void const*, size_t)>("write");
    return fd == kBadFd && scripted("write") ? gScript.result : real(fd, b, n);
}

extern "C" int ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    static auto* const real = realCall<int(int, unsigned long, ...)>("ioctl");
    if (!scripted("ioctl")) return real(fd, request, arg);
    gScript.ioctls.emplace_back(request, arg);
    if (gScript.onArg) gScript.onArg(arg);
    return static_cast<int>(gScript.result);
}

extern "C" int raise(int sig) {
    static auto* const real = realCall<int(int)>("raise");
    if (gScript.call != "ioctl" || !gScript.fakeEnd) return real(sig);
    gScript.signals.push_back(sig);
    int result = gScript.raises.empty() ? 0 : gScript.raises.front();
    if (!gScript.raises.empty()) gScript.raises.pop_front();
    return result;
}

extern "C" int nanosleep(timespec const* pause, timespec* rest) {
    static auto* const real = realCall<int(timespec const*, timespec*)>("nanosleep");
    if (gScript.call != "ioctl" || !gScript.fakeEnd) return real(pause, rest);
    gScript.pausesNs.push_back(pause->tv_sec * 1000000000L + pause->tv_nsec);
    return 0;
}

std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
    static auto* const real = realCall<time_point()>("_ZNSt6chrono3_V212steady_clock3nowEv");
    if (gScript.elapsedNs < 0) return real();
    return time_point(std::chrono::nanoseconds(gScript.clockReads++ % 2 * gScript.elapsedNs));
}

namespace {

namespace System = NSCam::NSKorvalite::System;
using korvtest::tagOf;

constexpr char kTag[] = "korvalite-syscall";
constexpr int kFd = 77;  // the ioctl double answers for any number
constexpr char kTooMany[] = "err=-24(Too many open files)";

// Takes descriptor `fd` back from the owner `tag`: refused unless the wrapper tagged it so.
int untag(int fd, unsigned long tag) {
    return qrvcam_fdsan_exchange_tag(fd, qrvcam_fdsan_create_tag(tag, 1), 0, 1);
}

std::string exceptionText(std::string const& request, int err) {
    return request + " err=" + std::to_string(-err) + "(" + strerror(err) +
           ") Please check TovrixKernel.\nCRDISPATCH_KEY:TovrixKernel";
}

// What a failure must log, in the form logged() gives: each error line `plain` ("[<name>] ...")
// with the suffix " (<name>){#<line>:src/utils/sys/SystemCall}"; after each, with `listing`, one
// info line per open descriptor and one for the listing's own; after all, for a driver fault, the
// exception report of `exception`. Records not of the syscall tag name theirs. (Both routes carry
// the same texts; the printer's, the reports' and the timer's tests check the ULog one.)
std::vector<std::string> failure(std::vector<std::string> const& plains, bool listing,
                                 std::string const& exception = "") {
    std::vector<std::string> lines;
    size_t const listed = listing ? korvtest::openFds().size() + 1 : 0;
    for (auto const& plain : plains) {
        std::string const name = plain.substr(1, plain.find(']') - 1);
        lines.push_back("6|" + plain + " (" + name + "){#N:src/utils/sys/SystemCall}");
        lines.insert(lines.end(), listed, "4|[dumpProcessFileState] listing");
    }
    if (!exception.empty()) {
        std::string const own = "korvalite-Xem 4|[korvalite_xem_trigger_exception] ";
        lines.insert(lines.end(), {own + "+ " + exception, "qrvcam-xem 4|trace pause",
                                   "qrvcam-xem 6|exception module=tovrix path=null: " + exception,
                                   own + "- " + exception});
    }
    return lines;
}

class SystemCallTest : public ::testing::Test {
protected:
    // The mask is fixed at load; the tests set the exported variable meanwhile.
    ~SystemCallTest() override { korvalite_enabled_tracebits = mOldBits; }

    // Every record since the last call as "<priority>|<text>" with a suffix's line number as N,
    // led by "<tag> " unless its tag is the syscall one. Each line of the descriptor listing must
    // name a descriptor and its target as /proc gives it, cut to the link's size, and reads
    // "... listing" here.
    std::vector<std::string> logged() {
        std::vector<std::string> records;
        for (auto const& r : mLog.records())
            records.push_back(other(r.tag) + std::to_string(r.priority) + "|" + listing(r.text));
        mLog.clear();
        return records;
    }
    static std::string other(std::string const& tag) { return tag == kTag ? "" : tag + " "; }
    static std::string listing(std::string const& text) {
        int fd = -1;
        if (sscanf(text.c_str(), "[dumpProcessFileState] %d -> ", &fd) != 1) {
            return std::regex_replace(text, std::regex("\\{#[0-9]+:"), "{#N:");
        }
        std::string const link = "/proc/self/fd/" + std::to_string(fd);
        char target[4096];
        struct stat st;
        ssize_t n = readlink(link.c_str(), target, sizeof(target));
        if (n > 0 && lstat(link.c_str(), &st) == 0) {  // else the listing's own, closed since
            EXPECT_EQ(text, "[dumpProcessFileState] " + std::to_string(fd) + " -> " +
                                    std::string(target, size_t(n)).substr(0, size_t(st.st_size)));
        }
        return "[dumpProcessFileState] listing";
    }

    korvtest::ScopedSwitches mSwitches{0x1, 3};
    korvtest::AndroidLogCapture mLog;
    korvtest::TraceCapture mTrace;
    korvtest::TempDir mDir;
    uint64_t const mOldBits = korvalite_enabled_tracebits;
};

// Every file and event wrapper: its trace section under its own bit; on failure its result, its
// error line in both forms and the descriptor listing that EMFILE brings, with errno kept; on
// success the call's own result (0 too), with a new descriptor owned by the caller's tag.
TEST_F(SystemCallTest, FileAndEventCallsReportHookAndReturn) {
    // Open while listed: a target longer than the 64 bytes /proc gives the link.
    std::string const p = mDir.path() + "/" + std::string(90, 'n');
    ASSERT_EQ(mkdir(p.c_str(), 0700), 0);
    std::string const m = std::string(" return -1: ") + kTooMany;
    DIR* const dir = opendir(p.c_str());
    itimerspec value = {};
    epoll_event event = {};
    char link[8];
    struct stat st;
    enum Kind { kInt, kFd, kNull, kOpenStat };
    struct Case {
        Kind kind;
        char const* call;
        uint64_t bit;
        char const* name;
        std::function<long()> wrapper;
        std::string line;
    };
    for (auto const& c : std::vector<Case>{
                 {kInt, "stat", 4, "Stat", [&] { return System::Stat(p.c_str(), &st); },
                  "[Stat] stat(" + p + "): Too many open files"},
                 {kOpenStat, "stat", 1, "Open", [&] { return System::Open(p.c_str(), 0, 0); },
                  "[Open] Invalid device " + p + ": Too many open files"},
                 {kFd, "__open_2", 1, "Open", [] { return System::Open("/dev/null", 0, 0); },
                  "[Open] open(/dev/null)" + m},
                 {kInt, "qrvcam_fdsan_close_with_tag", 1, "Close",
                  [] { return System::Close(9, 0); }, "[Close] close(9)" + m},
                 {kInt, "read", 1, "Read", [] { return System::Read(kBadFd, nullptr, 8); },
                  "[Read] read(555, (nil), 8)" + m},
                 {kInt, "write", 1, "Write", [] { return System::Write(kBadFd, nullptr, 7); },
                  "[Write] write(555, (nil), 7)" + m},
                 {kNull, "opendir", 1, "OpenDir", [&] { return long(System::OpenDir(p.c_str())); },
                  "[OpenDir] opendir(" + p + ") return NULL: " + kTooMany},
                 {kNull, "readdir", 1, "ReadDir", [&] { return long(System::ReadDir(dir)); },
                  std::string("[ReadDir] readdir() return NULL: ") + kTooMany},
                 {kInt, "closedir", 1, "CloseDir", [&] { return System::CloseDir(dir); },
                  "[CloseDir] closedir()" + m},
                 {kInt, "readlink", 1, "ReadLink", [&] { return System::ReadLink("l", link, 8); },
                  "[ReadLink] readlink(l)" + m},
                 {kFd, "eventfd", 1, "EventFD", [] { return System::EventFD(3, 0x80800, 0); },
                  "[EventFD] eventfd(3, 0x80800)" + m},
                 {kFd, "timerfd_create", 1, "TimerFDCreate",
                  [] { return System::TimerFDCreate(1, 0, 0); },
                  "[TimerFDCreate] timerfd_create()" + m},
                 {kInt, "timerfd_settime", 2, "TimerFDSetTime",
                  [&] { return System::TimerFDSetTime(6, 0, &value, nullptr); },
                  "[TimerFDSetTime] timerfd_settime(6)" + m},
                 {kInt, "timerfd_gettime", 2, "TimerFDGetTime",
                  [&] { return System::TimerFDGetTime(6, &value); },
                  "[TimerFDGetTime] timerfd_gettime(6)" + m},
                 {kFd, "epoll_create", 1, "EPollCreate", [] { return System::EPollCreate(64, 0); },
                  "[EPollCreate] epoll_create()" + m},
                 {kInt, "epoll_ctl", 2, "EPollCtlAdd",
                  [&] { return System::EPollCtlAdd(4, 6, &event); },
                  "[EPollCtlAdd] epoll_ctl(4, EPOLL_CTL_ADD, 6)" + m},
                 {kInt, "epoll_ctl", 2, "EPollCtlMod",
                  [&] { return System::EPollCtlMod(4, 6, &event); },
                  "[EPollCtlMod] epoll_ctl(4, EPOLL_CTL_MOD, 6)" + m},
                 {kInt, "epoll_ctl", 2, "EPollCtlDel",
                  [] { return System::EPollCtlDel(4, 6, nullptr); },
                  "[EPollCtlDel] epoll_ctl(4, EPOLL_CTL_DEL, 6)" + m},
                 {kInt, "epoll_wait", 2, "EPollWait",
                  [&] { return System::EPollWait(4, &event, 3, 9); },
                  "[EPollWait] epoll_wait(4, maxevents=3, timeout=9)" + m}}) {
        SCOPED_TRACE(c.name);
        korvalite_enabled_tracebits = c.bit;
        mTrace.clear();
        std::vector<std::string> lines = {c.line};
        if (c.kind == kOpenStat)
            lines.insert(lines.begin(), "[Stat] stat(" + p + "): Too many open files");
        auto const expected = failure(lines, true);
        {
            Scripted script(c.call, c.kind == kNull ? 0 : -1, EMFILE);
            EXPECT_EQ(c.wrapper(), c.kind == kNull ? 0 : -EMFILE);
            EXPECT_EQ(errno, EMFILE);
        }
        EXPECT_EQ(logged(), expected);
        EXPECT_EQ(mTrace.events(), (std::vector<std::string>{std::string("B|") + c.name, "E"}));
        if (c.kind == kInt || c.kind == kFd) {
            Scripted script(c.call, 0, 0);
            EXPECT_EQ(c.wrapper(), 0);
        }
        if (c.kind == kFd) {
            EXPECT_EQ(untag(0, 0), 0);
        }
    }
    // A signal's EINTR is no failure of EPollWait at all.
    closedir(dir);
    Scripted waking("epoll_wait", -1, EINTR);
    EXPECT_EQ(System::EPollWait(4, nullptr, 1, -1), -EINTR);
    EXPECT_TRUE(logged().empty());
}

// What only real descriptors show: ownership refused to another tag, no close-on-exec added, the
// device check, and a report at the end of every directory.
TEST_F(SystemCallTest, RealDescriptors) {
    int fd = -1;
    fd = System::Open("/dev/null", O_RDONLY, tagOf(fd));
    EXPECT_EQ(fcntl(fd, F_GETFD), 0);
    EXPECT_EQ(System::Close(fd, 0), -EBADF);  // refused: it stays open
    EXPECT_EQ(System::Close(fd, tagOf(fd)), 0);
    std::string const file = mDir.path() + "/file";
    close(creat(file.c_str(), 0600));
    EXPECT_EQ(System::Open(file.c_str(), O_RDONLY, 0), -ENODEV);
    EXPECT_EQ(System::Open(mDir.path().c_str(), O_RDONLY, 0), -ENODEV);
    DIR* dir = System::OpenDir(mDir.path().c_str());
    for (errno = 0; System::ReadDir(dir) != nullptr;) continue;
    EXPECT_EQ(System::CloseDir(dir), 0);
    auto records = logged();
    records.erase(records.begin());  // the sanitizer's own line on the refused close
    EXPECT_EQ(records, failure({"[Close] close(" + std::to_string(fd) +
                                        ") return -1: err=-9(Bad file descriptor)",
                                "[Open] Invalid device node: " + file,
                                "[Open] Invalid device node: " + mDir.path(),
                                "[ReadDir] readdir() return NULL: err=0(Success)"},
                               false));
}

// --- Device requests --------------------------------------------------------------------------

v4l2_buffer gBuffer;
v4l2_event gEvent;
int gIovaArg;
int gRequest = -1;

// Per call: the request and argument the driver sees, the section under its bit, the result of a
// success and of a positive answer, and the whole sequence of a refusal: error line, errno hook,
// exception report, SIGTERM, a 100 ms pause, SIGKILL. AddIova and DelIova get driver codes with
// bit 31 set.
TEST_F(SystemCallTest, DeviceCallsEndTheProcessWhenTheDriverRefuses) {
    struct Case {
        std::function<int()> call;
        unsigned long request;
        char const* section;  // empty: never traced
        uint64_t bit;
        std::string line;  // for EMFILE
        char const* report;
        bool nonZeroFails;  // fails on any non-zero result, not only a negative one
    };
    std::string const t = "(Too many open files)";
    for (auto const& c : std::vector<Case>{
                 {[] { return System::AllocMediaRequest(kFd, tagOf(gRequest)); },
                  MEDIA_IOC_REQUEST_ALLOC, "MEDIA_IOC_REQUEST_ALLOC", 1ull << 5,
                  "[AllocMediaRequest] ioctl(77, MEDIA_IOC_REQUEST_ALLOC) return -1: err=-24" + t,
                  "MEDIA_IOC_REQUEST_ALLOC", false},
                 {[] { return System::ReinitMediaRequest(kFd); }, MEDIA_REQUEST_IOC_REINIT, "", 0,
                  "[ReinitMediaRequest] ioctl(77, MEDIA_REQUEST_IOC_REINIT): err=-24" + t,
                  "MEDIA_REQUEST_IOC_REINIT", false},
                 {[] { return System::QueueMediaRequest(kFd); }, MEDIA_REQUEST_IOC_QUEUE,
                  "MEDIA_REQUEST_IOC_QUEUE", 1ull << 8,
                  "[QueueMediaRequest] ioctl(77, MEDIA_REQUEST_IOC_QUEUE): err=-24" + t,
                  "MEDIA_REQUEST_IOC_QUEUE", true},
                 {[] { return System::QueueVideoNodeBuf(kFd, &gBuffer); }, VIDIOC_QBUF,
                  "VIDIOC_QBUF", 1ull << 9, "[QueueVideoNodeBuf] ioctl(77, VIDIOC_QBUF): -24" + t,
                  "VIDIOC_QBUF", true},
                 {[] { return System::DQueueVideoNodeBuf(kFd, &gBuffer); }, VIDIOC_DQBUF,
                  "VIDIOC_DQBUF", 1ull << 13,
                  "[DQueueVideoNodeBuf] ioctl(77, VIDIOC_DQBUF): -24" + t, "VIDIOC_DQBUF", true},
                 {[] { return System::DQueueEvent(kFd, &gEvent); }, VIDIOC_DQEVENT,
                  "VIDIOC_DQEVENT", 1ull << 32, "[DQueueEvent] ioctl(77, VIDIOC_DQEVENT): -24" + t,
                  "VIDIOC_DQEVENT", false},
                 {[] { return System::AddIova(kFd, int(0xC0104D01u), &gIovaArg); }, 0xC0104D01,
                  "AddIova", 1ull << 2, "[AddIova] ioctl(77, 0xc0104d01): -24" + t,
                  "QRVDIP_IOC_ADD_IOVA", false},
                 {[] { return System::DelIova(kFd, int(0xC0104D02u), &gIovaArg); }, 0xC0104D02,
                  "DelIova", 1ull << 2, "[DelIova] ioctl(77, 0xc0104d02): -24" + t,
                  "QRVDIP_IOC_DEL_IOVA", false}}) {
        SCOPED_TRACE(c.report);
        std::vector<std::string> section;
        if (*c.section != '\0') section = {std::string("B|") + c.section, "E"};
        korvalite_enabled_tracebits = c.bit;
        mTrace.clear();
        int preset = 0;
        {
            Scripted script("ioctl", 0, 0);
            gScript.onArg = [&](void* arg) {
                if (c.request == MEDIA_IOC_REQUEST_ALLOC)
                    std::swap(preset, *static_cast<int*>(arg));
            };
            EXPECT_EQ(c.call(), 0);  // the alloc's: the descriptor the driver wrote
            ASSERT_EQ(gScript.ioctls.size(), 1u);
            EXPECT_EQ(gScript.ioctls[0].first, c.request);  // zero-extended
            EXPECT_TRUE(gScript.signals.empty());
        }
        EXPECT_EQ(preset, c.request == MEDIA_IOC_REQUEST_ALLOC ? -1 : 0);
        EXPECT_EQ(untag(0, tagOf(gRequest)), c.request == MEDIA_IOC_REQUEST_ALLOC ? 0 : -1);
        EXPECT_EQ(mTrace.events(), section);
        if (c.request != MEDIA_IOC_REQUEST_ALLOC) {  // a positive result is the alloc's descriptor
            Scripted script("ioctl", 1, EIO);
            EXPECT_EQ(c.call(), c.nonZeroFails ? -EIO : 0);
        }
        logged();
        auto const expected = failure({c.line}, true, exceptionText(c.report, EMFILE));
        Scripted script("ioctl", -1, EMFILE);
        EXPECT_EQ(c.call(), -EMFILE);  // only because the raise double let it live
        EXPECT_EQ(gScript.signals, (std::vector<int>{SIGTERM, SIGKILL}));
        EXPECT_EQ(gScript.pausesNs, std::vector<long>{100000000});
        EXPECT_EQ(logged(), expected);
    }

    // The raises repeat only while both fail.
    for (auto const& [raises, rounds] : {std::pair{std::deque<int>{-1, -1, -1, -1, 0, 0}, 3},
                                         {std::deque<int>{-1, 0}, 1},
                                         {std::deque<int>{0, -1}, 1}}) {
        Scripted script("ioctl", -1, EIO);
        gScript.raises = raises;
        EXPECT_EQ(System::QueueMediaRequest(kFd), -EIO);
        std::vector<int> signals;
        for (int i = 0; i < rounds; ++i) signals.insert(signals.end(), {SIGTERM, SIGKILL});
        EXPECT_EQ(gScript.signals, signals);
    }
}

// DQBUF's EAGAIN is quiet; Ioctl reports, with the errno hook, only with flag bit 0, and never ends
// the process.
TEST_F(SystemCallTest, QuietFailuresAndIoctl) {
    korvalite_enabled_tracebits = 1ull << 2;
    Scripted script("ioctl", -1, EAGAIN);
    EXPECT_EQ(System::DQueueVideoNodeBuf(kFd, &gBuffer), -EAGAIN);
    gScript.err = ENOTTY;
    for (unsigned int flags : {0u, 2u}) {
        errno = 0;
        EXPECT_EQ(System::Ioctl(kFd, 0x1234, nullptr, flags), -1);
        EXPECT_EQ(errno, ENOTTY);
    }
    EXPECT_TRUE(logged().empty());
    gScript.err = EMFILE;
    EXPECT_EQ(System::Ioctl(kFd, 0x1234, nullptr, 3), -EMFILE);
    gScript.result = 3;
    EXPECT_EQ(System::Ioctl(kFd, int(0xC0104D01u), nullptr, 1), 3);  // as the driver answers
    EXPECT_EQ(gScript.ioctls.back().first, 0xC0104D01ul);
    gScript.result = 0;
    EXPECT_EQ(System::Ioctl(kFd, 0x1234, nullptr, 1), 0);
    EXPECT_TRUE(gScript.signals.empty());
    EXPECT_EQ(logged(), failure({"[Ioctl] ioctl(77, 0x1234): -24(Too many open files)"}, true));
    std::vector<std::string> sections;
    for (int i = 0; i < 5; ++i) sections.insert(sections.end(), {"B|Ioctl", "E"});
    EXPECT_EQ(mTrace.events(), sections);
}

// The real endings: the report is the last thing the process writes.
TEST(DeviceCallDeathTest, RefusalEndsTheProcessBySigtermOrElseBySigkill) {
    korvtest::ScopedSwitches switches(0x3, 3);
    auto const end = [](std::string const& request, int err) {
        return ::testing::EndsWith("[korvalite_xem_trigger_exception] - " +
                                   exceptionText(request, err) + "\n");
    };
    Scripted script("ioctl", -1, ENOENT);  // an empty event queue is a fault too
    gScript.fakeEnd = false;
    EXPECT_EXIT(System::DQueueEvent(kFd, &gEvent), ::testing::KilledBySignal(SIGTERM),
                end("VIDIOC_DQEVENT", ENOENT));
    gScript.err = EIO;
    EXPECT_EXIT(
            {
                signal(SIGTERM, SIG_IGN);
                System::QueueVideoNodeBuf(kFd, &gBuffer);
            },
            ::testing::KilledBySignal(SIGKILL), end("VIDIOC_QBUF", EIO));
}

// Child: a QBUF and a queue call that take 2000001 and 2000000 ns at details level 4, then
// 2000001 ns at levels 2 and 1. Prints the warnings it logged, one a line.
TEST(DeviceTimingChild, DISABLED_QueueCalls) {
    korvtest::ScopedSwitches switches;
    korvtest::AndroidLogCapture log;
    for (auto [details, ns] : {std::pair{4, 2000001}, {4, 2000000}, {2, 2000001}, {1, 2000001}}) {
        switches.mode(0x1).details(details);
        Scripted script("ioctl", 0, 0);
        gScript.elapsedNs = ns;
        EXPECT_EQ(System::QueueVideoNodeBuf(kFd, &gBuffer) + System::QueueMediaRequest(78), 0);
    }
    for (auto& r : log.withTag(kTag)) printf("@%d|%s\n", r.priority, r.text.c_str());
}

// Timing is decided by the details level (at least 4) and the camera log level (unset, or above
// 2) that the library saw when it loaded; a call then warns above 2 ms from details level 2.
TEST(DeviceTiming, SlowQueueCallsWarnOnlyWhenTimingWasOnAtLoad) {
    std::string const pair =
            "@5|[QueueVideoNodeBuf] ioctl(77, VIDIOC_QBUF) takes 2000001 ns\n"
            "@5|[QueueMediaRequest] ioctl(78, MEDIA_REQUEST_IOC_QUEUE) takes "
            "2000001 ns\n";
    for (auto const& [details, logLevel, timed] :
         {std::tuple{"4", "", true}, {"4", "3", true}, {"4", "2", false}, {"3", "", false}}) {
        auto child = korvtest::runSelfChild("DeviceTimingChild.DISABLED_QueueCalls",
                                            {{"debug.qrvcam.ulog.detailslevel", details},
                                             {"persist.vendor.qrv.camera.log_level", logLevel}});
        std::string lines;
        for (size_t at = child.out.find('@'); at != std::string::npos;
             at = child.out.find('@', at + 1))
            lines += child.out.substr(at, child.out.find('\n', at) + 1 - at);
        EXPECT_EQ(lines, timed ? pair + pair : "") << details << " " << logLevel;
    }
}

}  // namespace
