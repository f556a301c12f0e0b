// Device request, buffer and IOVA wrappers, driven through a scripted ioctl().
//
// This executable defines ioctl() and raise(); the library's calls bind to them by symbol
// preemption. While a script is active the ioctl double answers with the scripted result, errno
// and delay and records what it was asked; the raise double records the signal and "succeeds"
// without sending it, so the fatal path can be watched in-process up to the wrapper's return.
// Without a script both forward to the C library; the real endings are death tests.

#include <cutils/trace.h>
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
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
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

namespace {

struct IoctlCall {
    unsigned long request;
    void* arg;
};

// Touched only by the test's own thread (or a death-test child).
struct IoctlScript {
    bool active = false;
    int result = 0;
    int err = 0;
    std::chrono::milliseconds delay{0};
    std::function<void(void*)> onArg;  // sees, and may fill, the argument
    std::vector<IoctlCall> calls;
} gIoctl;

struct RaiseScript {
    bool active = false;
    std::deque<int> results;  // consumed in order, then 0
    std::vector<int> signals;
} gRaise;

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    if (!gIoctl.active) {
        using Real = int (*)(int, unsigned long, ...);
        static Real const real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "ioctl"));
        return real(fd, request, arg);
    }
    gIoctl.calls.push_back({request, arg});
    if (gIoctl.delay.count() > 0) std::this_thread::sleep_for(gIoctl.delay);
    if (gIoctl.onArg) gIoctl.onArg(arg);
    errno = gIoctl.err;
    return gIoctl.result;
}

extern "C" int raise(int sig) noexcept {
    if (!gRaise.active) {
        using Real = int (*)(int);
        static Real const real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "raise"));
        return real(sig);
    }
    gRaise.signals.push_back(sig);
    if (gRaise.results.empty()) return 0;
    int result = gRaise.results.front();
    gRaise.results.pop_front();
    return result;
}

namespace {

namespace System = NSCam::NSKorvalite::System;
using ::testing::ElementsAre;

constexpr char kTag[] = "korvalite-syscall";
constexpr int kFd = 77;  // the double answers for any number

// The codes the library holds as numbers, against the kernel's own headers.
static_assert(MEDIA_IOC_REQUEST_ALLOC == 0x80047C05);
static_assert(MEDIA_REQUEST_IOC_QUEUE == 0x7C80);
static_assert(MEDIA_REQUEST_IOC_REINIT == 0x7C81);
#if defined(__LP64__)
static_assert(sizeof(v4l2_buffer) == 88);
static_assert(sizeof(v4l2_event) == 136);
static_assert(VIDIOC_QBUF == 0xC058560F);
static_assert(VIDIOC_DQBUF == 0xC0585611);
static_assert(VIDIOC_DQEVENT == 0x80885659);
#endif

class ScriptedIoctl {
public:
    ScriptedIoctl(int result, int err, std::chrono::milliseconds delay = {}) {
        gIoctl = IoctlScript{};
        gIoctl.result = result;
        gIoctl.err = err;
        gIoctl.delay = delay;
        gIoctl.active = true;
    }
    ~ScriptedIoctl() { gIoctl = IoctlScript{}; }
};

class ScriptedRaise {
public:
    explicit ScriptedRaise(std::deque<int> results = {}) {
        gRaise = RaiseScript{};
        gRaise.results = std::move(results);
        gRaise.active = true;
    }
    ~ScriptedRaise() { gRaise = RaiseScript{}; }
};

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

unsigned long tagOf(int const& holder) {
    return reinterpret_cast<unsigned long>(&holder);
}

std::string exceptionText(std::string const& request, int err) {
    return request + " err=" + std::to_string(-err) + "(" + strerror(err) +
           ") Please check TovrixKernel.\nCRDISPATCH_KEY:TovrixKernel";
}

// The plain part of an Android error line, once its suffix is checked: " (<name>){#<line>:" and
// the layer's source path.
std::string withoutSuffix(std::string const& text, std::string const& name) {
    std::string const open = " (" + name + "){#";
    std::string const close = ":src/utils/sys/SystemCall}";
    size_t at = text.rfind(open);
    size_t end = text.size() - close.size();
    if (at == std::string::npos || text.size() < close.size() ||
        text.compare(end, close.size(), close) != 0 || end <= at + open.size() ||
        text.find_first_not_of("0123456789", at + open.size()) != end) {
        return "no suffix: " + text;
    }
    return text.substr(0, at);
}

v4l2_buffer gBuffer;
v4l2_event gEvent;
int gIovaArg;
constexpr int kAddIova = static_cast<int>(0xC0104D01u);  // driver codes with bit 31 set
constexpr int kDelIova = static_cast<int>(0xC0104D02u);

// The calls that end the process when the driver refuses.
struct DeviceCall {
    std::string name;
    std::function<int()> call;
    unsigned long request;
    void* arg;            // as the driver must see it (null: checked separately)
    std::string section;  // empty: never traced
    uint64_t bit;
    std::string message;  // the error line for EIO
    std::string report;   // the request's name in the exception text
    bool nonZeroFails;    // fails on any non-zero result, not only a negative one
};

std::vector<DeviceCall> deviceCalls() {
    std::string const io = "-5(Input/output error)";
    return {
            {"AllocMediaRequest", [] { return System::AllocMediaRequest(kFd, 0); }, 0x80047C05,
             nullptr, "MEDIA_IOC_REQUEST_ALLOC", UINT64_C(1) << 5,
             "[AllocMediaRequest] ioctl(77, MEDIA_IOC_REQUEST_ALLOC) return -1: err=" + io,
             "MEDIA_IOC_REQUEST_ALLOC", false},
            {"ReinitMediaRequest", [] { return System::ReinitMediaRequest(kFd); }, 0x7C81, nullptr,
             "", 0, "[ReinitMediaRequest] ioctl(77, MEDIA_REQUEST_IOC_REINIT): err=" + io,
             "MEDIA_REQUEST_IOC_REINIT", false},
            {"QueueMediaRequest", [] { return System::QueueMediaRequest(kFd); }, 0x7C80, nullptr,
             "MEDIA_REQUEST_IOC_QUEUE", UINT64_C(1) << 8,
             "[QueueMediaRequest] ioctl(77, MEDIA_REQUEST_IOC_QUEUE): err=" + io,
             "MEDIA_REQUEST_IOC_QUEUE", true},
            {"QueueVideoNodeBuf", [] { return System::QueueVideoNodeBuf(kFd, &gBuffer); },
             0xC058560F, &gBuffer, "VIDIOC_QBUF", UINT64_C(1) << 9,
             "[QueueVideoNodeBuf] ioctl(77, VIDIOC_QBUF): " + io, "VIDIOC_QBUF", true},
            {"DQueueVideoNodeBuf", [] { return System::DQueueVideoNodeBuf(kFd, &gBuffer); },
             0xC0585611, &gBuffer, "VIDIOC_DQBUF", UINT64_C(1) << 13,
             "[DQueueVideoNodeBuf] ioctl(77, VIDIOC_DQBUF): " + io, "VIDIOC_DQBUF", true},
            {"DQueueEvent", [] { return System::DQueueEvent(kFd, &gEvent); }, 0x80885659, &gEvent,
             "VIDIOC_DQEVENT", UINT64_C(1) << 32, "[DQueueEvent] ioctl(77, VIDIOC_DQEVENT): " + io,
             "VIDIOC_DQEVENT", false},
            {"AddIova", [] { return System::AddIova(kFd, kAddIova, &gIovaArg); }, 0xC0104D01,
             &gIovaArg, "AddIova", UINT64_C(1) << 2, "[AddIova] ioctl(77, 0xc0104d01): " + io,
             "QRVDIP_IOC_ADD_IOVA", false},
            {"DelIova", [] { return System::DelIova(kFd, kDelIova, &gIovaArg); }, 0xC0104D02,
             &gIovaArg, "DelIova", UINT64_C(1) << 2, "[DelIova] ioctl(77, 0xc0104d02): " + io,
             "QRVDIP_IOC_DEL_IOVA", false},
    };
}

class DeviceCallTest : public ::testing::Test {
protected:
    DeviceCallTest() { mSwitches.mode(0x3).details(3); }

    korvtest::ScopedSwitches mSwitches;
    korvtest::AndroidLogCapture mLog;
    korvtest::ULogCapture mULog;
};

// --- Requests, results and sections --------------------------------------------------------

TEST_F(DeviceCallTest, EachCallMakesItsRequestAndJudgesTheResultItsWay) {
    korvtest::TraceCapture trace;
    ScriptedRaise raise;
    for (auto const& device : deviceCalls()) {
        SCOPED_TRACE(device.name);
        {
            ScopedTracebits bits(device.bit);
            ScriptedIoctl script(0, 0);
            trace.clear();
            int preset = 0;
            int const made = eventfd(0, EFD_CLOEXEC);  // a request descriptor, for the alloc
            gIoctl.onArg = [&](void* arg) {
                if (device.request != 0x80047C05) return;
                preset = *static_cast<int*>(arg);
                *static_cast<int*>(arg) = made;
            };
            int result = device.call();
            ASSERT_EQ(gIoctl.calls.size(), 1u);
            EXPECT_EQ(gIoctl.calls[0].request, device.request);  // zero-extended codes
            if (device.request == 0x80047C05) {
                EXPECT_EQ(preset, -1);
                EXPECT_EQ(result, made);
                EXPECT_EQ(System::Close(made, 0), 0);
            } else {
                EXPECT_EQ(gIoctl.calls[0].arg, device.arg);
                EXPECT_EQ(result, 0);
                close(made);
            }
            std::vector<std::string> expected;
            if (!device.section.empty()) expected = {"B|" + device.section, "E"};
            EXPECT_EQ(trace.events(), expected);
        }
        if (device.request == 0x80047C05) continue;  // a positive result is its descriptor
        ScopedTracebits bits(~device.bit);
        ScriptedIoctl script(1, EIO);
        trace.clear();
        EXPECT_EQ(device.call(), device.nonZeroFails ? -EIO : 0);
        EXPECT_TRUE(trace.events().empty());
    }
    EXPECT_EQ(mLog.withTag(kTag).size(), 3u);  // the three calls that fail on non-zero

    ScriptedIoctl script(3, 0);
    ScopedTracebits bits(UINT64_C(1) << 2);
    trace.clear();
    EXPECT_EQ(System::Ioctl(kFd, kAddIova, &gIovaArg, 0), 3);  // the ioctl's own result
    EXPECT_EQ(gIoctl.calls[0].request, 0xC0104D01ul);
    EXPECT_EQ(trace.events(), (std::vector<std::string>{"B|Ioctl", "E"}));
}

// --- The kernel failure sequence -----------------------------------------------------------

TEST_F(DeviceCallTest, RefusedRequestReportsRaisesAnExceptionAndEndsTheProcess) {
    ScopedTracebits bits(~UINT64_C(0));
    korvtest::TraceCapture trace;
    for (auto const& device : deviceCalls()) {
        SCOPED_TRACE(device.name);
        mLog.clear();
        mULog.clear();
        trace.clear();
        ScriptedRaise raise;
        ScriptedIoctl script(-1, EIO);
        EXPECT_EQ(device.call(), -EIO);  // only because the raise double let it live
        EXPECT_THAT(gRaise.signals, ElementsAre(SIGTERM, SIGKILL));

        std::string const exception = exceptionText(device.report, EIO);
        auto records = mLog.records();
        ASSERT_EQ(records.size(), 5u);
        EXPECT_EQ(records[0].tag, kTag);
        EXPECT_EQ(records[0].priority, ANDROID_LOG_ERROR);
        EXPECT_EQ(withoutSuffix(records[0].text, device.name), device.message);
        EXPECT_EQ(records[1].text, "[korvalite_xem_trigger_exception] + " + exception);
        EXPECT_EQ(records[2].text, "trace pause");
        EXPECT_EQ(records[3].text, "exception module=tovrix path=null: " + exception);
        EXPECT_EQ(records[4].text, "[korvalite_xem_trigger_exception] - " + exception);
        EXPECT_THAT(mULog.texts(kTag), ElementsAre(device.message));
        // The section is closed on the way out too.
        std::vector<std::string> expected;
        if (!device.section.empty()) expected = {"B|" + device.section, "E"};
        EXPECT_EQ(trace.events(), expected);
    }
}

TEST_F(DeviceCallTest, RaisesRepeatOnlyWhileBothFail) {
    struct Case {
        std::deque<int> results;
        std::vector<int> signals;
    };
    int const T = SIGTERM;
    int const K = SIGKILL;
    for (auto const& c : {Case{{-1, -1, -1, -1, 0, 0}, {T, K, T, K, T, K}}, Case{{-1, 0}, {T, K}},
                          Case{{0, -1}, {T, K}}}) {
        ScriptedRaise raise(c.results);
        ScriptedIoctl script(-1, EIO);
        EXPECT_EQ(System::QueueMediaRequest(kFd), -EIO);
        EXPECT_EQ(gRaise.signals, c.signals);
    }
}

TEST_F(DeviceCallTest, NoBufferReadyIsQuiet) {
    ScriptedRaise raise;
    ScriptedIoctl script(-1, EAGAIN);
    EXPECT_EQ(System::DQueueVideoNodeBuf(kFd, &gBuffer), -EAGAIN);
    EXPECT_TRUE(mLog.records().empty());
    EXPECT_TRUE(mULog.records().empty());
    EXPECT_TRUE(gRaise.signals.empty());
}

TEST_F(DeviceCallTest, OutOfDescriptorsListsEveryOneBetweenTheErrorAndTheReport) {
    auto open = korvtest::openFds();
    ScriptedRaise raise;
    {
        ScriptedIoctl script(-1, EMFILE);
        EXPECT_EQ(System::DQueueEvent(kFd, &gEvent), -EMFILE);
    }
    auto records = mLog.records();
    // The error line, one line per descriptor and one for the listing's own, then the report.
    ASSERT_EQ(records.size(), 1 + open.size() + 1 + 4);
    EXPECT_EQ(withoutSuffix(records[0].text, "DQueueEvent"),
              "[DQueueEvent] ioctl(77, VIDIOC_DQEVENT): -24(Too many open files)");
    std::vector<std::string> listing;
    for (size_t i = 1; i <= open.size() + 1; ++i) {
        EXPECT_EQ(records[i].tag, kTag);
        EXPECT_EQ(records[i].priority, ANDROID_LOG_INFO);
        listing.push_back(records[i].text);
    }
    for (int fd : open) {
        // Targets are cut to the size that /proc gives the link (64 for most).
        std::string const path = "/proc/self/fd/" + std::to_string(fd);
        char target[4096];
        struct stat st;
        ssize_t n = readlink(path.c_str(), target, sizeof(target));
        ASSERT_TRUE(n > 0 && lstat(path.c_str(), &st) == 0);
        size_t shown = st.st_size < 1 ? 4095 : static_cast<size_t>(st.st_size);
        EXPECT_THAT(listing,
                    ::testing::Contains("[dumpProcessFileState] " + std::to_string(fd) + " -> " +
                                        std::string(target, size_t(n)).substr(0, shown)));
    }
    EXPECT_EQ(records[open.size() + 2].tag, "korvalite-Xem");
    auto ulog = mULog.texts(kTag);
    ASSERT_EQ(ulog.size(), 1 + listing.size());
    EXPECT_EQ(std::vector<std::string>(ulog.begin() + 1, ulog.end()), listing);  // no suffix

    mLog.clear();
    mSwitches.details(2);
    ScriptedIoctl script(-1, EMFILE);
    EXPECT_EQ(System::DQueueEvent(kFd, &gEvent), -EMFILE);
    EXPECT_EQ(mLog.withTag(kTag).size(), 1u);
}

// The real endings. The child's liblog and ULog lines go to stderr; they must appear in this
// order and the last one must end the output.
::testing::Matcher<std::string const&> endsWithInOrder(std::vector<std::string> pieces) {
    return ::testing::Truly([pieces](std::string const& err) {
        size_t at = 0;
        for (auto const& piece : pieces) {
            at = err.find(piece, at);
            if (at == std::string::npos) return false;
            at += piece.size();
        }
        return at == err.size();
    });
}

std::vector<std::string> fatalOutput(std::string const& name, std::string const& line,
                                     std::string const& exception) {
    return {"korvalite-syscall E ",
            line + " (" + name + "){#",
            ":src/utils/sys/SystemCall}\n",
            "ULOG 8002001 1 korvalite-syscall: " + line + "\n",
            "[korvalite_xem_trigger_exception] + " + exception + "\n",
            "qrvcam-xem I ",
            "trace pause\n",
            "qrvcam-xem E ",
            "exception module=tovrix path=null: " + exception + "\n",
            "[korvalite_xem_trigger_exception] - " + exception + "\n",
            "ULOG 8002001 3 korvalite-Xem: [korvalite_xem_trigger_exception] - " + exception +
                    "\n"};
}

TEST(DeviceCallDeathTest, EmptyEventQueueEndsTheProcessBySigterm) {
    korvtest::ScopedSwitches switches;
    switches.mode(0x3).details(3);
    ScriptedIoctl script(-1, ENOENT);
    EXPECT_EXIT(System::DQueueEvent(kFd, &gEvent), ::testing::KilledBySignal(SIGTERM),
                endsWithInOrder(fatalOutput(
                        "DQueueEvent",
                        "[DQueueEvent] ioctl(77, VIDIOC_DQEVENT): -2(No such file or directory)",
                        exceptionText("VIDIOC_DQEVENT", ENOENT))));
}

TEST(DeviceCallDeathTest, IgnoredSigtermEndsTheProcessBySigkill) {
    korvtest::ScopedSwitches switches;
    switches.mode(0x3).details(3);
    ScriptedIoctl script(-1, EIO);
    EXPECT_EXIT(
            {
                signal(SIGTERM, SIG_IGN);
                System::QueueVideoNodeBuf(kFd, &gBuffer);
            },
            ::testing::KilledBySignal(SIGKILL),
            endsWithInOrder(fatalOutput("QueueVideoNodeBuf",
                                        "[QueueVideoNodeBuf] ioctl(77, VIDIOC_QBUF): -5(Input/"
                                        "output error)",
                                        exceptionText("VIDIOC_QBUF", EIO))));
}

// --- Ioctl and request descriptors ---------------------------------------------------------

TEST_F(DeviceCallTest, IoctlReportsOnlyWhenAsked) {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    constexpr int kUnknown = 0x1234;
    for (unsigned int flags : {0u, 2u}) {
        errno = 0;
        EXPECT_EQ(System::Ioctl(fd, kUnknown, nullptr, flags), -1);
        EXPECT_EQ(errno, ENOTTY);
    }
    EXPECT_TRUE(mLog.records().empty());
    EXPECT_TRUE(mULog.records().empty());

    EXPECT_EQ(System::Ioctl(fd, kUnknown, nullptr, 1), -ENOTTY);
    EXPECT_EQ(System::Ioctl(fd, kUnknown, nullptr, 3), -ENOTTY);
    std::string const line = "[Ioctl] ioctl(" + std::to_string(fd) +
                             ", 0x1234): -25(Inappropriate ioctl for device)";
    auto android = mLog.texts(kTag);
    ASSERT_EQ(android.size(), 2u);
    EXPECT_EQ(withoutSuffix(android[0], "Ioctl"), line);
    EXPECT_EQ(withoutSuffix(android[1], "Ioctl"), line);
    EXPECT_THAT(mULog.texts(kTag), ElementsAre(line, line));
    EXPECT_TRUE(mLog.withTag("qrvcam-xem").empty());  // never a report
    close(fd);
}

TEST_F(DeviceCallTest, AllocatedRequestBelongsToTheCallersTag) {
    int const made = eventfd(0, EFD_CLOEXEC);  // stands in for the kernel's request descriptor
    ASSERT_GE(made, 0);
    int request = -1;
    {
        ScriptedIoctl script(0, 0);
        gIoctl.onArg = [made](void* arg) { *static_cast<int*>(arg) = made; };
        request = System::AllocMediaRequest(kFd, tagOf(request));
    }
    ASSERT_EQ(request, made);
    EXPECT_EQ(qrvcam_fdsan_get_owner_tag(request), qrvcam_fdsan_create_tag(tagOf(request), 1));
    int other = -1;
    EXPECT_EQ(System::Close(request, tagOf(other)), -EBADF);
    EXPECT_EQ(System::Close(request, tagOf(request)), 0);
}

// --- Timing of the queue calls -------------------------------------------------------------

// Child: a slow (5 ms) and a fast QBUF and queue at details level 4, then a slow pair at level 1.
// Prints the lines it logged: "A|<priority>|<text>", then "U|<level>|<text>".
TEST(DeviceTimingChild, DISABLED_QueueCalls) {
    korvtest::ScopedSwitches switches;
    switches.mode(0x3).details(4);
    korvtest::AndroidLogCapture log;
    korvtest::ULogCapture ulog;
    auto queuePair = [](int delayMs) {
        ScriptedIoctl script(0, 0, std::chrono::milliseconds(delayMs));
        EXPECT_EQ(System::QueueVideoNodeBuf(kFd, &gBuffer), 0);
        EXPECT_EQ(System::QueueMediaRequest(kFd + 1), 0);
    };
    queuePair(5);
    queuePair(0);
    switches.details(1);
    queuePair(5);
    for (auto& record : log.withTag(kTag)) {
        printf("A|%d|%s\n", record.priority, record.text.c_str());
    }
    for (auto& record : ulog.records()) {
        if (record.tag == kTag) printf("U|%u|%s\n", record.level, record.text.c_str());
    }
}

// The child's lines, loaded with the given details level and camera log level (null: unset).
std::vector<std::string> timingLines(char const* detailsLevel, char const* logLevel) {
    std::map<std::string, std::string> properties = {
            {"debug.qrvcam.ulog.detailslevel", detailsLevel}};
    if (logLevel != nullptr) properties["persist.vendor.qrv.camera.log_level"] = logLevel;
    auto child = korvtest::runSelfChild("DeviceTimingChild.DISABLED_QueueCalls", properties);
    EXPECT_TRUE(child.exited && child.exitCode == 0) << child.out << child.err;
    std::vector<std::string> lines;
    std::istringstream out(child.out);
    for (std::string line; std::getline(out, line);) {
        if (line.rfind("A|", 0) == 0 || line.rfind("U|", 0) == 0) lines.push_back(line);
    }
    return lines;
}

// The nanoseconds of a warning "<prefix><ns> ns", or -1 when the line is not one.
long long takesNs(std::string const& line, std::string const& prefix) {
    if (line.rfind(prefix, 0) != 0 || line.size() < prefix.size() + 4 ||
        line.compare(line.size() - 3, 3, " ns") != 0) {
        return -1;
    }
    std::string digits = line.substr(prefix.size(), line.size() - 3 - prefix.size());
    if (digits.find_first_not_of("0123456789") != std::string::npos) return -1;
    return std::stoll(digits);
}

TEST(DeviceTiming, SlowQueueCallsWarnWhenTimingWasOnAtLoad) {
    std::string const qbuf = "[QueueVideoNodeBuf] ioctl(77, VIDIOC_QBUF) takes ";
    std::string const queue = "[QueueMediaRequest] ioctl(78, MEDIA_REQUEST_IOC_QUEUE) takes ";
    for (auto const* logLevel : {static_cast<char const*>(nullptr), "-1", "3"}) {
        SCOPED_TRACE(logLevel == nullptr ? "log level unset" : logLevel);
        // The slow pair at level 4 only: the fast pair is far under 2 ms, the last is gated.
        auto lines = timingLines("4", logLevel);
        ASSERT_EQ(lines.size(), 4u) << ::testing::PrintToString(lines);
        EXPECT_GT(takesNs(lines[0], "A|5|" + qbuf), 2000000) << lines[0];
        EXPECT_GT(takesNs(lines[1], "A|5|" + queue), 2000000) << lines[1];
        EXPECT_GT(takesNs(lines[2], "U|2|" + qbuf), 2000000) << lines[2];
        EXPECT_GT(takesNs(lines[3], "U|2|" + queue), 2000000) << lines[3];
    }
}

TEST(DeviceTiming, NothingIsTimedUnlessTheLoadTimeSwitchesAskedForIt) {
    for (auto const* logLevel : {"0", "1", "2"}) {
        EXPECT_TRUE(timingLines("4", logLevel).empty()) << logLevel;
    }
    // Details level 3 at load: raising it to 4 before the calls does not switch timing on.
    EXPECT_TRUE(timingLines("3", nullptr).empty());
}

// --- Real device nodes, where the machine has them -----------------------------------------

std::string firstNode(char const* prefix) {
    std::string node;
    DIR* dir = opendir("/dev");
    while (dir != nullptr && node.empty()) {
        dirent* entry = readdir(dir);
        if (entry == nullptr) break;
        if (strncmp(entry->d_name, prefix, strlen(prefix)) == 0)
            node = "/dev/" + std::string(entry->d_name);
    }
    if (dir != nullptr) closedir(dir);
    return node;
}

TEST(RealDeviceDeathTest, VideoNodeWithoutEventsEndsTheProcessOnDQueueEvent) {
    std::string node = firstNode("video");
    if (node.empty()) GTEST_SKIP() << "no /dev/video* node";
    int fd = -1;
    fd = System::Open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC, tagOf(fd));
    if (fd < 0) GTEST_SKIP() << node << " cannot be opened: " << fd;
    v4l2_capability capability = {};
    EXPECT_EQ(System::Ioctl(fd, static_cast<int>(VIDIOC_QUERYCAP), &capability, 1), 0);
    // Nothing subscribed, so the event queue is empty.
    EXPECT_EXIT(System::DQueueEvent(fd, &gEvent), ::testing::KilledBySignal(SIGTERM),
                ::testing::HasSubstr("VIDIOC_DQEVENT err=-2(No such file or directory)"));
    EXPECT_EQ(System::Close(fd, tagOf(fd)), 0);
}

TEST(RealDeviceDeathTest, MediaNodeAllocatesAnOwnedRequestOrEndsTheProcess) {
    std::string node = firstNode("media");
    if (node.empty()) GTEST_SKIP() << "no /dev/media* node";
    int fd = -1;
    fd = System::Open(node.c_str(), O_RDWR | O_CLOEXEC, tagOf(fd));
    if (fd < 0) GTEST_SKIP() << node << " cannot be opened: " << fd;
    auto child = korvtest::runInChild([fd] {
        int request = -1;
        request = System::AllocMediaRequest(fd, tagOf(request));
        bool owned =
                qrvcam_fdsan_get_owner_tag(request) == qrvcam_fdsan_create_tag(tagOf(request), 1);
        printf("owned=%d close=%d\n", owned, System::Close(request, tagOf(request)));
    });
    if (child.exited) {
        EXPECT_EQ(child.out, "owned=1 close=0\n");
    } else {  // a driver without request support refuses the allocation
        EXPECT_EQ(child.signal, SIGTERM);
        EXPECT_NE(child.err.find("MEDIA_IOC_REQUEST_ALLOC err="), std::string::npos) << child.err;
    }
    EXPECT_EQ(System::Close(fd, tagOf(fd)), 0);
}

}  // namespace
