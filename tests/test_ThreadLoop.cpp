// Thread-loop handler: the worker's protocol with its body, the exit handshake and its log lines,
// the report-thread registration, the abandoned state and the ownership aborts.

#include <gtest/gtest.h>
#include <korvalite/ThreadLoop.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <tuple>

#include "support/KorvTest.h"

namespace NSCam::NSKorvalite {
namespace {

using korvtest::waitFor;

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

// Its iterations wait (yielding) until the test releases them; an exit request only counts.
class Body : public IThreadLoop {
public:
    explicit Body(Probe& probe, int readyResult = 0) : mProbe(probe), mReadyResult(readyResult) {}
    ~Body() override { mProbe.destroyedOn = static_cast<int>(gettid()); }
    void requestExit() override { mProbe.exits++; }
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
        while (mReleased < iteration) std::this_thread::yield();
        return true;
    }
    void release() { mReleased++; }
    std::weak_ptr<ThreadLoopHandler> exitOnReady;

private:
    Probe& mProbe;
    int const mReadyResult;
    std::atomic<int> mReleased{0};
};

// Idle, then three runs of one handler (a Finished handler runs again); the name and the
// scheduling set before a run apply to that run. The exit handshake logs its debug lines.
TEST(ThreadLoopHandler, RunsTheBodyAndHandshakesTheExit) {
    korvtest::TraceCapture trace;
    korvtest::ScopedSwitches switches(0x1, 4);
    korvtest::AndroidLogCapture log;
    auto handler = ThreadLoopHandler::make();
    EXPECT_EQ(handler->requestExitAndWait(), 0);  // idle: at once, leaving the exit pending
    EXPECT_TRUE(handler->exitPending());
    EXPECT_EQ(log.texts("korvalite-ThreadLoop"),
              std::vector<std::string>{"[DECKEY][requestExitAndWait] -"});
    struct Round {
        char const* setName;  // null: keep the name
        int policy, priority;
        std::string recordName, seenName;
        int nice;
    } const rounds[] = {
            {nullptr, INT_MIN, INT_MIN, "", threadName(), niceness()},  // as the creating thread
            {"korv-a-rather-long-name", SCHED_OTHER, 7, "korv-a-rather-long-name",
             "korv-a-rather-l", 7},  // the kernel keeps 15 characters
            // Either number INT_MIN: nothing is applied, but the record says what was asked.
            {nullptr, SCHED_BATCH, INT_MIN, "korv-a-rather-long-name", "korv-a-rather-l",
             niceness()},
    };
    for (Round const& round : rounds) {
        if (round.setName != nullptr) handler->setThreadName(round.setName);
        handler->setThreadPriority(round.policy, round.priority);
        Probe probe;
        auto body = std::make_shared<Body>(probe);
        ASSERT_EQ(handler->run(body), 0);
        EXPECT_FALSE(handler->exitPending());
        EXPECT_EQ(handler->run(body), -ENOSYS);
        body->release();
        ASSERT_TRUE(waitFor([&] { return probe.iterations == 2; }));
        EXPECT_EQ(probe.ready, 1);
        EXPECT_EQ(probe.record.threadName, round.recordName);
        EXPECT_EQ(probe.name, round.seenName);
        EXPECT_EQ(std::make_tuple(probe.record.policy, probe.record.priority, probe.nice),
                  std::make_tuple(round.policy, round.priority, round.nice));

        log.clear();
        std::atomic<bool> released{false};
        std::thread releaser([&] {  // once the waiter waits for the second iteration to end
            EXPECT_TRUE(waitFor([&] { return log.count("korvalite-ThreadLoop", "wait exit"); }));
            released = true;
            body->release();
        });
        EXPECT_EQ(handler->requestExitAndWait(), 0);
        EXPECT_TRUE(released) << "the wait ended before the worker did";
        releaser.join();
        EXPECT_EQ(probe.exits, 1);
        EXPECT_EQ(probe.iterations, 2);
        EXPECT_TRUE(handler->exitPending());
        ASSERT_TRUE(waitFor([&] { return gone(probe.tid); }));
        std::vector<std::string> lines = log.texts("korvalite-ThreadLoop");
        std::sort(lines.begin(), lines.end());  // the worker's line races the waiter's last
        EXPECT_EQ(lines, (std::vector<std::string>{
                                 "[DECKEY][_threadLoop] - " + korvtest::addr(handler.get()),
                                 "[DECKEY][requestExitAndWait] -",
                                 "[DECKEY][requestExitAndWait] wait exit"}));
    }
    std::vector<std::string> events = trace.events();
    for (char const* name : {"B|run", "B|_threadLoop", "B|requestExit", "B|requestExitAndWait"}) {
        EXPECT_NE(std::find(events.begin(), events.end(), name), events.end()) << name;
    }
}

// A failing readyToRun() finishes the handler by itself; an exit requested before the first
// iteration ends the worker too. Neither body sees threadLoop(). With the customer setting on,
// a listed name is reported under the fixed alias with the worker's id; another is not.
TEST(ThreadLoopHandler, NoIterationAfterAFailedStartOrAnEarlyExit) {
    korvtest::ScopedProperty uad("debug.qrvcam.uad.enable", "1");
    for (std::string name : {"cam-P2DrvEP-S_ME-A-0", "P2DrvEP-S_DS-A", "P2DrvEP-S_DIP-A",
                             "P2DrvEP-warp_p", "P2DrvEP-S_DIP-B"}) {
        korvtest::AndroidLogCapture log;
        auto handler = ThreadLoopHandler::make();
        handler->setThreadName(name);
        Probe failed;
        ASSERT_EQ(handler->run(std::make_shared<Body>(failed, -1)), 0);
        ASSERT_TRUE(waitFor([&] { return handler->exitPending(); }));  // Finished
        EXPECT_EQ(handler->requestExitAndWait(), 0);
        EXPECT_EQ(failed.iterations, 0);
        std::string const report =
                "setReportThread(HalTemporaryThread, 1, " + std::to_string(failed.tid) + ")";
        // Once for a listed name, not at all for the last one.
        EXPECT_EQ(log.texts("qrvcam-uad"), std::vector<std::string>(name.back() != 'B', report));
    }
    auto handler = ThreadLoopHandler::make();
    Probe early;
    auto body = std::make_shared<Body>(early);
    body->exitOnReady = handler;
    ASSERT_EQ(handler->run(body), 0);
    EXPECT_EQ(handler->requestExitAndWait(), 0);
    EXPECT_EQ(early.iterations, 0);
    ASSERT_TRUE(waitFor([&] { return gone(early.tid); }));
}

// When the last outside owner of the body, or of the handler, lets go during an iteration, the
// worker ends after it without the exit step, and the last reference goes on the worker.
TEST(ThreadLoopHandler, DroppingTheBodyOrTheHandlerAbandonsTheWorker) {
    for (bool dropBody : {true, false}) {
        auto handler = ThreadLoopHandler::make();
        std::weak_ptr<ThreadLoopHandler> weakHandler = handler;
        Probe probe;
        auto body = std::make_shared<Body>(probe);
        Body* raw = body.get();
        ASSERT_EQ(handler->run(body), 0);
        body->release();
        ASSERT_TRUE(waitFor([&] { return probe.iterations == 2; }));
        if (dropBody)
            body.reset();
        else
            handler.reset();
        raw->release();  // the worker holds both until this iteration ends
        ASSERT_TRUE(waitFor([&] { return gone(probe.tid); }));
        EXPECT_EQ(probe.iterations, 2);
        EXPECT_EQ(probe.destroyedOn, dropBody ? probe.tid.load() : 0);
        EXPECT_EQ(weakHandler.expired(), !dropBody);
        if (!dropBody) continue;
        EXPECT_EQ(handler->run(std::make_shared<Body>(probe)), -ENOSYS);  // not Finished
    }
}

// run() on a handler that no shared_ptr owns (here a unique_ptr, as on the stack or from new)
// aborts, even under a try block; a null body is fatal on the worker.
TEST(ThreadLoopHandlerDeath, OwnershipAndNullBody) {
    Probe probe;
    auto body = std::make_shared<Body>(probe);
    auto runCaught = [&](ThreadLoopHandler& handler) {
        try {
            handler.run(body);
        } catch (...) {
        }
    };
    EXPECT_EXIT(runCaught(*std::make_unique<ThreadLoopHandler>()),
                ::testing::KilledBySignal(SIGABRT), "");
    // The wait is bounded so that a worker that goes on fails the test rather than hanging it.
    EXPECT_EXIT((ThreadLoopHandler::make()->run(nullptr), sleep(60)),
                ::testing::KilledBySignal(SIGABRT),
                "\\[_threadLoop\\] Bad sharedLoop "
                "\\(_threadLoop\\)\\{#198:src/utils/sys/ThreadLoop\\}");
}

}  // namespace
}  // namespace NSCam::NSKorvalite
