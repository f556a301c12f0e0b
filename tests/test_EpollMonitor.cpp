// Event monitor: registration and its table, the state texts, fatal paths, trace sections, and the
// running side (dispatch, exit handshake, readyToRun, signals, re-entry). Where the order matters
// the monitor is stepped on the test thread. Delivery under concurrent use is left to the
// reliability tests.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvalite/EpollMonitor.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/KorvTest.h"

namespace NSCam::NSKorvalite {
namespace {

using korvtest::waitFor;

// A descriptor (its own eventfd unless given one, closed only if owned); onEvent() drains it,
// records what it got and runs `hook`.
struct FdObserver : IEventObserver {
    explicit FdObserver(int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), bool owns = true)
        : mFd(fd), mOwns(owns) {}
    ~FdObserver() override {
        if (mOwns) close(mFd);
    }
    int getEventFD() const override { return mFd; }
    void onEvent(OnEvent const& event) override {
        uint64_t value;
        ssize_t n = read(mFd, &value, sizeof(value));
        (void)n;
        last = event;
        if (hook) hook(event);
        calls++;
    }
    void signal() {
        uint64_t one = 1;
        ASSERT_EQ(write(mFd, &one, sizeof(one)), 8);
    }
    int const mFd;
    bool const mOwns;
    std::function<void(OnEvent const&)> hook;  // set before attaching
    OnEvent last{};
    std::atomic<int> calls{0};
};

std::shared_ptr<EpollMonitor> makeMonitor(char const* name = "abc") {
    return std::static_pointer_cast<EpollMonitor>(IEpollMonitor::make(name));
}

std::string addr(void const* p) {
    std::ostringstream os;
    os << p;
    return os.str();
}

int epollFdOf(EpollMonitor const& monitor) {
    std::string config = monitor.toString_config();
    return std::stoi(config.substr(config.find(".mEpollFd=") + 10));
}

// The epoll set as the kernel reports it: descriptor -> (events, user pointer).
using EpollSet = std::map<int, std::pair<uint32_t, void*>>;
EpollSet epollSet(EpollMonitor const& monitor) {
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(epollFdOf(monitor)));
    EpollSet set;
    int fd;
    unsigned events;
    unsigned long long data;
    for (std::string line; std::getline(in, line);) {
        if (sscanf(line.c_str(), "tfd: %d events: %x data: %llx", &fd, &events, &data) == 3) {
            set[fd] = {events & ~(EPOLLERR | EPOLLHUP), reinterpret_cast<void*>(data)};
        }
    }
    return set;
}

std::atomic<int> gSignals{0};

// Sends SIGUSR1 to thread `tid` once it waits in epoll, and waits until it was handled.
void interruptEpollWait(int tid) {
    auto waiting = [&] {
        std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/wchan");
        std::string function;
        return in >> function && function == "do_epoll_wait";
    };
    int const before = gSignals;
    ASSERT_TRUE(waitFor(waiting));
    ASSERT_EQ(syscall(SYS_tgkill, getpid(), tid, SIGUSR1), 0);
    ASSERT_TRUE(waitFor([&] { return gSignals > before; }));
}

// Many threads register distinct descriptors at once: afterwards the table, the kernel's epoll set
// and the counters agree on exactly who is attached, with which events and which observer.
TEST(EpollMonitor, ConcurrentRegistrationKeepsTableEpollSetAndCountersInStep) {
    constexpr int kThreads = 8, kPerThread = 4, kCycles = 200;
    auto monitor = makeMonitor("stress");
    std::vector<std::unique_ptr<FdObserver>> observers;
    for (int i = 0; i < kThreads * kPerThread; ++i)
        observers.push_back(std::make_unique<FdObserver>());
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int cycle = 0; cycle < kCycles; ++cycle) {
                for (int k = 0; k < kPerThread; ++k) {
                    FdObserver* observer = observers[t * kPerThread + k].get();
                    monitor->attach(observer, EPOLLIN);
                    monitor->modify(observer, EPOLLIN | EPOLLET);
                    // The last cycle leaves every other observer attached.
                    if (cycle + 1 < kCycles || k % 2 == 0) monitor->detach(observer);
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();

    int const attached = kThreads * kPerThread / 2;
    int const attaches = kThreads * kPerThread * kCycles;
    EXPECT_EQ(monitor->determineFdObserverCount(), attached);
    std::string const runtime = monitor->toString_runtime();
    EXPECT_NE(runtime.find("#attach=" + std::to_string(attaches) +
                           " #detach=" + std::to_string(attaches - attached)),
              std::string::npos)
            << runtime;
    EpollSet expected{
            {monitor->getEventFD(), {EPOLLIN, static_cast<IEventObserver*>(monitor.get())}}};
    for (size_t i = 0; i < observers.size(); ++i) {
        FdObserver* observer = observers[i].get();
        std::string const entry = "(" + std::to_string(observer->mFd) + ", " + addr(observer) + ")";
        bool const isAttached = i % 2 == 1;
        EXPECT_EQ(runtime.find(entry) != std::string::npos, isAttached) << entry << runtime;
        if (isAttached) expected[observer->mFd] = {EPOLLIN | EPOLLET, observer};
    }
    EXPECT_EQ(epollSet(*monitor), expected);
    for (size_t i = 1; i < observers.size(); i += 2) monitor->detach(observers[i].get());
}

// One monitor through its registration history: descriptors 43 to 45 reproduce the documented
// runtime text.
TEST(EpollMonitor, RegistrationTableTextsAndDescriptors) {
    EXPECT_EQ(makeMonitor(nullptr)->getName(), "P2DrvEP-?");
    for (int fd : {43, 44, 45}) {
        if (fcntl(fd, F_GETFD) != -1) GTEST_SKIP() << "descriptor " << fd << " is in use";
    }
    for (int fd : {43, 44, 45}) {
        int source = eventfd(0, EFD_CLOEXEC);
        ASSERT_EQ(dup2(source, fd), fd);
        close(source);
    }
    FdObserver a(43, false), b(44), c(45);
    FdObserver sameAsB(44, false);  // observers are known by descriptor alone
    auto entry = [](uint32_t events, IEventObserver* o) {
        return std::make_pair(events, static_cast<void*>(o));
    };
    korvtest::AndroidLogCapture log;
    std::set<int> before = korvtest::openFds();
    before.erase(43);  // closed behind the monitor's back below
    {
        auto monitor = makeMonitor();
        int const wake = monitor->getEventFD();
        EXPECT_EQ(monitor->getName(), "P2DrvEP-abc");
        EXPECT_EQ(monitor->toString_config(),
                  "{ P2DrvEP-abc .mEpollFd=" + std::to_string(epollFdOf(*monitor)) +
                          " .mEventFd=" + std::to_string(wake) + " }");
        EXPECT_EQ(monitor->toString_runtime(),
                  "{ #attach=0 #detach=0 .mActive=1 .mFdObserverMap={ } }");
        EXPECT_TRUE((fcntl(wake, F_GETFL) & O_NONBLOCK) && (fcntl(wake, F_GETFD) & FD_CLOEXEC));
        // Level-triggered, the monitor's own observer side as user pointer, not in the table.
        EXPECT_EQ(epollSet(*monitor), (EpollSet{{wake, entry(EPOLLIN, monitor.get())}}));

        monitor->attach(&a, EPOLLIN);
        EXPECT_EQ(epollSet(*monitor)[43], entry(EPOLLIN, &a));
        monitor->detach(&a);
        EXPECT_EQ(epollSet(*monitor).count(43), 0u);
        EXPECT_EQ(monitor->toString_runtime(),
                  "{ #attach=1 #detach=1 .mActive=1 .mFdObserverMap={ detach=[ 43 ] } }");
        monitor->attach(&b, EPOLLIN | EPOLLET);
        monitor->modify(&sameAsB, EPOLLIN);  // changes the registration, not the table
        EXPECT_EQ(epollSet(*monitor)[44], entry(EPOLLIN, &sameAsB));
        monitor->attach(&c, EPOLLIN);
        EXPECT_EQ(monitor->determineFdObserverCount(), 2);
        EXPECT_EQ(monitor->toString_runtime(),
                  "{ #attach=3 #detach=1 .mActive=1 .mFdObserverMap={ attach=[ (44, " + addr(&b) +
                          ") (45, " + addr(&c) + ") ] detach=[ 43 ] } }");
        monitor->detach(&sameAsB);
        EXPECT_EQ(epollSet(*monitor).count(44), 0u);
        monitor->attach(&a, EPOLLIN);

        // Closed behind the monitor's back: the kernel dropped it already; the detach still counts.
        close(43);
        monitor->detach(&a);
        EXPECT_EQ(log.count("korvalite-EpollMonitor",
                            "[operator()] EPOLL_CTL_DEL fd=43 err=-9(Bad file descriptor) "
                            "(operator()){#275:src/utils/sys/EpollMonitor}"),
                  1u);
        EXPECT_EQ(monitor->toString_runtime().rfind("{ #attach=4 #detach=3 .mActive=1 ", 0), 0u);
    }
    EXPECT_EQ(korvtest::openFds(), before);  // c, still attached, is not the monitor's to close
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

std::string source(char const* function, int line) {
    return std::string(" (") + function + "){#" + std::to_string(line) +
           ":src/utils/sys/EpollMonitor}\n";
}

TEST(EpollMonitorDeath, Faults) {
    FdObserver first;
    FdObserver second(first.mFd, false);
    FdObserver unknown(555, false);
    std::string const fd = std::to_string(first.mFd);
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
             "attachP2DrvEP-abc: logv:0 { P2DrvEP-abc .mEpollFd=",
             "attach    { #attach=2 #detach=0 .mActive=1 .mFdObserverMap={ attach=[ (" + fd + ", " +
                     addr(&first) + ") ] } }\n",
             "[attach] FATAL" + source("attach", 225)});
    expectAbort(
            [&] { makeMonitor()->detach(&unknown); },
            {"detach(555, " + addr(&unknown) + ") not found\n", "detachP2DrvEP-abc: logv:0 {",
             "detach    { #attach=0 #detach=0 .mActive=1 .mFdObserverMap={ detach=[ 555 ] } }\n",
             "[detach] FATAL" + source("detach", 283)});
    expectAbort([&] { makeMonitor()->modify(&first, EPOLLIN); },
                {"modifyP2DrvEP-abc: logv:0 {",
                 "modify    { #attach=0 #detach=0 .mActive=1 .mFdObserverMap={ } }\n",
                 "[modify] FATAL" + source("modify", 249)});

    first.hook = [](IEventObserver::OnEvent const&) { fprintf(stderr, "dispatched\n"); };
    expectAbort(
            [&] {  // the entries before the null one are dispatched
                epoll_event events[3] = {};
                events[0].data.ptr = events[2].data.ptr = static_cast<IEventObserver*>(&first);
                makeMonitor()->handleEvents(events, 3);
            },
            {"dispatched\n", "[handleEvents] Bad observer" + source("handleEvents", 475)});
    expectAbort(
            [] {  // a file that is no epoll instance, under the monitor's epoll descriptor
                auto monitor = makeMonitor();
                dup2(open("/dev/null", O_RDONLY), epollFdOf(*monitor));
                monitor->tryEpoll(0);
            },
            {"[tryEpoll] err=-22(Invalid argument)" + source("tryEpoll", 416)});
}

// The trace bits are read when the library loads, so child processes with bits set run the
// sections; the names and their nesting are compared here.
TEST(EpollMonitorTrace, DISABLED_Child) {
    auto monitor = makeMonitor();
    FdObserver observer;
    printf("fds %d %d\n", observer.mFd, monitor->getEventFD());
    monitor->attach(&observer, EPOLLIN);
    monitor->modify(&observer, EPOLLIN | EPOLLET);
    observer.signal();
    monitor->tryEpoll(-1);
    monitor->detach(&observer);
    monitor->requestExit();
    monitor->tryEpoll(-1);
    monitor.reset();
    makeMonitor(std::string(120, 'x').c_str())->requestExit();
}

TEST(EpollMonitorTrace, SectionsCountersAndSlices) {
    int fd = -1;
    int wake = -1;
    auto traced = [&](char const* bits) {
        korvtest::TempDir dir;
        std::string marker = dir.path() + "/trace";
        korvtest::ChildResult child =
                korvtest::runSelfChild("EpollMonitorTrace.DISABLED_Child",
                                       {{"persist.vendor.camera.korvalite.tracebits", bits},
                                        {"debug.atrace.tags.enableflags", "0x400"},
                                        {"debug.atrace.marker_file", marker}});
        EXPECT_TRUE(child.exited && child.exitCode == 0) << child.err;
        sscanf(child.out.substr(child.out.find("fds ")).c_str(), "fds %d %d", &fd, &wake);
        return korvtest::traceEvents(marker);
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
            "B|~EpollMonitor", "E",
            // A formatted name that does not fit in 128 bytes is left empty, not cut.
            "B|EpollMonitor", "E",
            "B|", "B|sendInterruptEvent", "E", "E",
            "B|~EpollMonitor", "E"};
    // clang-format on
    EXPECT_EQ(events, expected);
}

// readyToRun() applies the policy and priority of the properties only when the handler gave
// neither and the thread is not one of the customer's; the platform's per-thread settings always.
TEST(EpollMonitor, ReadyToRunPolicy) {
    korvtest::AndroidLogCapture log;
    auto monitor = makeMonitor("abc");
    int const ownNice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
    {  // Here SCHED_OTHER at nice 6.
        korvtest::ScopedProperty policy("persist.vendor.camera.korvalite.EpollMonitor.threadpolicy",
                                        "0");
        korvtest::ScopedProperty priority(
                "persist.vendor.camera.korvalite.EpollMonitor.threadpriority", "6");
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
            log.clear();
            std::thread([&] {
                EXPECT_EQ(monitor->readyToRun(c.record), 0);
                EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
                EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())), c.nice)
                        << c.uad << " " << c.record.threadName;
            }).join();
            std::string name = c.record.threadName.empty() ? "P2DrvEP-abc" : c.record.threadName;
            EXPECT_EQ(log.count("qrvcam-perfctrl", "customizeThreadReadyToRun(name=" + name + ","),
                      1u);
        }
    }
    // Without properties: SCHED_RR at 1 (the platform says so where it is not granted).
    std::thread([&] {
        monitor->readyToRun(IThreadLoop::ReadyToRun{"", INT_MIN, INT_MIN});
        sched_param param{};
        sched_getparam(0, &param);
        EXPECT_TRUE((sched_getscheduler(0) == SCHED_RR && param.sched_priority == 1) ||
                    log.count("qrvcam-utils", "setThreadPriority(policy=2, priority=1)") == 1);
    }).join();
}

// The running side, first on a thread of its own as a handler runs it, then stepped on the test
// thread: an interrupted wait (-2) does not end the loop; observers are called on the loop's
// thread and may re-register themselves from onEvent(); the loop ends after the batch that
// carries the wake-up of requestExit(), and such a batch is dispatched whole.
TEST(EpollMonitor, LoopDispatchReentryAndExitHandshake) {
    korvtest::ScopedSwitches switches;
    switches.details(3);
    korvtest::AndroidLogCapture log;
    auto logged = [&](std::string const& text) {
        return log.count("korvalite-EpollMonitor", text);
    };
    std::shared_ptr<EpollMonitor> monitor;
    {
        korvtest::ScopedProperty logv("persist.vendor.camera.korvalite.EpollMonitor.logv", "1");
        monitor = makeMonitor("loop");
    }
    FdObserver observer;
    std::string const fd = std::to_string(observer.mFd);
    int seenOn = 0;
    observer.hook = [&](IEventObserver::OnEvent const& event) {
        seenOn = static_cast<int>(gettid());
        event.monitor->modify(&observer, EPOLLIN | EPOLLET);
        event.monitor->detach(&observer);
        event.monitor->attach(&observer, EPOLLIN);
    };
    monitor->attach(&observer, EPOLLIN);
    EXPECT_EQ(monitor->tryEpoll(0), 0);

    auto previous = signal(SIGUSR1, [](int) { gSignals++; });  // epoll_wait is never restarted
    std::atomic<int> tid{0};
    int interrupted = 0;
    std::thread loop([&] {
        tid = static_cast<int>(gettid());
        interrupted = monitor->tryEpoll(-1);
        EXPECT_FALSE(monitor->threadLoop());
    });
    EXPECT_TRUE(waitFor([&] { return tid != 0; }));
    interruptEpollWait(tid);  // the first wait
    interruptEpollWait(tid);  // the loop's
    for (int i = 1; i <= 100; ++i) {
        observer.signal();
        ASSERT_TRUE(waitFor([&] { return observer.calls == i; }));  // no deadlock
    }
    EXPECT_EQ(observer.last.monitor, static_cast<IEpollMonitor*>(monitor.get()));
    EXPECT_EQ(observer.last.events, uint32_t{EPOLLIN});
    EXPECT_EQ(seenOn, tid);
    monitor->requestExit();
    loop.join();
    signal(SIGUSR1, previous);
    EXPECT_EQ(interrupted, -2);
    // One wake-up, drained by the loop, whose last line shows it stopped.
    EXPECT_EQ(logged("[isInterruptEvent] P2DrvEP-loop: 0x40"), 1u);
    uint64_t value;
    EXPECT_EQ(read(monitor->getEventFD(), &value, sizeof(value)), -1);
    std::string const config = monitor->toString_config();
    EXPECT_EQ(logged("[threadLoop] + " + config + " { #attach="), 1u);
    EXPECT_EQ(logged("[threadLoop] - " + config +
                     " { #attach=101 #detach=100 .mActive=0 "
                     ".mFdObserverMap={ attach=[ (" +
                     fd + ", " + addr(&observer) + ") ] } }"),
              1u);
    EXPECT_EQ(logged("[attach] (" + fd + ", " + addr(&observer) + ")"), 101u);
    EXPECT_EQ(logged("[handleEvents] + fd=" + fd + " events=0x1 observer=" + addr(&observer) +
                     " { P2DrvEP-loop "),
              100u);
    EXPECT_EQ(logged("[handleEvents] - fd=" + fd + " events=0x1"), 100u);

    // Stopped: the batch that carries the wake-up is still dispatched whole, and the loop
    // returns without waiting.
    observer.signal();
    monitor->requestExit();
    EXPECT_EQ(monitor->tryEpoll(-1), 1);
    EXPECT_EQ(observer.calls, 101);
    EXPECT_EQ(logged("[isInterruptEvent] P2DrvEP-loop: 0x40"), 2u);
    EXPECT_FALSE(monitor->threadLoop());
    // Only EPOLLIN drains, all requests at once; a drain that finds nothing says so.
    monitor->requestExit();
    monitor->requestExit();
    EXPECT_FALSE(monitor->isInterruptEvent(EPOLLERR | EPOLLHUP));
    EXPECT_TRUE(monitor->isInterruptEvent(EPOLLIN));
    EXPECT_EQ(logged("[isInterruptEvent] P2DrvEP-loop: 0x80"), 1u);
    EXPECT_FALSE(monitor->isInterruptEvent(EPOLLIN));
    EXPECT_EQ(logged("[isInterruptEvent] P2DrvEP-loop: read(" +
                     std::to_string(monitor->getEventFD()) + ") returns -11 != 8"),
              1u);
    monitor->detach(&observer);
}

}  // namespace
}  // namespace NSCam::NSKorvalite
