// Thread-loop handler: the worker's protocol with its body, the exit handshake, the abandoned
// state, ownership aborts and concurrent use.

#include <gtest/gtest.h>
#include <korvalite/ThreadLoop.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

namespace NSCam {
namespace NSKorvalite {
namespace {

std::string threadName() {
    char name[16] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return name;
}

int niceness() {
    return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
}

bool gone(int tid) {
    return tid != 0 && access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) != 0;
}

// What a body saw, kept apart so that it can be read after the body is gone.
struct Probe {
    std::atomic<int> ready{0}, iterations{0}, exits{0}, tid{0}, destroyedOn{0};
    IThreadLoop::ReadyToRun record;  // these three are written before `ready` rises
    std::string name;
    int nice = 0;
};

// Its iterations wait until the test releases them or an exit is requested.
class Body : public IThreadLoop {
public:
    explicit Body(Probe& probe, int readyResult = 0, bool keepGoing = true)
        : mProbe(probe), mReadyResult(readyResult), mKeepGoing(keepGoing) {}
    ~Body() override { mProbe.destroyedOn = static_cast<int>(gettid()); }
    void requestExit() override {
        std::lock_guard<std::mutex> lock(mMutex);
        mExit = true;
        mProbe.exits++;
        mCond.notify_all();
    }
    int readyToRun(ReadyToRun const& record) override {
        mProbe.record = record;
        mProbe.name = threadName();
        mProbe.nice = niceness();
        mProbe.tid = static_cast<int>(gettid());
        mProbe.ready++;
        if (auto handler = exitOnReady.lock()) handler->requestExit();
        return mReadyResult;
    }
    bool threadLoop() override {
        int iteration = ++mProbe.iterations;
        std::unique_lock<std::mutex> lock(mMutex);
        mCond.wait(lock, [&] { return mExit || mReleased >= iteration; });
        return mKeepGoing;
    }
    void release() {
        std::lock_guard<std::mutex> lock(mMutex);
        mReleased++;
        mCond.notify_all();
    }
    std::weak_ptr<ThreadLoopHandler> exitOnReady;

private:
    Probe& mProbe;
    int const mReadyResult;
    bool const mKeepGoing;
    std::mutex mMutex;
    std::condition_variable mCond;
    bool mExit = false;
    int mReleased = 0;
};

TEST(ThreadLoopHandler, RunsTheBodyAndHandshakesTheExit) {
    korvtest::TraceCapture trace;
    auto handler = ThreadLoopHandler::make();
    EXPECT_EQ(handler->requestExitAndWait(), 0);  // idle: at once, leaving the exit pending
    EXPECT_TRUE(handler->exitPending());

    for (int round = 0; round < 2; ++round) {  // Finished handlers run again
        Probe probe;
        auto body = std::make_shared<Body>(probe);
        ASSERT_EQ(handler->run(body), 0);
        EXPECT_FALSE(handler->exitPending());
        EXPECT_EQ(handler->run(body), -ENOSYS);
        body->release();
        body->release();
        ASSERT_TRUE(korvtest::waitFor([&] { return probe.iterations == 3; }));
        EXPECT_EQ(probe.ready, 1);
        EXPECT_EQ(probe.record.threadName, "");
        EXPECT_EQ(probe.record.policy, INT_MIN);
        EXPECT_EQ(probe.record.priority, INT_MIN);
        EXPECT_EQ(probe.name, threadName());  // unnamed: as the creating thread

        EXPECT_EQ(handler->requestExitAndWait(), 0);
        EXPECT_EQ(probe.exits, 1);
        EXPECT_EQ(probe.iterations, 3);
        EXPECT_TRUE(handler->exitPending());
        ASSERT_TRUE(korvtest::waitFor([&] { return gone(probe.tid); }));
    }
    std::vector<std::string> events = trace.events();
    for (char const* name : {"B|run", "B|_threadLoop", "B|requestExit", "B|requestExitAndWait"}) {
        EXPECT_NE(std::find(events.begin(), events.end(), name), events.end()) << name;
    }
}

TEST(ThreadLoopHandler, NamePolicyAndPriorityApplyToTheNextRun) {
    auto handler = ThreadLoopHandler::make();
    auto runOnce = [&](Probe& probe) {
        auto body = std::make_shared<Body>(probe, 0, false);
        body->release();
        ASSERT_EQ(handler->run(body), 0);
        ASSERT_EQ(handler->requestExitAndWait(), 0);
        ASSERT_TRUE(korvtest::waitFor([&] { return gone(probe.tid); }));
    };
    handler->setThreadName("korv-a-rather-long-name");
    handler->setThreadPriority(SCHED_OTHER, 7);
    Probe first;
    runOnce(first);
    EXPECT_EQ(first.record.threadName, "korv-a-rather-long-name");
    EXPECT_EQ(first.name, "korv-a-rather-l");  // the kernel keeps 15 characters
    EXPECT_EQ(first.record.policy, SCHED_OTHER);
    EXPECT_EQ(first.record.priority, 7);
    EXPECT_EQ(first.nice, 7);

    // Either number INT_MIN: nothing is applied, but the record says what was asked.
    handler->setThreadPriority(SCHED_BATCH, INT_MIN);
    Probe second;
    runOnce(second);
    EXPECT_EQ(second.name, "korv-a-rather-l");
    EXPECT_EQ(second.record.policy, SCHED_BATCH);
    EXPECT_EQ(second.record.priority, INT_MIN);
    EXPECT_EQ(second.nice, niceness());
}

TEST(ThreadLoopHandler, NoIterationAfterAFailedStartOrAnEarlyExit) {
    auto handler = ThreadLoopHandler::make();
    Probe failed;
    ASSERT_EQ(handler->run(std::make_shared<Body>(failed, -1)), 0);
    ASSERT_TRUE(korvtest::waitFor([&] { return handler->exitPending(); }));  // Finished
    EXPECT_EQ(handler->requestExitAndWait(), 0);
    EXPECT_EQ(failed.iterations, 0);
    ASSERT_TRUE(korvtest::waitFor([&] { return gone(failed.tid); }));

    Probe early;
    auto body = std::make_shared<Body>(early);
    body->exitOnReady = handler;
    ASSERT_EQ(handler->run(body), 0);
    EXPECT_EQ(handler->requestExitAndWait(), 0);
    EXPECT_EQ(early.iterations, 0);
    ASSERT_TRUE(korvtest::waitFor([&] { return gone(early.tid); }));
}

TEST(ThreadLoopHandler, DroppingTheBodyOrTheHandlerAbandonsTheWorker) {
    // The body's last outside owner goes during the second iteration.
    auto handler = ThreadLoopHandler::make();
    Probe probe;
    auto body = std::make_shared<Body>(probe);
    Body* raw = body.get();
    ASSERT_EQ(handler->run(body), 0);
    body->release();
    ASSERT_TRUE(korvtest::waitFor([&] { return probe.iterations == 2; }));
    body.reset();
    raw->release();  // the worker holds the body until this iteration ends
    ASSERT_TRUE(korvtest::waitFor([&] { return gone(probe.tid); }));
    EXPECT_EQ(probe.destroyedOn, probe.tid);
    EXPECT_EQ(probe.iterations, 2);
    Probe unused;
    EXPECT_EQ(handler->run(std::make_shared<Body>(unused)), -ENOSYS);  // still "running"
    EXPECT_FALSE(handler->exitPending());

    // Now the handler's.
    Probe second;
    auto survivor = std::make_shared<Body>(second);
    handler = ThreadLoopHandler::make();
    std::weak_ptr<ThreadLoopHandler> weakHandler = handler;
    ASSERT_EQ(handler->run(survivor), 0);
    survivor->release();
    ASSERT_TRUE(korvtest::waitFor([&] { return second.iterations == 2; }));
    handler.reset();
    survivor->release();
    ASSERT_TRUE(korvtest::waitFor([&] { return gone(second.tid); }));
    EXPECT_TRUE(weakHandler.expired());  // destroyed on the worker
    EXPECT_EQ(second.iterations, 2);
}

TEST(ThreadLoopHandler, ReportThreadRegistration) {
    korvtest::ScopedProperty uad("debug.qrvcam.uad.enable", "1");
    for (std::string name : {"cam-P2DrvEP-S_DIP-A-0", "P2DrvEP-S_DIP-B"}) {
        korvtest::AndroidLogCapture log;
        auto handler = ThreadLoopHandler::make();
        handler->setThreadName(name);
        Probe probe;
        ASSERT_EQ(handler->run(std::make_shared<Body>(probe, 1)), 0);
        ASSERT_EQ(handler->requestExitAndWait(), 0);
        size_t listed = name.find("S_DIP-A") != std::string::npos ? 1 : 0;
        EXPECT_EQ(log.count("qrvcam-uad", "setReportThread(HalTemporaryThread, 1, " +
                                                  std::to_string(probe.tid) + ")"),
                  listed);
        EXPECT_EQ(log.count("qrvcam-uad", "setReportThread"), listed);
        ASSERT_TRUE(korvtest::waitFor([&] { return gone(probe.tid); }));
    }
}

TEST(ThreadLoopHandlerDeath, OwnershipAndNullBody) {
    Probe probe;
    auto body = std::make_shared<Body>(probe);
    auto runCaught = [&](ThreadLoopHandler& handler) {
        try {
            handler.run(body);
        } catch (...) {
        }
    };
    EXPECT_EXIT(
            {
                ThreadLoopHandler onStack;
                runCaught(onStack);
            },
            ::testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(runCaught(*new ThreadLoopHandler), ::testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(
            {
                ThreadLoopHandler::make()->run(nullptr);
                pause();
            },
            ::testing::KilledBySignal(SIGABRT),
            "\\[_threadLoop\\] Bad sharedLoop "
            "\\(_threadLoop\\)\\{#198:src/utils/sys/ThreadLoop\\}");
}

// Threads share one handler (starting, requesting exits and waiting in turns) while others start
// and drop handlers of their own. Every run() is answered 0 or -ENOSYS, every started worker
// reaches readyToRun() once, and the shared handler ends Finished. A body's first iteration lasts
// until an exit is requested, so no worker is abandoned.
TEST(ThreadLoopHandler, ConcurrentUse) {
    auto shared = ThreadLoopHandler::make();
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    std::vector<Probe> probes(kThreads * kRounds);
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                auto body = std::make_shared<Body>(probes[t * kRounds + i]);
                if (t % 2 == 0) {
                    int result = shared->run(body);
                    EXPECT_TRUE(result == 0 || result == -ENOSYS) << result;
                    started += result == 0;
                    if (i % 3 == 0) shared->requestExit();
                    if (i % 3 == 1) {
                        EXPECT_EQ(shared->requestExitAndWait(), 0);
                    }
                } else {
                    auto own = ThreadLoopHandler::make();
                    ASSERT_EQ(own->run(body), 0);
                    started++;
                    if (i % 2 == 0) {
                        EXPECT_EQ(own->requestExitAndWait(), 0);
                    } else {
                        own->requestExit();  // both go while the worker may be starting
                    }
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(shared->requestExitAndWait(), 0);
    EXPECT_TRUE(shared->exitPending());
    int ready = 0;
    for (Probe& probe : probes) {
        // Every body goes in the end: refused ones at once, started ones with their worker.
        ASSERT_TRUE(korvtest::waitFor([&] { return probe.destroyedOn != 0; }));
        ready += probe.ready;
        if (probe.tid != 0) {
            ASSERT_TRUE(korvtest::waitFor([&] { return gone(probe.tid); }));
        }
    }
    EXPECT_EQ(ready, started.load());
}

}  // namespace
}  // namespace NSKorvalite
}  // namespace NSCam
