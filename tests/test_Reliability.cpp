// Reliability: the monitor, its handler and a timer under concurrent load: nothing lost, nothing
// deadlocked, no thread or descriptor left.

#include <gtest/gtest.h>
#include <korvalite/EpollMonitor.h>
#include <korvalite/Timer.h>

#include <thread>

#include "support/KorvTest.h"

namespace NSCam {
namespace NSKorvalite {
namespace {

using namespace std::chrono_literals;

// --- Stress ----------------------------------------------------------------------------------

// Clients attach, modify and detach their counters while writers feed every counter, movers
// re-register themselves from onEvent() and a periodic timer fires, all on one monitor. Every
// value written arrives, the stopped timer stays stopped, the attach and detach counts are exact,
// and no descriptor or thread is left.
TEST(ReliabilityStress, EveryEventfdWriteArrivesWhileObserversAndTimersChurn) {
    constexpr int kClients = 3, kOwn = 4, kRounds = 10000, kMovers = 4, kWrites = 100000;
    constexpr int kObservers = kClients * kOwn + kMovers + 1;  // and the timer
    korvtest::ScopedSwitches switches;
    switches.details(2);
    auto const fds = korvtest::openFds();
    size_t const threads = korvtest::threadCount();
    // A monitor on a worker at normal priority (it would ask for SCHED_RR).
    auto monitor = std::static_pointer_cast<EpollMonitor>(IEpollMonitor::make("reliability"));
    auto handler = ThreadLoopHandler::make();
    handler->setThreadPriority(SCHED_OTHER, 0);
    ASSERT_EQ(handler->run(monitor), 0);
    std::vector<std::unique_ptr<korvtest::EventFdObserver>> counters;
    for (int i = 0; i < kClients * kOwn + kMovers; ++i) {
        auto* counter = counters.emplace_back(new korvtest::EventFdObserver).get();
        if (i >= kClients * kOwn) {  // a mover: re-registers from inside its own onEvent()
            counter->hook = [counter](IEventObserver::OnEvent const& event) {
                event.monitor->detach(counter);
                event.monitor->attach(counter, EPOLLIN);
            };
        }
        monitor->attach(counter, EPOLLIN);
    }
    std::atomic<int> fired{0};
    auto timer = std::make_shared<Timer>("churn", CLOCK_MONOTONIC, [&] { ++fired; });
    monitor->attach(timer.get(), timer->getEventType());
    timespec const ms = {0, 1000000};  // every millisecond from one after boot
    timer->startTimerAbsoluteTime(&ms, &ms);

    std::vector<std::thread> workers;
    for (int c = 0; c < kClients; ++c) {
        workers.emplace_back([&, c] {
            for (int round = 0; round < kRounds; ++round) {
                korvtest::EventFdObserver* own = counters[c * kOwn + round % kOwn].get();
                monitor->detach(own);
                monitor->attach(own, round % 3 ? EPOLLIN : EPOLLIN | EPOLLET);
                if (round % 5 == 0) monitor->modify(own, EPOLLIN);
            }
        });
    }
    for (int w = 0; w < 2; ++w) {
        workers.emplace_back([&, w] {
            for (int i = 0; i < kWrites; ++i) {
                counters[(i * 7 + w) % counters.size()]->signal(i % 5 + 1);
            }
        });
    }
    for (auto& worker : workers) worker.join();
    for (auto const& counter : counters) {
        EXPECT_TRUE(korvtest::waitFor([&] { return counter->drained(); }, 60s))
                << counter->received.load() << " of " << counter->sent.load();
    }

    // After stopTimer() a callback of a batch already collected may still come; once a value
    // written afterwards has arrived, none.
    timer->stopTimer();
    auto roundTrip = [&] {
        counters[0]->signal(1);
        EXPECT_TRUE(korvtest::waitFor([&] { return counters[0]->drained(); }));
        return fired.load();
    };
    int const atStop = roundTrip();
    EXPECT_EQ(roundTrip(), atStop);
    EXPECT_GT(atStop, 0);

    EXPECT_EQ(handler->requestExitAndWait(), 0);
    int reRegistered = 0;
    for (int i = kClients * kOwn; i < kClients * kOwn + kMovers; ++i) {
        reRegistered += counters[i]->calls;
    }
    int const detaches = kClients * kRounds + reRegistered;
    EXPECT_EQ(monitor->toString_runtime().rfind(
                      "{ #attach=" + std::to_string(kObservers + detaches) +
                              " #detach=" + std::to_string(detaches) + " .mActive=0 ",
                      0),
              0u)
            << monitor->toString_runtime();
    EXPECT_EQ(monitor->determineFdObserverCount(), kObservers);
    handler.reset();
    monitor.reset();
    timer.reset();
    counters.clear();
    EXPECT_TRUE(korvtest::waitFor([&] { return korvtest::threadCount() <= threads; }));
    EXPECT_EQ(korvtest::openFds(), fds);
}

}  // namespace
}  // namespace NSKorvalite
}  // namespace NSCam
