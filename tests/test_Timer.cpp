// Timer: first driven by hand (onEvent called directly, the timerfd inspected with
// timerfd_gettime and poll), then end to end on a running event monitor.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <gtest/gtest.h>
#include <korvalite/EpollMonitor.h>
#include <korvalite/ThreadLoop.h>
#include <korvalite/Timer.h>
#include <qrvcam/IPrinter.h>

#include "support/KorvTest.h"

namespace {

using NSCam::NSKorvalite::EpollMonitor;
using NSCam::NSKorvalite::IEpollMonitor;
using NSCam::NSKorvalite::IEventObserver;
using NSCam::NSKorvalite::ThreadLoopHandler;
using NSCam::NSKorvalite::Timer;
using namespace std::chrono_literals;

constexpr char kTag[] = "korvalite-Timer";
constexpr char kLogVProperty[] = "persist.vendor.camera.korvalite.timer.logv";
constexpr timespec kZero = {0, 0};
// One second after boot: long past on CLOCK_MONOTONIC, yet not the all-zero "disarm" value.
constexpr timespec kPast = {1, 0};

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

std::string fdinfoLine(int fd, std::string const& key) {
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(fd));
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, key.size(), key) == 0) return line;
    }
    return "";
}

IEventObserver::OnEvent const kEvent = {nullptr, EPOLLIN};

class RecordingPrinter : public NSCam::IPrinter {
public:
    void printLine(char const* line) override { lines.push_back(std::string("line:") + line); }
    void printFormatLine(char const* format, ...) override {
        char text[512];
        va_list args;
        va_start(args, format);
        vsnprintf(text, sizeof(text), format, args);
        va_end(args);
        lines.push_back(std::string("format:") + format + ":" + text);
    }
    std::vector<std::string> lines;
};

class TimerTest : public ::testing::Test {
protected:
    std::shared_ptr<Timer> makeTimer(char const* name = "t", int clockid = CLOCK_MONOTONIC) {
        return std::make_shared<Timer>(name, clockid, [this] {
            ++mFired;
            if (mInCallback) mInCallback();
        });
    }

    std::atomic<int> mFired{0};
    std::function<void()> mInCallback;
};

TEST_F(TimerTest, NameTypeAndTexts) {
    auto timer = makeTimer("frame");
    int const fd = timer->getEventFD();
    EXPECT_EQ(timer->getEventName(), "Timer-frame");
    EXPECT_EQ(static_cast<unsigned>(timer->getEventType()), 0x80000001u);  // EPOLLIN | EPOLLET
    EXPECT_EQ(timer->toString(), "{ Timer-frame .fd=" + std::to_string(fd) + " .event=80000001 }");

    RecordingPrinter printer;
    timer->dumpState(&printer);
    EXPECT_EQ(printer.lines, std::vector<std::string>{"format:%s:" + timer->toString()});

    auto unnamed = makeTimer(nullptr);
    EXPECT_EQ(unnamed->getEventName(), "Timer-?");
    EXPECT_EQ(unnamed->toString(),
              "{ Timer-? .fd=" + std::to_string(unnamed->getEventFD()) + " .event=80000001 }");
}

TEST_F(TimerTest, OwnsADisarmedNonBlockingCloseOnExecTimerfdOnTheGivenClock) {
    auto before = korvtest::openFds();
    {
        auto timer = makeTimer("boot", CLOCK_BOOTTIME);
        int const fd = timer->getEventFD();
        EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        EXPECT_EQ(fdinfoLine(fd, "clockid:"), "clockid: " + std::to_string(CLOCK_BOOTTIME));
        EXPECT_TRUE(isDisarmed(*timer));
        EXPECT_FALSE(readable(*timer));
    }
    EXPECT_EQ(korvtest::openFds(), before);
}

TEST_F(TimerTest, StartsAbsoluteAndStops) {
    korvtest::AndroidLogCapture log;
    auto timer = makeTimer();
    timespec const interval = {2, 500000000};
    timespec const value = monotonicIn(100s);
    timer->startTimerAbsoluteTime(&value, &interval);
    itimerspec armed = getTime(*timer);
    EXPECT_EQ(armed.it_interval.tv_sec, 2);
    EXPECT_EQ(armed.it_interval.tv_nsec, 500000000);
    EXPECT_GT(armed.it_value.tv_sec, 0);
    EXPECT_LE(armed.it_value.tv_sec, 100);

    timer->stopTimer();
    EXPECT_TRUE(isDisarmed(*timer));
    // Stopping a stopped timer is harmless: still disarmed, no error anywhere.
    timer->stopTimer();
    EXPECT_TRUE(isDisarmed(*timer));
    for (auto const& record : log.records()) {
        EXPECT_LT(record.priority, ANDROID_LOG_WARN) << record.tag << ": " << record.text;
    }
    EXPECT_EQ(mFired, 0);
}

// The re-arm after the callback is what keeps an edge-triggered monitor waking up: it must leave
// the descriptor unreadable, keep a periodic timer's interval and phase, and leave an expired
// one-shot disarmed.
TEST_F(TimerTest, OnEventCallsBackThenReArms) {
    auto periodic = makeTimer("periodic");
    timespec const hour = {3600, 0};
    periodic->startTimerAbsoluteTime(&kPast, &hour);
    ASSERT_TRUE(readable(*periodic, 10s));
    periodic->onEvent(kEvent);
    EXPECT_EQ(mFired, 1);
    EXPECT_FALSE(readable(*periodic));
    itimerspec kept = getTime(*periodic);
    EXPECT_EQ(kept.it_interval.tv_sec, 3600);
    EXPECT_EQ(kept.it_interval.tv_nsec, 0);
    EXPECT_GT(kept.it_value.tv_sec, 0);

    auto oneShot = makeTimer("once");
    oneShot->startTimerAbsoluteTime(&kPast, &kZero);
    ASSERT_TRUE(readable(*oneShot, 10s));
    oneShot->onEvent(kEvent);
    EXPECT_EQ(mFired, 2);
    EXPECT_FALSE(readable(*oneShot));
    EXPECT_TRUE(isDisarmed(*oneShot));
}

TEST_F(TimerTest, WhatTheCallbackArmsSurvivesTheReArm) {
    auto timer = makeTimer();
    timespec const ms = {0, 1000000};
    timespec const later = monotonicIn(1000s);
    timespec const hour = {3600, 0};

    mInCallback = [&] { timer->stopTimer(); };
    timer->startTimerAbsoluteTime(&kPast, &ms);
    ASSERT_TRUE(readable(*timer, 10s));
    timer->onEvent(kEvent);
    EXPECT_TRUE(isDisarmed(*timer));
    EXPECT_FALSE(readable(*timer));

    mInCallback = [&] { timer->startTimerAbsoluteTime(&later, &hour); };
    timer->startTimerAbsoluteTime(&kPast, &kZero);
    ASSERT_TRUE(readable(*timer, 10s));
    timer->onEvent(kEvent);
    itimerspec now = getTime(*timer);
    EXPECT_EQ(now.it_interval.tv_sec, 3600);
    EXPECT_GT(now.it_value.tv_sec, 900);
    EXPECT_EQ(mFired, 2);
    mInCallback = nullptr;
}

// --- Verbose line ----------------------------------------------------------------------------

class TimerVerboseTest : public TimerTest {
protected:
    // Details level 5 with the module's bits, both routes.
    korvtest::ScopedSwitches mSwitches;
    korvtest::AndroidLogCapture mLog;
    korvtest::ULogCapture mULog;

    void SetUp() override { mSwitches.mode(0x3).details(5).mask(0x8002000); }

    // Arms and disarms once; returns the verbose texts of both routes.
    std::vector<std::string> exercise(Timer& timer) {
        mLog.clear();
        mULog.clear();
        timespec const value = {1, 5};
        timespec const interval = {0, 500000000};
        timer.startTimerAbsoluteTime(&value, &interval);
        timer.stopTimer();
        timer.enableEdgeTrigger();
        std::vector<std::string> texts = mLog.texts(kTag);
        for (auto const& text : mULog.texts(kTag)) texts.push_back("ulog " + text);
        return texts;
    }
};

TEST_F(TimerVerboseTest, LineOnBothRoutes) {
    korvtest::ScopedProperty logv(kLogVProperty, "1");
    auto timer = makeTimer("");  // "Timer-" is padded to seven characters
    std::vector<std::string> const lines = {
            "[startTimerAbsoluteTime] Timer- : { .it_interval=0.500000000 .it_value=1.5 }",
            "[stopTimer] Timer- : { .it_interval=0.0 .it_value=0.0 }",
            "[enableEdgeTrigger] Timer- : { .it_interval=0.0 .it_value=0.0 }",
    };
    std::vector<std::string> expected = lines;
    for (auto const& line : lines) expected.push_back("ulog " + line);
    EXPECT_EQ(exercise(*timer), expected);

    for (auto const& record : mLog.withTag(kTag)) EXPECT_EQ(record.priority, ANDROID_LOG_DEBUG);
    for (auto const& record : mULog.records()) {
        EXPECT_EQ(record.module, 0x8002001u);
        EXPECT_EQ(record.level, 5u);
    }
}

TEST_F(TimerVerboseTest, SwitchIsReadPerTimerAtConstruction) {
    auto quiet = makeTimer("quiet");
    std::shared_ptr<Timer> verbose;
    {
        korvtest::ScopedProperty logv(kLogVProperty, "1");
        verbose = makeTimer("loud");
        EXPECT_TRUE(exercise(*quiet).empty());
    }
    EXPECT_EQ(exercise(*verbose).size(), 6u);
    EXPECT_TRUE(exercise(*quiet).empty());
}

TEST_F(TimerVerboseTest, NeedsDetailsLevelFiveAndAllTheModuleBits) {
    korvtest::ScopedProperty logv(kLogVProperty, "1");
    auto timer = makeTimer();
    mSwitches.details(4);
    EXPECT_TRUE(exercise(*timer).empty());
    mSwitches.details(6).mask(0x8000000);
    EXPECT_TRUE(exercise(*timer).empty());
    mSwitches.mask(0xffffffff);
    EXPECT_EQ(exercise(*timer).size(), 6u);
}

// --- Fatal paths -----------------------------------------------------------------------------

TEST(TimerDeathTest, BadDescriptor) {
    // An unknown clock makes timerfd_create fail with EINVAL.
    EXPECT_DEATH(Timer("x", 12345, [] {}),
                 "\\[Timer\\] Bad fd:-22 \\(Timer\\)\\{#103:src/utils/sys/Timer\\}");
}

TEST(TimerDeathTest, EmptyCallback) {
    EXPECT_DEATH(Timer("x", CLOCK_MONOTONIC, nullptr),
                 "\\[Timer\\] Bad mNotifyTimeout \\(Timer\\)\\{#104:src/utils/sys/Timer\\}");
}

TEST(TimerDeathTest, EventForATimerNoSharedPtrOwns) {
    // The library is built without exceptions: the bad weak pointer aborts on the spot.
    EXPECT_EXIT(
            {
                Timer timer("bare", CLOCK_MONOTONIC, [] {});
                timer.onEvent(kEvent);
            },
            ::testing::KilledBySignal(SIGABRT), "");
}

// --- End to end on a running monitor ---------------------------------------------------------

class TimerOnMonitorTest : public ::testing::Test {
protected:
    void SetUp() override {
        mMonitor = IEpollMonitor::make("timer-test");
        mHandler = ThreadLoopHandler::make();
        ASSERT_EQ(mHandler->run(std::static_pointer_cast<EpollMonitor>(mMonitor)), 0);
    }

    // The loop ends before the timers are detached and dropped: a batch in flight could still
    // name a timer that is detached from this thread.
    void TearDown() override {
        mHandler->requestExitAndWait();
        for (auto const& timer : mAttached) mMonitor->detach(timer.get());
        mAttached.clear();
    }

    std::shared_ptr<Timer> attach(char const* name, std::function<void()> callback) {
        auto timer = std::make_shared<Timer>(name, CLOCK_MONOTONIC, std::move(callback));
        mMonitor->attach(timer.get(), timer->getEventType());
        mAttached.push_back(timer);
        return timer;
    }

    std::shared_ptr<IEpollMonitor> mMonitor;
    std::shared_ptr<ThreadLoopHandler> mHandler;
    std::vector<std::shared_ptr<Timer>> mAttached;
};

// The one-shot fires at once, and a periodic timer that fires on meanwhile proves that the
// monitor goes on waiting without the one-shot ever waking it again.
TEST_F(TimerOnMonitorTest, PastOneShotFiresAtOnceAndOnlyOnceWhilePeriodicGoesOn) {
    std::atomic<int> once{0};
    std::atomic<int> ticks{0};
    auto oneShot = attach("once", [&] { ++once; });
    auto periodic = attach("tick", [&] { ++ticks; });

    oneShot->startTimerAbsoluteTime(&kPast, &kZero);
    ASSERT_TRUE(korvtest::waitFor([&] { return once.load() == 1; }));

    timespec const ms = {0, 1000000};
    timespec const start = monotonicIn(1ms);
    periodic->startTimerAbsoluteTime(&start, &ms);
    EXPECT_TRUE(korvtest::waitFor([&] { return ticks.load() >= 50; }));
    EXPECT_EQ(once.load(), 1);
    EXPECT_TRUE(isDisarmed(*oneShot));
    periodic->stopTimer();
}

// The self-reference taken by onEvent keeps the timer alive when its client detaches it and
// lets go of it while the callback runs; the re-arm after the callback must not touch freed
// memory (the address sanitizer build sees it if it does).
TEST_F(TimerOnMonitorTest, ClientMayDropTheTimerWhileItsCallbackRuns) {
    std::atomic<bool> inCallback{false};
    std::atomic<bool> release{false};
    std::atomic<bool> destroyed{false};
    // Goes with the callback, so it tells when the timer is destroyed.
    struct Watch {
        explicit Watch(std::atomic<bool>* f) : flag(f) {}
        ~Watch() { *flag = true; }
        std::atomic<bool>* flag;
    };
    auto watch = std::make_shared<Watch>(&destroyed);
    auto timer = std::make_shared<Timer>("dropped", CLOCK_MONOTONIC, [&, watch] {
        inCallback = true;
        while (!release) std::this_thread::yield();
    });
    watch.reset();
    mMonitor->attach(timer.get(), timer->getEventType());
    timer->startTimerAbsoluteTime(&kPast, &kZero);
    ASSERT_TRUE(korvtest::waitFor([&] { return inCallback.load(); }));

    mMonitor->detach(timer.get());
    timer.reset();
    EXPECT_FALSE(destroyed);
    release = true;
    EXPECT_TRUE(korvtest::waitFor([&] { return destroyed.load(); }));
}

// A periodic timer read at the instant its next expiry is due, before the kernel delivers it,
// reports a remaining time of zero, and re-arming with that would switch it off for good. Here
// both cores are busy re-arming the timer from other threads while the monitor re-arms it after
// every expiry, with an interval short enough that such reads happen many times a second. A
// timer disarmed that way never fires again, so firing on after the load proves it never stopped.
TEST_F(TimerOnMonitorTest, PeriodicTimerNeverStopsUnderLoad) {
    std::atomic<int> fired{0};
    auto timer = attach("load", [&] { ++fired; });
    timespec const interval = {0, 50000};
    timespec const start = monotonicIn(1ms);
    timer->startTimerAbsoluteTime(&start, &interval);

    std::atomic<bool> stop{false};
    std::vector<std::thread> load;
    for (int i = 0; i < 2; ++i) {
        load.emplace_back([&] {
            while (!stop) timer->enableEdgeTrigger();
        });
    }
    auto const end = std::chrono::steady_clock::now() + 3s;
    while (std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(10ms);
    stop = true;
    for (auto& thread : load) thread.join();

    int const atEnd = fired.load();
    EXPECT_GT(atEnd, 0);
    EXPECT_TRUE(korvtest::waitFor([&] { return fired.load() >= atEnd + 100; }))
            << "the periodic timer stopped after " << atEnd << " expiries";
    EXPECT_EQ(getTime(*timer).it_interval.tv_nsec, 50000);
    timer->stopTimer();
}

}  // namespace
