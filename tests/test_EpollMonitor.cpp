// Event monitor: registration, the descriptor table and its texts, fatal paths, trace sections,
// and the running side (dispatch, exit handshake, readyToRun, signals, re-entry, concurrency).
// Where the order matters the monitor is stepped on the test thread (tryEpoll, handleEvents).

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvalite/EpollMonitor.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

namespace NSCam {
namespace NSKorvalite {
namespace {

// An eventfd of its own; onEvent() drains it, records what it got and runs `hook`.
class FdObserver : public IEventObserver {
public:
    explicit FdObserver(int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) : mFd(fd) {}
    ~FdObserver() override { close(mFd); }
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
    std::function<void(OnEvent const&)> hook;  // set before attaching
    OnEvent last{};
    std::atomic<int> calls{0};
};

// Answers with a number it does not own.
struct NumberObserver : IEventObserver {
    explicit NumberObserver(int fd) : mFd(fd) {}
    int getEventFD() const override { return mFd; }
    void onEvent(OnEvent const&) override {}
    int const mFd;
};

std::shared_ptr<EpollMonitor> makeMonitor(char const* name = "abc") {
    return std::static_pointer_cast<EpollMonitor>(IEpollMonitor::make(name));
}

void* ptr(IEventObserver* observer) {
    return observer;
}

std::string addr(void const* p) {
    std::ostringstream os;
    os << p;
    return os.str();
}

// The epoll set as the kernel reports it: descriptor -> (events, user pointer).
std::map<int, std::pair<uint32_t, void*>> epollSet(EpollMonitor const& monitor) {
    std::string config = monitor.toString_config();
    std::ifstream in("/proc/self/fdinfo/" +
                     std::to_string(std::stoi(config.substr(config.find(".mEpollFd=") + 10))));
    std::map<int, std::pair<uint32_t, void*>> set;
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

// The id of this process's thread named `name`, or 0.
int taskNamed(std::string const& name) {
    int found = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
        std::ifstream in(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string comm;
        if (std::getline(in, comm) && comm == name) found = atoi(entry->d_name);
    }
    if (dir != nullptr) closedir(dir);
    return found;
}

bool inEpollWait(int tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/syscall");
    long number = -1;
    in >> number;
    return number == SYS_epoll_wait || number == SYS_epoll_pwait || number == SYS_epoll_pwait2;
}

// A monitor on a handler thread with a name of its own; stopped, and its thread gone, at the end
// of the scope.
struct RunningMonitor {
    explicit RunningMonitor(char const* name)
        : monitor(makeMonitor(name)), thread("korv-mon-" + std::to_string(sNext++)) {
        handler->setThreadName(thread);
        EXPECT_EQ(handler->run(monitor), 0);
    }
    ~RunningMonitor() { stop(); }
    int tid() const {
        int tid = 0;
        EXPECT_TRUE(korvtest::waitFor([&] { return (tid = taskNamed(thread)) != 0; }));
        return tid;
    }
    void stop() {
        if (!handler) return;
        EXPECT_EQ(handler->requestExitAndWait(), 0);
        handler.reset();
        EXPECT_TRUE(korvtest::waitFor([&] { return taskNamed(thread) == 0; }));
    }

    static inline int sNext = 0;
    std::shared_ptr<EpollMonitor> monitor;
    std::string const thread;
    std::shared_ptr<ThreadLoopHandler> handler = ThreadLoopHandler::make();
};

TEST(EpollMonitor, NamesFreshStateAndOwnDescriptors) {
    EXPECT_EQ(makeMonitor(nullptr)->getName(), "P2DrvEP-?");
    FdObserver observer;
    std::set<int> before = korvtest::openFds();
    {
        auto monitor = makeMonitor();
        EXPECT_EQ(monitor->getName(), "P2DrvEP-abc");
        EXPECT_EQ(monitor->toString_runtime(),
                  "{ #attach=0 #detach=0 .mActive=1 .mFdObserverMap={ } }");
        int eventFd = monitor->getEventFD();
        EXPECT_EQ(monitor->toString_config().rfind("{ P2DrvEP-abc .mEpollFd=", 0), 0u);
        EXPECT_NE(monitor->toString_config().find(" .mEventFd=" + std::to_string(eventFd) + " }"),
                  std::string::npos);
        EXPECT_TRUE(fcntl(eventFd, F_GETFL) & O_NONBLOCK);
        EXPECT_TRUE(fcntl(eventFd, F_GETFD) & FD_CLOEXEC);
        // Level-triggered, with the monitor's own observer side as user pointer; not in the table.
        auto set = epollSet(*monitor);
        ASSERT_EQ(set.size(), 1u);
        EXPECT_EQ(set[eventFd], std::make_pair(uint32_t{EPOLLIN}, ptr(monitor.get())));
        monitor->attach(&observer, EPOLLIN);
    }
    // An observer still attached is not the monitor's to close.
    EXPECT_EQ(korvtest::openFds(), before);
}

TEST(EpollMonitor, TableKeepsHistoryAndFollowsTheEpollSet) {
    auto monitor = makeMonitor();
    FdObserver first;
    NumberObserver second(first.mFd);
    int fd = first.mFd;
    std::string n = std::to_string(fd);

    monitor->attach(&first, EPOLLIN);
    EXPECT_EQ(epollSet(*monitor)[fd], std::make_pair(uint32_t{EPOLLIN}, ptr(&first)));
    monitor->detach(&first);
    EXPECT_EQ(epollSet(*monitor).count(fd), 0u);
    EXPECT_EQ(monitor->toString_runtime(),
              "{ #attach=1 #detach=1 .mActive=1 .mFdObserverMap={ detach=[ " + n + " ] } }");

    // Observers are known by descriptor: another object with the same number takes the place.
    monitor->attach(&first, EPOLLIN | EPOLLET);
    monitor->modify(&second, EPOLLIN);
    EXPECT_EQ(epollSet(*monitor)[fd], std::make_pair(uint32_t{EPOLLIN}, ptr(&second)));
    EXPECT_EQ(monitor->determineFdObserverCount(), 1);
    EXPECT_EQ(monitor->toString_runtime(),
              "{ #attach=2 #detach=1 .mActive=1 .mFdObserverMap={ attach=[ (" + n + ", " +
                      addr(&first) + ") ] } }");
    monitor->detach(&second);
    EXPECT_EQ(epollSet(*monitor).count(fd), 0u);

    // Closed behind the monitor's back: the kernel dropped it already; the detach still counts.
    korvtest::AndroidLogCapture log;
    int other = eventfd(0, EFD_CLOEXEC);
    NumberObserver closed(other);
    monitor->attach(&closed, EPOLLIN);
    close(other);
    monitor->detach(&closed);
    EXPECT_EQ(log.count("korvalite-EpollMonitor",
                        "[operator()] EPOLL_CTL_DEL fd=" + std::to_string(other) +
                                " err=-9(Bad file descriptor) (operator()){#275:"
                                "src/utils/sys/EpollMonitor}"),
              1u);
    EXPECT_EQ(monitor->toString_runtime().rfind("{ #attach=3 #detach=3 .mActive=1 ", 0), 0u);
}

TEST(EpollMonitor, StateTextsAsDocumented) {
    for (int fd : {43, 44, 45}) {
        if (fcntl(fd, F_GETFD) != -1) GTEST_SKIP() << "descriptor " << fd << " is in use";
    }
    auto monitor = makeMonitor();
    std::vector<std::unique_ptr<FdObserver>> observers;
    for (int fd : {43, 44, 45}) {
        int source = eventfd(0, EFD_CLOEXEC);
        ASSERT_EQ(dup2(source, fd), fd);
        close(source);
        observers.push_back(std::make_unique<FdObserver>(fd));
        monitor->attach(observers.back().get(), EPOLLIN);
    }
    monitor->detach(observers[0].get());
    std::string runtime = "{ #attach=3 #detach=1 .mActive=1 .mFdObserverMap={ attach=[ (44, " +
                          addr(observers[1].get()) + ") (45, " + addr(observers[2].get()) +
                          ") ] detach=[ 43 ] } }";
    EXPECT_EQ(monitor->toString_runtime(), runtime);  // the fatal tests below show dumpState()
    EXPECT_EQ(EpollMonitor::toString_FdObserverMap({}), "{ }");
    monitor->detach(observers[1].get());
    monitor->detach(observers[2].get());
}

// Fatal paths: the documented lines, then the state dump, then the assertion. The child is forked
// without exec, so objects made here have the same addresses there.
void expectAbort(std::function<void(EpollMonitor&)> const& body,
                 std::vector<std::string> const& lines) {
    korvtest::ChildResult result = korvtest::runInChild([&] { body(*makeMonitor()); });
    EXPECT_EQ(result.signal, SIGABRT) << result.err;
    size_t at = 0;
    for (std::string const& line : lines) {
        at = result.err.find(line, at);
        ASSERT_NE(at, std::string::npos) << "missing, or out of order: " << line << "\n"
                                         << result.err;
    }
    // The assertion is the end: liblog prints its message once bare, then as a record.
    EXPECT_EQ(result.err.find('\n', result.err.find(lines.back(), at + 1)), result.err.size() - 1)
            << result.err;
}

TEST(EpollMonitorDeath, RegistrationFaults) {
    FdObserver first;
    NumberObserver second(first.mFd);
    std::string fd = std::to_string(first.mFd);
    expectAbort(
            [&](EpollMonitor& monitor) {
                monitor.attach(&first, EPOLLIN);
                monitor.attach(&second, EPOLLIN);
            },
            {"attach(" + fd + ", " + addr(&second) + ") has existed\n",
             "attachP2DrvEP-abc: logv:0 { P2DrvEP-abc .mEpollFd=",
             "attach    { #attach=2 #detach=0 .mActive=1 .mFdObserverMap={ attach=[ (" + fd + ", " +
                     addr(&first) + ") ] } }\n",
             "[attach] FATAL (attach){#225:src/utils/sys/EpollMonitor}\n"});

    NumberObserver unknown(555);
    expectAbort(
            [&](EpollMonitor& monitor) { monitor.detach(&unknown); },
            {"detach(555, " + addr(&unknown) + ") not found\n", "detachP2DrvEP-abc: logv:0 {",
             "detach    { #attach=0 #detach=0 .mActive=1 .mFdObserverMap={ detach=[ 555 ] } }\n",
             "[detach] FATAL (detach){#283:src/utils/sys/EpollMonitor}\n"});
    expectAbort(
            [&](EpollMonitor& monitor) {
                monitor.attach(&first, EPOLLIN);
                monitor.detach(&first);
                monitor.detach(&first);
            },
            {"detach(" + fd + ", " + addr(&first) + ") not found\n",
             "detach    { #attach=1 #detach=1 .mActive=1 .mFdObserverMap={ detach=[ " + fd +
                     " ] } }\n",
             "[detach] FATAL (detach){#283:src/utils/sys/EpollMonitor}\n"});

    expectAbort([&](EpollMonitor& monitor) { monitor.modify(&first, EPOLLIN); },
                {"modifyP2DrvEP-abc: logv:0 {",
                 "modify    { #attach=0 #detach=0 .mActive=1 .mFdObserverMap={ } }\n",
                 "[modify] FATAL (modify){#249:src/utils/sys/EpollMonitor}\n"});
}

TEST(EpollMonitorDeath, LoopFaults) {
    FdObserver observer;
    observer.hook = [](IEventObserver::OnEvent const&) { fprintf(stderr, "dispatched\n"); };
    expectAbort(
            [&](EpollMonitor& monitor) {
                epoll_event events[3] = {};
                events[0].data.ptr = static_cast<IEventObserver*>(&observer);
                events[2].data.ptr = static_cast<IEventObserver*>(&observer);
                monitor.handleEvents(events, 3);
            },
            {"dispatched\n",
             "[handleEvents] Bad observer (handleEvents){#475:src/utils/sys/EpollMonitor}\n"});
    expectAbort(
            [](EpollMonitor& monitor) {
                std::string config = monitor.toString_config();
                // A file that is no epoll instance, under the monitor's epoll descriptor.
                dup2(open("/dev/null", O_RDONLY), std::stoi(config.substr(config.find("Fd=") + 3)));
                monitor.tryEpoll(0);
            },
            {"[tryEpoll] err=-22(Invalid argument) (tryEpoll){#416:src/utils/sys/EpollMonitor}\n"});
}

// The trace bits are read when the library loads, so a child process with the bits set runs the
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
    korvtest::TempDir dir;
    std::string marker = dir.path() + "/trace";
    korvtest::ChildResult child =
            korvtest::runSelfChild("EpollMonitorTrace.DISABLED_Child",
                                   {{"persist.vendor.camera.korvalite.tracebits", "0x3000007410"},
                                    {"debug.atrace.tags.enableflags", "0x400"},
                                    {"debug.atrace.marker_file", marker}});
    ASSERT_TRUE(child.exited && child.exitCode == 0) << child.err;
    int fd = -1;
    int wake = -1;
    ASSERT_EQ(sscanf(child.out.substr(child.out.find("fds ")).c_str(), "fds %d %d", &fd, &wake), 2);
    std::string n = std::to_string(fd);
    // One monitor operation a line.
    // clang-format off
    std::vector<std::string> expected = {
            "B|EpollMonitor", "E",
            "B|P2DrvEP-abc::attachObserver", "B|fetch_add", "E",
                    "C|P2DrvEP-abc-#FdObserverCount|1", "B|fetch observer", "E",
                    "S|P2DrvEP-abc-FdObserver|" + n, "E",
            "B|P2DrvEP-abc::modifyObserver", "E",
            "B|tryEpoll", "B|handleEvents", "B|NOTIFY_READY fd:" + n, "E", "E", "E",
            "B|P2DrvEP-abc::detachObserver", "B|fetch observer", "E",
                    "C|P2DrvEP-abc-#FdObserverCount|0", "F|P2DrvEP-abc-FdObserver|" + n, "E",
            "B|P2DrvEP-abc::requestExit", "B|sendInterruptEvent", "E", "E",
            "B|tryEpoll", "B|handleEvents", "B|NOTIFY_READY fd:" + std::to_string(wake),
                    "B|isInterruptEvent", "E", "E", "E", "E",
            "B|~EpollMonitor", "E",
            // A formatted name that does not fit in 128 bytes is left empty, not cut.
            "B|EpollMonitor", "E",
            "B|", "B|sendInterruptEvent", "E", "E",
            "B|~EpollMonitor", "E"};
    // clang-format on
    std::vector<std::string> events;
    for (std::string const& line : korvtest::readLines(marker)) {
        size_t pid = line.find('|');
        size_t rest = line.find('|', pid + 1);
        events.push_back(line.substr(0, pid) +
                         (rest == std::string::npos ? "" : line.substr(rest)));
    }
    EXPECT_EQ(events, expected);
}

// --- Running ---------------------------------------------------------------------------------

TEST(EpollMonitorLoop, DispatchOnTheLoopThreadAndExitHandshake) {
    korvtest::ScopedSwitches switches;
    switches.details(3);
    korvtest::AndroidLogCapture log;
    FdObserver observer;
    RunningMonitor running("loop");
    std::string seenOn;
    observer.hook = [&](IEventObserver::OnEvent const&) {
        char name[16] = {};
        prctl(PR_GET_NAME, name, 0, 0, 0);
        seenOn = name;
    };
    running.monitor->attach(&observer, EPOLLIN);
    observer.signal();
    ASSERT_TRUE(korvtest::waitFor([&] { return observer.calls == 1; }));
    EXPECT_EQ(observer.last.monitor, static_cast<IEpollMonitor*>(running.monitor.get()));
    EXPECT_EQ(observer.last.events, uint32_t{EPOLLIN});
    EXPECT_EQ(seenOn, running.thread);
    running.monitor->detach(&observer);

    running.stop();
    // One wake-up, drained by the loop, whose last line shows it stopped.
    EXPECT_EQ(log.count("korvalite-EpollMonitor", "[isInterruptEvent] P2DrvEP-loop: 0x40"), 1u);
    std::string config = running.monitor->toString_config();
    EXPECT_EQ(log.count("korvalite-EpollMonitor", "[threadLoop] + " + config + " { #attach="), 1u);
    EXPECT_EQ(log.count("korvalite-EpollMonitor",
                        "[threadLoop] - " + config +
                                " { #attach=1 #detach=1 .mActive=0 .mFdObserverMap={ detach=[ " +
                                std::to_string(observer.mFd) + " ] } }"),
              1u);
    uint64_t value;
    EXPECT_EQ(read(running.monitor->getEventFD(), &value, sizeof(value)), -1);
}

TEST(EpollMonitorLoop, ExitRequestedBeforeTheThreadStarts) {
    korvtest::AndroidLogCapture log;
    auto monitor = makeMonitor("early");
    auto handler = ThreadLoopHandler::make();
    handler->setThreadName("korv-early");
    monitor->requestExit();
    ASSERT_EQ(handler->run(monitor), 0);
    ASSERT_TRUE(korvtest::waitFor([&] { return handler->exitPending(); }));
    EXPECT_EQ(log.count("qrvcam-perfctrl", "customizeThreadReadyToRun(name=korv-early,"), 1u);
    // The loop never waited: the wake-up is still there.
    uint64_t value = 0;
    EXPECT_EQ(read(monitor->getEventFD(), &value, sizeof(value)), 8);
    EXPECT_EQ(value, 64u);
    EXPECT_TRUE(korvtest::waitFor([] { return taskNamed("korv-early") == 0; }));
}

TEST(EpollMonitorLoop, SteppedBatchesWakeUpDrainAndVerboseLines) {
    korvtest::AndroidLogCapture log;
    std::shared_ptr<EpollMonitor> monitor;
    {
        korvtest::ScopedProperty logv("persist.vendor.camera.korvalite.EpollMonitor.logv", "1");
        monitor = makeMonitor("step");
    }
    FdObserver observer;
    std::string fd = std::to_string(observer.mFd);
    monitor->attach(&observer, EPOLLIN);
    EXPECT_EQ(monitor->tryEpoll(0), 0);

    // The batch that carries the wake-up is dispatched whole.
    observer.signal();
    monitor->requestExit();
    EXPECT_EQ(monitor->tryEpoll(-1), 1);
    EXPECT_EQ(observer.calls, 1);
    EXPECT_EQ(log.count("korvalite-EpollMonitor", "[isInterruptEvent] P2DrvEP-step: 0x40"), 1u);
    EXPECT_FALSE(monitor->threadLoop());  // stopped: returns without waiting
    for (std::string line : {"[attach] (" + fd + ", " + addr(&observer) + ")",
                             "[handleEvents] + fd=" + fd +
                                     " events=0x1 observer=" + addr(&observer) + " { P2DrvEP-step ",
                             "[handleEvents] - fd=" + fd + " events=0x1"}) {
        EXPECT_EQ(log.count("korvalite-EpollMonitor", line), 1u) << line;
    }

    // Only EPOLLIN drains, all requests at once; a drain that finds nothing says so.
    monitor->requestExit();
    monitor->requestExit();
    EXPECT_FALSE(monitor->isInterruptEvent(EPOLLERR | EPOLLHUP));
    EXPECT_TRUE(monitor->isInterruptEvent(EPOLLIN));
    EXPECT_EQ(log.count("korvalite-EpollMonitor", "[isInterruptEvent] P2DrvEP-step: 0x80"), 1u);
    EXPECT_FALSE(monitor->isInterruptEvent(EPOLLIN));
    EXPECT_EQ(log.count("korvalite-EpollMonitor", "[isInterruptEvent] P2DrvEP-step: read(" +
                                                          std::to_string(monitor->getEventFD()) +
                                                          ") returns -11 != 8"),
              1u);
    monitor->detach(&observer);
}

TEST(EpollMonitorLoop, ReadyToRunPolicy) {
    korvtest::AndroidLogCapture log;
    auto monitor = makeMonitor("abc");
    auto niceAfter = [&](IThreadLoop::ReadyToRun const& record) {
        int nice = 0;
        std::thread([&] {
            EXPECT_EQ(monitor->readyToRun(record), 0);
            EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
            nice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
        }).join();
        return nice;
    };
    int const ownNice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
    {
        // The defaults come from the properties: here SCHED_OTHER at nice 6.
        korvtest::ScopedProperty policy("persist.vendor.camera.korvalite.EpollMonitor.threadpolicy",
                                        "0");
        korvtest::ScopedProperty priority(
                "persist.vendor.camera.korvalite.EpollMonitor.threadpriority", "6");
        EXPECT_EQ(niceAfter({"", INT_MIN, INT_MIN}), 6);
        EXPECT_EQ(log.count("qrvcam-perfctrl", "customizeThreadReadyToRun(name=P2DrvEP-abc, "), 1u);
        EXPECT_EQ(niceAfter({"named", SCHED_OTHER, INT_MIN}), ownNice);  // the handler's business
        EXPECT_EQ(log.count("qrvcam-perfctrl", "customizeThreadReadyToRun(name=named, "), 1u);

        korvtest::ScopedProperty uad("debug.qrvcam.uad.enable", "1");
        EXPECT_EQ(niceAfter({"x-P2DrvEP-y", INT_MIN, INT_MIN}), ownNice);  // customer's threads
        EXPECT_EQ(niceAfter({"other", INT_MIN, INT_MIN}), 6);
    }
    // Without properties: SCHED_RR at 1, where this machine grants real-time scheduling.
    std::thread([&] {
        sched_param param{};
        param.sched_priority = 1;
        if (sched_setscheduler(0, SCHED_RR, &param) != 0) return;
        param.sched_priority = 0;
        ASSERT_EQ(sched_setscheduler(0, SCHED_OTHER, &param), 0);  // the monitor is to change it
        monitor->readyToRun(IThreadLoop::ReadyToRun{"", INT_MIN, INT_MIN});
        sched_getparam(0, &param);
        EXPECT_EQ(sched_getscheduler(0), SCHED_RR);
        EXPECT_EQ(param.sched_priority, 1);
    }).join();
}

std::atomic<int> gSignals{0};

TEST(EpollMonitorLoop, SignalDoesNotEndTheLoop) {
    struct sigaction action {};
    struct sigaction previous {};
    gSignals = 0;
    action.sa_handler = [](int) { gSignals++; };
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);  // no SA_RESTART
    auto monitor = makeMonitor("sig");
    std::atomic<int> tid{0};
    int result = 0;
    std::thread waiter([&] {
        tid = static_cast<int>(gettid());
        result = monitor->tryEpoll(-1);
    });
    ASSERT_TRUE(korvtest::waitFor([&] { return tid != 0 && inEpollWait(tid); }));
    ASSERT_EQ(syscall(SYS_tgkill, getpid(), tid.load(), SIGUSR1), 0);
    waiter.join();
    EXPECT_EQ(result, -2);
    {
        FdObserver observer;
        RunningMonitor running("sig-loop");
        int loop = running.tid();
        ASSERT_TRUE(korvtest::waitFor([&] { return inEpollWait(loop); }));
        ASSERT_EQ(syscall(SYS_tgkill, getpid(), loop, SIGUSR1), 0);
        ASSERT_TRUE(korvtest::waitFor([&] { return gSignals == 2; }));
        running.monitor->attach(&observer, EPOLLIN);
        observer.signal();
        EXPECT_TRUE(korvtest::waitFor([&] { return observer.calls == 1; }));
        running.monitor->detach(&observer);
    }
    sigaction(SIGUSR1, &previous, nullptr);
}

// Two observers hand the turn to each other from inside onEvent(): each detaches itself, attaches
// the other and wakes it; one also changes its own events first.
TEST(EpollMonitorLoop, ObserversReenterFromOnEvent) {
    constexpr int kTurns = 200;
    FdObserver ping;
    FdObserver pong;
    RunningMonitor running("reenter");
    std::atomic<int> turns{0};
    std::atomic<bool> finished{false};
    ping.hook = [&](IEventObserver::OnEvent const& event) {
        event.monitor->detach(&ping);
        if (++turns >= kTurns) {
            finished = true;
            return;
        }
        event.monitor->attach(&pong, EPOLLIN);
        pong.signal();
    };
    pong.hook = [&](IEventObserver::OnEvent const& event) {
        event.monitor->modify(&pong, EPOLLIN | EPOLLET);
        event.monitor->detach(&pong);
        ++turns;
        event.monitor->attach(&ping, EPOLLIN);
        ping.signal();
    };
    running.monitor->attach(&ping, EPOLLIN);
    ping.signal();
    ASSERT_TRUE(korvtest::waitFor([&] { return finished.load(); }));
    // Each turn detached once; all but the last attached the next.
    std::string count = std::to_string(turns);
    EXPECT_EQ(running.monitor->toString_runtime(),
              "{ #attach=" + count + " #detach=" + count +
                      " .mActive=1 .mFdObserverMap={ detach=[ " + std::to_string(ping.mFd) + " " +
                      std::to_string(pong.mFd) + " ] } }");
    EXPECT_EQ(epollSet(*running.monitor).size(), 1u);
}

// Threads attach, modify and detach observers of their own while the loop dispatches their
// events, and one observer keeps detaching and re-attaching itself from its own onEvent().
TEST(EpollMonitorLoop, ConcurrentRegistration) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 8;
    constexpr int kRounds = 150;
    FdObserver cycler;
    std::vector<std::unique_ptr<FdObserver>> observers;
    for (int i = 0; i < kThreads * kPerThread; ++i) {
        observers.push_back(std::make_unique<FdObserver>());
    }
    RunningMonitor running("stress");
    EpollMonitor& monitor = *running.monitor;
    std::atomic<int> cycles{0};
    cycler.hook = [&](IEventObserver::OnEvent const& event) {
        event.monitor->detach(&cycler);
        event.monitor->attach(&cycler, EPOLLIN);
        cycles++;
    };
    monitor.attach(&cycler, EPOLLIN);

    std::atomic<bool> done{false};
    std::thread poker([&] {
        while (!done) {
            int before = cycles;
            cycler.signal();
            while (!done && cycles == before) std::this_thread::yield();
        }
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            auto own = [&](int i) { return observers[t * kPerThread + i].get(); };
            for (int round = 0; round < kRounds; ++round) {
                for (int i = 0; i < kPerThread; ++i) monitor.attach(own(i), EPOLLIN);
                for (int i = 0; i < kPerThread; i += 2) {
                    own(i)->signal();
                    monitor.modify(own(i), EPOLLIN | EPOLLET);
                }
                for (int i = 0; i < kPerThread; ++i) monitor.detach(own(i));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    done = true;
    poker.join();
    running.stop();

    unsigned const attaches = kThreads * kPerThread * kRounds + 1 + cycles;
    std::string expected = "{ #attach=" + std::to_string(attaches) +
                           " #detach=" + std::to_string(attaches - 1) +
                           " .mActive=0 .mFdObserverMap={ attach=[ (" + std::to_string(cycler.mFd) +
                           ", " + addr(&cycler) + ") ] detach=[";
    EXPECT_EQ(monitor.toString_runtime().rfind(expected, 0), 0u) << monitor.toString_runtime();
    EXPECT_EQ(epollSet(monitor).size(), 2u);  // the wake-up and the cycler
    EXPECT_GT(cycles, 0);
    monitor.detach(&cycler);
}

}  // namespace
}  // namespace NSKorvalite
}  // namespace NSCam
