// Event monitor: registration and its table, the state texts, every log line, fatal paths, trace
// sections and the running side. The loop is stepped on the test thread wherever order matters.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <climits>
#include <thread>

#include "support/KorvTest.h"

namespace NSCam::NSKorvalite {
namespace {

using korvtest::addr;
using Observer = korvtest::EventFdObserver;

// An observer of a descriptor it does not own, never called.
struct FdOnly : IEventObserver {
    explicit FdOnly(int fd) : mFd(fd) {}
    int getEventFD() const override { return mFd; }
    void onEvent(OnEvent const&) override {}
    int const mFd;
};

// Verbose or with the switch's default.
std::shared_ptr<EpollMonitor> makeMonitor(char const* name = "abc", bool logv = false) {
    korvtest::ScopedProperty property("persist.vendor.camera.korvalite.EpollMonitor.logv",
                                      logv ? "1" : "");
    return std::static_pointer_cast<EpollMonitor>(IEpollMonitor::make(name));
}

// The suffix that error and fatal lines carry.
std::string source(char const* function, int line) {
    return std::string(" (") + function + "){#" + std::to_string(line) +
           ":src/utils/sys/EpollMonitor}";
}

// One monitor through its registration history: descriptors 43 to 45 reproduce the documented
// runtime text. The texts keep their digits ungrouped whatever the client's locale.
TEST(EpollMonitor, RegistrationTableTextsAndDescriptors) {
    EXPECT_EQ(makeMonitor(nullptr)->getName(), "P2DrvEP-?");
    for (int fd : {43, 44, 45}) {
        int source = eventfd(0, EFD_CLOEXEC);
        ASSERT_EQ(fcntl(source, F_DUPFD_CLOEXEC, fd), fd) << "descriptor " << fd << " is in use";
        close(source);
    }
    FdOnly a(43), b(44), c(45), sameAsB(44);  // observers are known by descriptor alone
    korvtest::ScopedSwitches switches(0x1, 2);
    korvtest::AndroidLogCapture log;
    korvtest::ScopedGroupingLocale grouping;
    auto monitor = makeMonitor();
    monitor->attach(&a, EPOLLIN);
    monitor->detach(&a);
    monitor->attach(&b, EPOLLIN);
    monitor->modify(&sameAsB, EPOLLIN | EPOLLET);  // changes the registration, not the table
    monitor->attach(&c, EPOLLIN);
    EXPECT_EQ(monitor->toString_runtime(),
              "{ #attach=3 #detach=1 .mActive=1 .mFdObserverMap={ attach=[ (44, " + addr(&b) +
                      ") (45, " + addr(&c) + ") ] detach=[ 43 ] } }");
    monitor->detach(&sameAsB);
    monitor->attach(&a, EPOLLIN);  // refused by the kernel had the detach left 43 in the set
    // Closed behind the monitor's back: the kernel dropped it already; the detach still counts.
    close(43);
    monitor->detach(&a);
    EXPECT_EQ(log.texts("korvalite-EpollMonitor"),
              std::vector<std::string>{
                      "[operator()] EPOLL_CTL_DEL fd=43 err=-9(Bad file descriptor)" +
                      source("operator()", 275)});
    EXPECT_EQ(monitor->toString_runtime().rfind("{ #attach=4 #detach=3 .mActive=1 ", 0), 0u);
    close(44);
    close(45);
}

// Every line the monitor logs, in order, from one stepped history: made, attach, modify, one
// batch whose observer asks the loop to stop, detaches itself, attaches another and deletes itself
// (the line after its callback still names its descriptor), detach, the drain of the wake-up, a
// drain that finds nothing, a wake-up the eventfd cannot take, destruction. Which lines appear
// depends on the monitor's verbose switch and the details level.
TEST(EpollMonitor, LogLinesFollowVerboseSwitchAndDetailsLevel) {
    struct Case {
        bool logv;
        uint32_t details;
    } const cases[] = {{true, 3}, {false, 3}, {true, 2}, {true, 5}};
    for (Case const& c : cases) {
        korvtest::ScopedSwitches switches(0x1, c.details);
        switches.mask(0xffffffff);
        korvtest::AndroidLogCapture log;
        auto monitor = makeMonitor("steps", c.logv);
        std::vector<std::string> expected;
        auto line = [&](uint32_t level, bool verbose, std::string const& text) {
            if (level <= c.details && (c.logv || !verbose)) expected.push_back(text);
        };
        std::string const config = monitor->toString_config(),
                          side = addr(static_cast<IEventObserver*>(monitor.get())),
                          wake = std::to_string(monitor->getEventFD());
        auto state = [&] { return config + " " + monitor->toString_runtime(); };
        line(3, false, "[EpollMonitor] this(" + addr(monitor.get()) + " " + side + ") " + state());
        auto first = std::make_unique<Observer>();
        Observer second;
        std::string const fd = std::to_string(first->fd), observer = addr(first.get()),
                          at = "(" + fd + ", " + observer + ")",
                          atSecond = "(" + std::to_string(second.fd) + ", " + addr(&second) + ")";
        monitor->attach(first.get(), EPOLLIN);
        monitor->modify(first.get(), EPOLLIN);
        line(3, true, "[attach] " + at);
        line(3, true, "[modify] " + at);
        std::string const running = state();
        std::string stopped;
        first->hook = [&](IEventObserver::OnEvent const& event) {
            static_cast<EpollMonitor*>(event.monitor)->requestExit();
            stopped = state();
            event.monitor->detach(first.get());
            event.monitor->attach(&second, EPOLLIN);
            first.reset();  // last: the hook goes with it
        };
        first->signal();
        EXPECT_FALSE(monitor->threadLoop());
        line(3, false, "[threadLoop] + " + running);
        line(3, true,
             "[handleEvents] + fd=" + fd + " events=0x1 observer=" + observer + " " + running);
        line(3, false, "[requestExit] + " + running);
        line(3, false, "[requestExit] - " + stopped);
        line(3, true, "[detach] " + at);
        line(3, true, "[attach] " + atSecond);
        line(3, true, "[handleEvents] - fd=" + fd + " events=0x1");
        line(3, false, "[threadLoop] - " + state());
        monitor->detach(&second);
        line(3, true, "[detach] " + atSecond);
        line(3, true,
             "[handleEvents] + fd=" + wake + " events=0x1 observer=" + side + " " + state());
        EXPECT_EQ(monitor->tryEpoll(-1), 1);  // the wake-up, left by the loop
        line(3, false, "[isInterruptEvent] P2DrvEP-steps: 0x40");
        line(3, true, "[handleEvents] - fd=" + wake + " events=0x1");
        EXPECT_FALSE(monitor->isInterruptEvent(EPOLLIN));
        line(2, false, "[isInterruptEvent] P2DrvEP-steps: read(" + wake + ") returns -11 != 8");
        uint64_t nearlyFull = UINT64_MAX - 64;  // 64 more does not fit
        ASSERT_EQ(write(monitor->getEventFD(), &nearlyFull, 8), 8);
        monitor->sendInterruptEvent();
        line(1, false,
             "[sendInterruptEvent] write(" + wake + ") returns -11 != 8" +
                     source("sendInterruptEvent", 432));
        line(3, false, "[~EpollMonitor] " + state());
        monitor.reset();
        EXPECT_EQ(log.texts("korvalite-EpollMonitor"), expected) << c.logv << " " << c.details;
    }
}

// Fatal paths: the documented lines in order, the assertion last. The child is forked without
// exec, so objects made here have the same addresses there.
void expectAbort(std::function<void()> const& body, std::vector<std::string> const& lines) {
    korvtest::ChildResult result = korvtest::runInChild(body);
    EXPECT_EQ(result.signal, SIGABRT) << result.err;
    // qemu-user adds a line of its own about the signal.
    std::string err = result.err.substr(0, result.err.find("qemu: uncaught target signal"));
    size_t at = 0;
    for (std::string const& line : lines) {
        at = err.find(line, at);
        ASSERT_NE(at, std::string::npos) << "missing, or out of order: " << line << "\n" << err;
    }
    // liblog prints the assertion's message once bare, then as a record: nothing after that.
    EXPECT_EQ(err.find('\n', err.find(lines.back(), at + 1)), err.size() - 1) << err;
}

TEST(EpollMonitorDeath, Faults) {
    Observer first;
    FdOnly second(first.fd), unknown(555);
    std::string const fd = std::to_string(first.fd);
    // The descriptor limit lets the monitor open `allowed` more descriptors.
    auto withDescriptors = [](int allowed) {
        int lowest = dup(0);
        close(lowest);
        rlimit limit{static_cast<rlim_t>(lowest + allowed), static_cast<rlim_t>(lowest + allowed)};
        setrlimit(RLIMIT_NOFILE, &limit);
        makeMonitor();
    };
    expectAbort([&] { withDescriptors(0); },
                {"[EpollMonitor] Failed on create epoll fd:-24" + source("EpollMonitor", 144)});
    expectAbort([&] { withDescriptors(1); },
                {"[EpollMonitor] Failed on create event fd:-24" + source("EpollMonitor", 150)});
    expectAbort(
            [&] {
                auto monitor = makeMonitor();
                monitor->attach(&first, EPOLLIN);
                monitor->attach(&second, EPOLLIN);
            },
            {"attach(" + fd + ", " + addr(&second) + ") has existed\n",
             "attachP2DrvEP-abc: logv:0 { P2DrvEP-abc .mEpollFd=", " .mEventFd=", " }\n",
             "attach    { #attach=2 #detach=0 .mActive=1 .mFdObserverMap={ attach=[ (" + fd + ", " +
                     addr(&first) + ") ] } }\n",
             "[attach] FATAL" + source("attach", 225)});
    expectAbort(
            [&] { makeMonitor()->detach(&unknown); },
            {"detach(555, " + addr(&unknown) + ") not found\n", "detachP2DrvEP-abc: logv:0 {",
             "detach    { #attach=0 #detach=0 .mActive=1 .mFdObserverMap={ detach=[ 555 ] } }\n",
             "[detach] FATAL" + source("detach", 283)});
    expectAbort([&] { makeMonitor()->modify(&first, EPOLLIN); },
                {"modify    { #attach=0 #detach=0 .mActive=1 .mFdObserverMap={ } }\n",
                 "[modify] FATAL" + source("modify", 249)});
    first.hook = [](IEventObserver::OnEvent const&) { fprintf(stderr, "dispatched\n"); };
    expectAbort(
            [&] {  // the entries before the null one are dispatched
                epoll_event events[3] = {};
                events[0].data.ptr = events[2].data.ptr = static_cast<IEventObserver*>(&first);
                first.signal();
                makeMonitor()->handleEvents(events, 3);
            },
            {"dispatched\n", "[handleEvents] Bad observer" + source("handleEvents", 475)});
    expectAbort(
            [] {  // a file that is no epoll instance, under the monitor's epoll descriptor
                auto monitor = makeMonitor();
                std::string config = monitor->toString_config();
                dup2(open("/dev/null", O_RDONLY), std::stoi(config.substr(config.find("Fd=") + 3)));
                monitor->tryEpoll(0);
            },
            {"[tryEpoll] err=-22(Invalid argument)" + source("tryEpoll", 416)});
}

// The trace bits are read when the library loads, so child processes with bits set run the
// sections; the names and their nesting are compared here.
TEST(EpollMonitorTrace, DISABLED_Child) {
    auto monitor = makeMonitor();
    Observer observer;
    printf("fds %d %d\n", observer.fd, monitor->getEventFD());
    monitor->attach(&observer, EPOLLIN);
    monitor->modify(&observer, EPOLLIN | EPOLLET);
    observer.signal();
    monitor->tryEpoll(-1);
    monitor->detach(&observer);
    monitor->requestExit();
    monitor->tryEpoll(-1);
}

TEST(EpollMonitorTrace, SectionsCountersAndSlices) {
    int fd = -1, wake = -1;
    auto traced = [&](char const* bits) {
        korvtest::TempDir dir;
        std::string const out =
                korvtest::runSelfChild("EpollMonitorTrace.DISABLED_Child",
                                       {{"persist.vendor.camera.korvalite.tracebits", bits},
                                        {"debug.atrace.tags.enableflags", "0x400"},
                                        {"debug.atrace.marker_file", dir.path() + "/trace"}})
                        .out;
        sscanf(out.substr(out.find("fds ")).c_str(), "fds %d %d", &fd, &wake);
        return korvtest::traceEvents(dir.path() + "/trace");
    };
    // detach answers to bit 14 alone, attach and modify to bit 10 alone.
    EXPECT_EQ(traced("0x4000"), (std::vector<std::string>{"B|P2DrvEP-abc::detachObserver",
                                                          "B|fetch observer", "E", "E"}));
    std::vector<std::string> const events = traced("0x3000003410");
    std::string const n = std::to_string(fd);
    // One monitor operation a line.
    // clang-format off
    std::vector<std::string> const expected = {
            "B|EpollMonitor", "E",
            "B|P2DrvEP-abc::attachObserver", "B|fetch_add", "E",
                    "C|P2DrvEP-abc-#FdObserverCount|1", "B|fetch observer", "E",
                    "S|P2DrvEP-abc-FdObserver|" + n, "E",
            "B|P2DrvEP-abc::modifyObserver", "E",
            "B|tryEpoll", "B|handleEvents", "B|NOTIFY_READY fd:" + n, "E", "E", "E",
            "C|P2DrvEP-abc-#FdObserverCount|0", "F|P2DrvEP-abc-FdObserver|" + n,
            "B|P2DrvEP-abc::requestExit", "B|sendInterruptEvent", "E", "E",
            "B|tryEpoll", "B|handleEvents", "B|NOTIFY_READY fd:" + std::to_string(wake),
                    "B|isInterruptEvent", "E", "E", "E", "E",
            "B|~EpollMonitor", "E"};
    // clang-format on
    EXPECT_EQ(events, expected);
}

// The running side. readyToRun() applies the policy and priority of the properties only when the
// handler gave neither and the thread is not one of the customer's; the platform's per-thread
// settings always. Each call runs on a thread of its own, which keeps what it was given.
TEST(EpollMonitor, ReadyToRunAndInterruptedWait) {
    korvtest::AndroidLogCapture log;
    auto monitor = makeMonitor();
    // Here SCHED_OTHER at nice 6.
    korvtest::ScopedProperty policy("persist.vendor.camera.korvalite.EpollMonitor.threadpolicy",
                                    "0");
    korvtest::ScopedProperty priority("persist.vendor.camera.korvalite.EpollMonitor.threadpriority",
                                      "6");
    int const ownNice = getpriority(PRIO_PROCESS, 0);  // of the calling thread
    struct Case {
        char const* uad;
        IThreadLoop::ReadyToRun record;
        int nice;
    } const cases[] = {
            {"0", {"", INT_MIN, INT_MIN}, 6},
            {"0", {"named", SCHED_OTHER, INT_MIN}, ownNice},  // given: the handler's business
            {"0", {"named", INT_MIN, 3}, ownNice},
            {"0", {"x-P2DrvEP-y", INT_MIN, INT_MIN}, 6},
            {"1", {"x-P2DrvEP-y", INT_MIN, INT_MIN}, ownNice},  // the customer's threads
            {"1", {"", INT_MIN, INT_MIN}, 6},
    };
    for (Case const& c : cases) {
        korvtest::ScopedProperty uad("debug.qrvcam.uad.enable", c.uad);
        std::thread([&] {
            EXPECT_EQ(monitor->readyToRun(c.record), 0);
            EXPECT_EQ(getpriority(PRIO_PROCESS, 0), c.nice) << c.uad << " " << c.record.threadName;
        }).join();
    }
    // An empty name is the monitor's.
    EXPECT_EQ(log.count("qrvcam-perfctrl", "customizeThreadReadyToRun(name=P2DrvEP-abc,"), 2u);

    // A wait that a signal interrupts reports -2, not -EINTR. The timer repeats in case it fires
    // before the wait begins; the handler stays, harmless.
    signal(SIGALRM, [](int) {});  // epoll_wait is never restarted
    itimerval every{{0, 20000}, {0, 20000}}, off{};
    setitimer(ITIMER_REAL, &every, nullptr);
    EXPECT_EQ(monitor->tryEpoll(-1), -2);
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_EQ(monitor->tryEpoll(0), 0);
}

}  // namespace
}  // namespace NSCam::NSKorvalite
