#define LOG_TAG "korvalite-ThreadLoop"
#define KORV_SOURCE_PATH "src/utils/sys/ThreadLoop"

#include <errno.h>
#include <korvalite/ThreadLoop.h>
#include <pthread.h>
#include <qrvcam/CustomCamUad.h>
#include <qrvcam/Utils.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "KorvLog.h"

namespace NSCam {
namespace NSKorvalite {

namespace {

using korvlog::kTraceLifecycle;
using korvlog::ScopedTrace;

// Source lines that the fatal texts carry.
constexpr int kLineMakeShared = 74;
constexpr int kLineBadSharedLoop = 198;

// Workers whose handler name contains one of these are registered with the customer's report
// facility, all under the one name below.
constexpr char const* kReportThreadNames[] = {
        "P2DrvEP-S_ME-A",
        "P2DrvEP-S_DS-A",
        "P2DrvEP-S_DIP-A",
        "P2DrvEP-warp_p",
};
constexpr char const* kReportThreadAlias = "HalTemporaryThread";

bool isReportThreadName(std::string const& name) {
    for (char const* candidate : kReportThreadNames) {
        if (name.find(candidate) != std::string::npos) return true;
    }
    return false;
}

}  // namespace

std::shared_ptr<ThreadLoopHandler> ThreadLoopHandler::make() {
    std::shared_ptr<ThreadLoopHandler> handler = std::make_shared<ThreadLoopHandler>();
    if (handler == nullptr) {
        KORV_FATAL_AT(kLineMakeShared, "[%s] make_shared", "make");
    }
    return handler;
}

ThreadLoopHandler::~ThreadLoopHandler() = default;

void ThreadLoopHandler::setThreadName(std::string name) {
    std::lock_guard<std::mutex> lock(mMutex);
    mThreadName = std::move(name);
}

void ThreadLoopHandler::setThreadPriority(int policy, int priority) {
    std::lock_guard<std::mutex> lock(mMutex);
    mPolicy = policy;
    mPriority = priority;
}

// noexcept is load-bearing. This file is built without exception handling, so a handler that no
// shared_ptr owns aborts right inside shared_from_this(). But std::thread's constructor throws
// system_error from inside the standard library, and a caller built with exceptions could catch
// it and carry on with mRunning set and no worker; with noexcept that throw ends the process.
int ThreadLoopHandler::run(std::shared_ptr<IThreadLoop> const& loop) noexcept {
    ScopedTrace trace(kTraceLifecycle, "run");
    std::lock_guard<std::mutex> lock(mMutex);
    if (mRunning) return -ENOSYS;

    mExitPending = false;
    mSelf = shared_from_this();
    mLoop = loop;
    mWeakLoop = loop;
    mRunning = true;
    // The previous worker, if any, published its id before its exit step, and that step
    // happened before we saw mRunning clear: nobody else writes mTid now, so the id we wait for
    // below can only be the new worker's.
    mTid.store(-1, std::memory_order_relaxed);
    mThread = std::thread(&ThreadLoopHandler::_threadLoop, this);

    if (CustomCamUad::getInstance()->getUadEnable() && isReportThreadName(mThreadName)) {
        // The worker publishes its id before it first needs mMutex, so waiting here with the
        // lock held cannot deadlock; it lasts until the new thread has been scheduled once, and
        // only handlers with the names above ever wait.
        int tid;
        while ((tid = mTid.load(std::memory_order_acquire)) == -1) sched_yield();
        CustomCamUad::getInstance()->setReportThread(kReportThreadAlias, 1, tid);
    }

    mThread.detach();
    return 0;
}

void ThreadLoopHandler::requestExit() {
    ScopedTrace trace(kTraceLifecycle, "requestExit");
    std::lock_guard<std::mutex> lock(mMutex);
    mExitPending = true;
    if (std::shared_ptr<IThreadLoop> loop = mWeakLoop.lock()) {
        loop->requestExit();
    }
}

int ThreadLoopHandler::requestExitAndWait() {
    ScopedTrace trace(kTraceLifecycle, "requestExitAndWait");
    requestExit();

    std::unique_lock<std::mutex> lock(mMutex);
    // run() detaches mThread before it lets go of the lock, so this never matches a worker that
    // run() started, and called from the worker this waits for ever. The comparison with the
    // stored handle is kept deliberately: the handler's contract is that this call returns only
    // once the worker is gone (or -EAGAIN for a stored thread); comparing with mTid would make it
    // return early on the worker, while the caller still runs inside the loop it meant to end.
    if (pthread_equal(mThread.native_handle(), pthread_self())) {
        KORV_LOGW("[%s] deadlock: call this from the same thread!", "requestExitAndWait");
        return -EAGAIN;
    }
    mExitPending = true;
    if (mRunning) {
        KORV_LOGD("[DECKEY][%s] wait exit", "requestExitAndWait");
        mCond.wait(lock, [this] { return !mRunning; });
    }
    lock.unlock();
    KORV_LOGD("[DECKEY][%s] -", "requestExitAndWait");
    return 0;
}

bool ThreadLoopHandler::exitPending() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mExitPending;
}

int ThreadLoopHandler::_threadLoop(ThreadLoopHandler* self) {
    ScopedTrace trace(kTraceLifecycle, "_threadLoop");

    // From here on the handler and the body live through these locals only. The strong ones
    // are dropped between iterations (see below), so the worker never keeps alive what every
    // outside owner has let go.
    std::shared_ptr<ThreadLoopHandler> strongSelf = self->mSelf;
    std::weak_ptr<ThreadLoopHandler> weakSelf = strongSelf;
    self->mSelf.reset();
    std::shared_ptr<IThreadLoop> strongLoop = self->mLoop;
    std::weak_ptr<IThreadLoop> weakLoop = strongLoop;
    self->mLoop.reset();

    if (strongLoop == nullptr) {
        KORV_FATAL_AT(kLineBadSharedLoop, "[%s] Bad sharedLoop", "_threadLoop");
    }

    // Before the first lock: run() may be waiting for it with mMutex held.
    self->mTid.store(static_cast<int>(gettid()), std::memory_order_release);

    {
        IThreadLoop::ReadyToRun record;
        std::unique_lock<std::mutex> lock(self->mMutex);
        record.threadName = self->mThreadName;
        if (!record.threadName.empty()) {
            prctl(PR_SET_NAME, record.threadName.c_str(), 0, 0, 0);
        }
        record.policy = self->mPolicy;
        record.priority = self->mPriority;
        if (record.policy != INT_MIN && record.priority != INT_MIN) {
            NSCam::Utils::setThreadPriority(record.policy, record.priority);
        }
        lock.unlock();

        int error = strongLoop->readyToRun(record);

        lock.lock();
        bool exitStep = error != 0;
        if (!exitStep) {
            bool pending = self->mExitPending;
            lock.unlock();
            bool more = true;
            if (!pending) more = strongLoop->threadLoop();
            lock.lock();
            exitStep = !more || self->mExitPending;
        }

        bool abandoned = false;
        while (!exitStep) {
            lock.unlock();
            // Re-lock both owners before each further iteration. If either is gone the handler
            // may already be destroyed (possibly by the reset just below), so it is not touched
            // again: mRunning stays set and nobody is woken.
            strongSelf.reset();
            strongSelf = weakSelf.lock();
            strongLoop.reset();
            strongLoop = weakLoop.lock();
            if (strongSelf == nullptr || strongLoop == nullptr) {
                abandoned = true;
                break;
            }
            bool more = strongLoop->threadLoop();
            lock.lock();
            exitStep = !more || self->mExitPending;
        }

        if (!abandoned) {
            self->mExitPending = true;
            self->mRunning = false;
            self->mThread = std::thread();
            self->mCond.notify_all();
            lock.unlock();
        }

        KORV_LOGD("[DECKEY][%s] - %p", "_threadLoop", static_cast<void*>(self));
    }

    // When these are the last owners, the body and then the handler are destroyed here, on the
    // worker thread.
    weakLoop.reset();
    strongLoop.reset();
    weakSelf.reset();
    strongSelf.reset();
    return 0;
}

}  // namespace NSKorvalite
}  // namespace NSCam
