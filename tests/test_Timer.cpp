// Timer: first driven by hand (onEvent called directly, the timerfd inspected with
// timerfd_gettime and poll), then end to end on a running event monitor.

#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvalite/Timer.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/timerfd.h>

#include <thread>

#include "support/KorvTest.h"

namespace NSCam::NSKorvalite {
namespace {

using namespace std::chrono_literals;

constexpr timespec kZero = {0, 0};
// One second after boot: long past on CLOCK_MONOTONIC, yet not the all-zero "disarm" value.
constexpr timespec kPast = {1, 0};
constexpr timespec kHour = {3600, 0};
IEventObserver::OnEvent const kEvent = {nullptr, EPOLLIN};

timespec monotonicIn(std::chrono::nanoseconds delay) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long long ns = now.tv_nsec + delay.count();
    return {static_cast<time_t>(now.tv_sec + ns / 1000000000), static_cast<long>(ns % 1000000000)};
}

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

std::shared_ptr<Timer> makeTimer(char const* name, std::function<void()> callback = [] {}) {
    return std::make_shared<Timer>(name, CLOCK_MONOTONIC, std::move(callback));
}

// Keeps the format and the formatted text of what it is asked to print.
struct StringPrinter : NSCam::IPrinter {
    void printLine(char const* line) override { text += std::string("line:") + line; }
    void printFormatLine(char const* format, ...) override {
        char line[512];
        va_list args;
        va_start(args, format);
        vsnprintf(line, sizeof(line), format, args);
        va_end(args);
        text += std::string(format) + ":" + line;
    }
    std::string text;
};

// Names, descriptor, state text, and the clock given. The texts keep their digits
// ungrouped whatever the client's locale.
TEST(Timer, DescriptorTextsAndAbsoluteArming) {
    korvtest::AndroidLogCapture log;
    korvtest::ScopedGroupingLocale grouping;
    auto const before = korvtest::openFds();
    {
        auto timer = std::make_shared<Timer>("frame", CLOCK_REALTIME, [] {});
        int const fd = timer->getEventFD();
        EXPECT_EQ(timer->getEventName(), "Timer-frame");
        EXPECT_EQ(makeTimer(nullptr)->getEventName(), "Timer-?");
        EXPECT_EQ(static_cast<unsigned>(timer->getEventType()), 0x80000001u);  // EPOLLIN|EPOLLET
        StringPrinter printer;
        timer->dumpState(&printer);
        EXPECT_EQ(printer.text,
                  "%s:{ Timer-frame .fd=" + std::to_string(fd) + " .event=80000001 }");
        EXPECT_EQ(timer->toString(), printer.text.substr(3));
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
    for (auto const& record : log.records())
        EXPECT_LT(record.priority, ANDROID_LOG_WARN) << record.text;
    EXPECT_EQ(korvtest::openFds(), before);
}

// onEvent() calls back, then re-arms with what is left: the descriptor is no longer readable (a
// new edge for the monitor), a periodic timer keeps its interval and phase, an expired one-shot
// stays disarmed, and what the callback set survives.
TEST(Timer, OnEventCallsBackThenReArms) {
    timespec const ms = {0, 1000000};
    timespec const later = monotonicIn(1000s);
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
        EXPECT_EQ(now.it_interval.tv_nsec, 0) << c.what;
        EXPECT_TRUE(now.it_value.tv_sec >= c.valueFrom && now.it_value.tv_sec <= c.valueTo);
        EXPECT_TRUE(c.valueTo != 0 || isDisarmed(*timer)) << c.what;
        timer.reset();  // the callback refers to it
    }
}

// Each arming operation writes a details line, on both routes, when the timer's own switch was on
// at its construction and the details level is 5 with all the module's bits; digits ungrouped.
TEST(Timer, VerboseLine) {
    korvtest::ScopedSwitches switches;
    korvtest::AndroidLogCapture log;
    korvtest::ULogCapture ulog;
    korvtest::ScopedGroupingLocale grouping;
    switches.mode(0x3).details(5).mask(0x8002000);
    auto quiet = makeTimer("quiet");
    std::shared_ptr<Timer> verbose;
    {
        korvtest::ScopedProperty logv("persist.vendor.camera.korvalite.timer.logv", "1");
        verbose = makeTimer("");  // "Timer-" is padded to seven characters
    }
    auto exercise = [&](Timer& timer) {
        log.clear();
        ulog.clear();
        timespec const value = {12, 5}, interval = {0, 500000000};
        timer.startTimerAbsoluteTime(&value, &interval);
        timer.stopTimer();
        timer.enableEdgeTrigger();
        std::vector<std::string> texts;
        for (auto const& record : log.withTag("korvalite-Timer")) {
            texts.push_back(std::to_string(record.priority) + " " + record.text);
        }
        for (auto const& record : ulog.records()) {
            texts.push_back(std::to_string(record.module) + " " + std::to_string(record.level) +
                            " " + record.tag + " " + record.text);
        }
        return texts;
    };
    std::vector<std::string> const lines = {
            "[startTimerAbsoluteTime] Timer- : { .it_interval=0.500000000 .it_value=12.5 }",
            "[stopTimer] Timer- : { .it_interval=0.0 .it_value=0.0 }",
            "[enableEdgeTrigger] Timer- : { .it_interval=0.0 .it_value=0.0 }"};
    std::vector<std::string> expected;
    for (auto const& line : lines) expected.push_back("3 " + line);
    for (auto const& line : lines) {
        expected.push_back(std::to_string(0x8002001) + " 5 korvalite-Timer " + line);
    }
    EXPECT_EQ(exercise(*verbose), expected);
    EXPECT_TRUE(exercise(*quiet).empty());
    switches.details(4);
    EXPECT_TRUE(exercise(*verbose).empty());
    switches.details(6).mask(0x8000000);
    EXPECT_TRUE(exercise(*verbose).empty());
    switches.mask(0xffffffff);
    EXPECT_EQ(exercise(*verbose).size(), 6u);
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

class TimerOnMonitor : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(mHandler->run(mMonitor), 0); }
    // The loop ends before the timers are detached and dropped: a batch in flight could still
    // name a timer that is detached from this thread.
    void TearDown() override {
        mHandler->requestExitAndWait();
        for (auto const& timer : mAttached) mMonitor->detach(timer.get());
    }
    std::shared_ptr<Timer> attach(char const* name, std::function<void()> callback) {
        mAttached.push_back(makeTimer(name, std::move(callback)));
        mMonitor->attach(mAttached.back().get(), mAttached.back()->getEventType());
        return mAttached.back();
    }

    // Verbose: its dispatch lines show once the details level allows them.
    static std::shared_ptr<EpollMonitor> verboseMonitor() {
        korvtest::ScopedProperty logv("persist.vendor.camera.korvalite.EpollMonitor.logv", "1");
        return std::static_pointer_cast<EpollMonitor>(IEpollMonitor::make("timer-test"));
    }

    std::shared_ptr<EpollMonitor> mMonitor = verboseMonitor();
    std::shared_ptr<ThreadLoopHandler> mHandler = ThreadLoopHandler::make();
    std::vector<std::shared_ptr<Timer>> mAttached;
};

// A periodic timer read at the instant its next expiry is due, before the kernel delivers it,
// reports a remaining time of zero, and re-arming with that would switch it off for good. Here
// both cores are busy re-arming the timer from other threads while the monitor re-arms it after
// every expiry, with an interval short enough that such reads happen many times a second. A
// timer disarmed that way never fires again, so firing on after the load proves it never stopped.
// Meanwhile a one-shot timer in the past fires at once, and only once.
TEST_F(TimerOnMonitor, PeriodicTimerNeverStopsUnderLoadAndOneShotFiresOnce) {
    std::atomic<int> once{0}, fired{0};
    auto oneShot = attach("once", [&] { ++once; });
    auto timer = attach("load", [&] { ++fired; });
    oneShot->startTimerAbsoluteTime(&kPast, &kZero);
    ASSERT_TRUE(korvtest::waitFor([&] { return once == 1; }));
    timespec const interval = {0, 50000};
    timespec const start = monotonicIn(1ms);
    timer->startTimerAbsoluteTime(&start, &interval);
    std::atomic<int> reArms{0};
    std::vector<std::thread> load;
    for (int i = 0; i < 2; ++i) {
        load.emplace_back([&] {
            while (reArms++ < 200000) timer->enableEdgeTrigger();
        });
    }
    for (auto& thread : load) thread.join();

    int const atEnd = fired;
    EXPECT_GT(atEnd, 0);
    EXPECT_TRUE(korvtest::waitFor([&] { return fired >= atEnd + 100; }))
            << "the periodic timer stopped after " << atEnd << " expiries";
    EXPECT_EQ(getTime(*timer).it_interval.tv_nsec, 50000);
    timer->stopTimer();
    EXPECT_EQ(once, 1);
    EXPECT_TRUE(isDisarmed(*oneShot));
}

// The self-reference taken by onEvent keeps the timer alive when its client detaches it and
// lets go of it while the callback runs; with the monitor's verbose lines on, nothing touches the
// timer once its onEvent has returned (the address sanitizer build sees it if anything does).
TEST_F(TimerOnMonitor, ClientMayDropTheTimerWhileItsCallbackRuns) {
    korvtest::AndroidLogCapture log;
    korvtest::ScopedSwitches switches;
    switches.details(3);
    std::atomic<bool> inCallback{false}, release{false};
    auto timer = makeTimer("dropped", [&] {
        inCallback = true;
        while (!release) std::this_thread::yield();
    });
    std::weak_ptr<Timer> watch = timer;
    mMonitor->attach(timer.get(), timer->getEventType());
    timer->startTimerAbsoluteTime(&kPast, &kZero);
    ASSERT_TRUE(korvtest::waitFor([&] { return inCallback.load(); }));
    mMonitor->detach(timer.get());
    timer.reset();
    EXPECT_FALSE(watch.expired());
    release = true;
    EXPECT_TRUE(korvtest::waitFor([&] { return watch.expired(); }));
}

}  // namespace
}  // namespace NSCam::NSKorvalite
