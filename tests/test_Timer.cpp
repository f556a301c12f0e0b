// Timer: driven by hand (onEvent called directly, the timerfd inspected with timerfd_gettime and
// poll), then once on a running event monitor.
//
// This executable defines timerfd_gettime(); the library binds to it by symbol preemption. It
// forwards to the real call and, when asked, reports the time remaining as none.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvalite/Timer.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/timerfd.h>

#include <thread>
#include <utility>

#include "support/KorvTest.h"

namespace {
bool gReadAsDue = false;  // the next timerfd_gettime() reports no time remaining
}  // namespace

// A periodic timer read at the instant its next expiry is due, before the kernel has delivered it,
// reports no time remaining: this makes the next read do so.
extern "C" int timerfd_gettime(int fd, itimerspec* current) {
    static auto* const real =
            reinterpret_cast<int (*)(int, itimerspec*)>(dlsym(RTLD_NEXT, "timerfd_gettime"));
    int const result = real(fd, current);
    if (std::exchange(gReadAsDue, false)) current->it_value = {0, 0};
    return result;
}

namespace NSCam::NSKorvalite {
namespace {

using namespace std::chrono_literals;

constexpr timespec kZero = {0, 0};
// One second after boot: long past on CLOCK_MONOTONIC, yet not the all-zero "disarm" value.
constexpr timespec kPast = {1, 0};
constexpr timespec kHour = {3600, 0};
IEventObserver::OnEvent const kEvent = {nullptr, EPOLLIN};

itimerspec getTime(Timer const& timer) {
    itimerspec current = {};
    EXPECT_EQ(timerfd_gettime(timer.getEventFD(), &current), 0);
    return current;
}

bool isDisarmed(Timer const& timer) {
    itimerspec t = getTime(timer);
    return t.it_value.tv_sec == 0 && t.it_value.tv_nsec == 0 && t.it_interval.tv_sec == 0 &&
           t.it_interval.tv_nsec == 0;
}

// Whether an expiry is pending on the descriptor, waiting at most `limit`.
bool readable(Timer const& timer, std::chrono::milliseconds limit = 0ms) {
    pollfd p = {timer.getEventFD(), POLLIN, 0};
    return poll(&p, 1, static_cast<int>(limit.count())) == 1 && (p.revents & POLLIN) != 0;
}

std::shared_ptr<Timer> makeTimer(
        char const* name, std::function<void()> callback = [] {}) {
    return std::make_shared<Timer>(name, CLOCK_MONOTONIC, std::move(callback));
}

// Keeps the text of a "%s" line.
struct StringPrinter : NSCam::IPrinter {
    void printLine(char const*) override {}
    void printFormatLine(char const* format, ...) override {
        va_list args;
        va_start(args, format);
        text += va_arg(args, char const*);
        va_end(args);
    }
    std::string text;
};

// Names, descriptor, state text, and the clock given. The texts keep their digits
// ungrouped whatever the client's locale.
TEST(Timer, DescriptorTextsAndAbsoluteArming) {
    korvtest::ScopedGroupingLocale grouping;
    auto timer = std::make_shared<Timer>("frame", CLOCK_REALTIME, [] {});
    int const fd = timer->getEventFD();
    EXPECT_EQ(makeTimer(nullptr)->getEventName(), "Timer-?");
    EXPECT_EQ(static_cast<unsigned>(timer->getEventType()), 0x80000001u);  // EPOLLIN|EPOLLET
    StringPrinter printer;
    timer->dumpState(&printer);
    EXPECT_EQ(printer.text, "{ Timer-frame .fd=" + std::to_string(fd) + " .event=80000001 }");
    EXPECT_EQ(timer->toString(), printer.text);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_TRUE(isDisarmed(*timer));
    // The clock is the one given: an hour ahead on it is an hour ahead.
    timespec value;
    clock_gettime(CLOCK_REALTIME, &value);
    value.tv_sec += 3600;
    timer->startTimerAbsoluteTime(&value, &kZero);
    time_t const left = getTime(*timer).it_value.tv_sec;
    EXPECT_TRUE(left > 3500 && left <= 3600) << left;
}

// onEvent() calls back, then re-arms with what is left: the descriptor is no longer readable (a
// new edge for the monitor), a periodic timer keeps its interval and phase, an expired one-shot
// stays disarmed, and what the callback set survives.
TEST(Timer, OnEventCallsBackThenReArms) {
    timespec const ms = {0, 1000000};
    timespec later;
    clock_gettime(CLOCK_MONOTONIC, &later);
    later.tv_sec += 1000;
    struct Case {
        char const* what;
        timespec interval;
        int inCallback;  // 0 nothing, 1 stops, 2 arms for later, every hour
        time_t expectInterval, valueFrom, valueTo;
    } const cases[] = {
            {"periodic", kHour, 0, 3600, 1, 3600},
            {"one-shot", kZero, 0, 0, 0, 0},
            {"stopped in the callback", ms, 1, 0, 0, 0},
            {"armed in the callback", kZero, 2, 3600, 900, 1000},
    };
    for (Case const& c : cases) {
        int fired = 0;
        bool pendingInCallback = false;
        std::shared_ptr<Timer> timer;
        timer = makeTimer(c.what, [&] {
            ++fired;
            pendingInCallback = readable(*timer);  // the re-arm comes after the callback
            if (c.inCallback == 1) timer->stopTimer();
            if (c.inCallback == 2) timer->startTimerAbsoluteTime(&later, &kHour);
        });
        timer->startTimerAbsoluteTime(&kPast, &c.interval);
        ASSERT_TRUE(readable(*timer, 10s)) << c.what;
        timer->onEvent(kEvent);
        EXPECT_EQ(fired, 1) << c.what;
        EXPECT_TRUE(pendingInCallback) << c.what;
        EXPECT_FALSE(readable(*timer)) << c.what;
        itimerspec now = getTime(*timer);
        EXPECT_EQ(now.it_interval.tv_sec, c.expectInterval) << c.what;
        EXPECT_TRUE(now.it_value.tv_sec >= c.valueFrom && now.it_value.tv_sec <= c.valueTo);
        EXPECT_TRUE(c.valueTo != 0 || isDisarmed(*timer)) << c.what;
        timer.reset();  // the callback refers to it
    }
}

// Re-armed at that instant, a periodic timer stays armed with its interval (the due expiry comes
// at once) instead of being switched off for good.
TEST(Timer, ReArmReadAtTheDueInstantKeepsAPeriodicTimer) {
    auto timer = makeTimer("due");
    timer->startTimerAbsoluteTime(&kPast, &kHour);
    gReadAsDue = true;
    timer->enableEdgeTrigger();
    EXPECT_TRUE(readable(*timer, 10s));
    EXPECT_EQ(getTime(*timer).it_interval.tv_sec, 3600);
}

// Each arming operation writes a details line when the timer's own switch was on at its
// construction and the details level is 5 with the module's bits; digits ungrouped.
TEST(Timer, VerboseLine) {
    korvtest::ScopedSwitches switches;
    korvtest::AndroidLogCapture log;
    korvtest::ScopedGroupingLocale grouping;
    switches.mode(0x1).details(5).mask(0x8002000);
    auto quiet = makeTimer("quiet");
    std::shared_ptr<Timer> verbose;
    {
        korvtest::ScopedProperty logv("persist.vendor.camera.korvalite.timer.logv", "1");
        verbose = makeTimer("");  // "Timer-" is padded to seven characters
    }
    for (auto const& timer : {quiet, verbose}) {
        log.clear();
        timespec const value = {12, 5}, interval = {0, 500000000};
        timer->startTimerAbsoluteTime(&value, &interval);
        timer->stopTimer();
        timer->enableEdgeTrigger();
        std::vector<std::string> expected;
        if (timer == verbose) {
            expected = {
                    "[startTimerAbsoluteTime] Timer- : { .it_interval=0.500000000 .it_value=12.5 }",
                    "[stopTimer] Timer- : { .it_interval=0.0 .it_value=0.0 }",
                    "[enableEdgeTrigger] Timer- : { .it_interval=0.0 .it_value=0.0 }"};
        }
        EXPECT_EQ(log.texts("korvalite-Timer"), expected);
    }
}

TEST(TimerDeathTest, BadDescriptorEmptyCallbackAndNoOwner) {
    // An unknown clock makes timerfd_create fail with EINVAL.
    EXPECT_DEATH(Timer("x", 12345, [] {}),
                 "\\[Timer\\] Bad fd:-22 \\(Timer\\)\\{#103:src/utils/sys/Timer\\}");
    EXPECT_DEATH(Timer("x", CLOCK_MONOTONIC, nullptr),
                 "\\[Timer\\] Bad mNotifyTimeout \\(Timer\\)\\{#104:src/utils/sys/Timer\\}");
    // The library is built without exceptions: the bad weak pointer aborts on the spot.
    EXPECT_EXIT(Timer("bare", CLOCK_MONOTONIC, [] {}).onEvent(kEvent),
                ::testing::KilledBySignal(SIGABRT), "");
}

// --- End to end on a running monitor ---------------------------------------------------------

// The self-reference taken by onEvent keeps the timer alive when its client detaches it and
// lets go of it while the callback runs.
TEST(TimerOnMonitor, ClientMayDropTheTimerWhileItsCallbackRuns) {
    auto monitor = std::static_pointer_cast<EpollMonitor>(IEpollMonitor::make("timer-test"));
    auto handler = ThreadLoopHandler::make();
    ASSERT_EQ(handler->run(monitor), 0);
    std::atomic<bool> inCallback{false}, release{false};
    auto timer = makeTimer("dropped", [&] {
        inCallback = true;
        while (!release) std::this_thread::yield();
    });
    std::weak_ptr<Timer> watch = timer;
    monitor->attach(timer.get(), timer->getEventType());
    timer->startTimerAbsoluteTime(&kPast, &kZero);
    ASSERT_TRUE(korvtest::waitFor([&] { return inCallback.load(); }));
    monitor->detach(timer.get());
    timer.reset();
    EXPECT_FALSE(watch.expired());
    release = true;
    EXPECT_TRUE(korvtest::waitFor([&] { return watch.expired(); }));
    EXPECT_EQ(handler->requestExitAndWait(), 0);
}

}  // namespace
}  // namespace NSCam::NSKorvalite
