// Thread-loop handler: one detached worker thread running an IThreadLoop body.
#pragma once

#include <atomic>
#include <climits>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace NSCam {
namespace NSKorvalite {

// A loop body run by a ThreadLoopHandler. The handler calls readyToRun() once and then
// threadLoop() on its worker thread, never with its lock held; requestExit() comes from any thread
// with the handler's lock held.
class [[gnu::visibility("default")]] IThreadLoop {
public:
    // What the handler hands the body once, on the new thread, before the first iteration.
    struct ReadyToRun {
        std::string threadName;  // the thread's name; empty when none was set
        int policy = INT_MIN;    // INT_MIN: none requested
        int priority = INT_MIN;  // INT_MIN: none requested
    };

    virtual ~IThreadLoop() = default;
    // Asks the body to leave its loop. Called with the handler's lock held: must not call back
    // into the handler. Must not block.
    virtual void requestExit() {}
    // Called once on the worker thread; non-zero stops the worker before its first iteration.
    virtual int readyToRun(ReadyToRun const&) { return 0; }
    // Older form; the handler never calls it.
    virtual int readyToRun(std::string const&) { return 0; }
    // One iteration on the worker thread; false ends the thread.
    virtual bool threadLoop() = 0;
};

// Owns one detached worker thread that runs an IThreadLoop. Always held by a shared_ptr (make());
// while it runs, the worker holds strong references to the handler and the body, so either may
// be destroyed on the worker thread. From the second iteration on the worker keeps them only
// weakly between iterations: once every outside owner of either is gone, the worker ends after
// its current iteration without notifying anyone (the handler is then "abandoned": it still
// counts as running, so run() refuses and requestExitAndWait() would wait for ever).
class [[gnu::visibility("default")]] ThreadLoopHandler
    : public std::enable_shared_from_this<ThreadLoopHandler> {
public:
    // Never null.
    static std::shared_ptr<ThreadLoopHandler> make();

    // Name, policy and priority for the next run(); the worker copies them when it starts.
    // The kernel keeps at most 15 characters of the name. INT_MIN for either number applies no
    // priority. Any thread, also from the body.
    void setThreadName(std::string name);
    void setThreadPriority(int policy, int priority);

    // Starts a detached worker running `loop` and returns 0, or returns -ENOSYS, silently and
    // changing nothing, while a worker runs. It does not wait for the body; only when the
    // customer setting is on and the name is one the report-thread registry wants does it wait,
    // holding the handler's lock, until the new thread has published its id. A null `loop` is fatal on the
    // worker. Aborts the process, even inside a caller's try block, when the handler is not owned
    // by a shared_ptr or the thread cannot be created. Any thread but the worker.
    int run(std::shared_ptr<IThreadLoop> const& loop) noexcept;

    // Marks the exit as pending and forwards requestExit() to the body, under the handler's lock,
    // if the body is alive. Does not wait. Any thread, also from the body's threadLoop().
    void requestExit();

    // requestExit(), then blocks until the worker has left its loop. Returns 0 (at once when no
    // worker runs), or -EAGAIN from the same-thread guard. Never call it from the worker: it
    // would wait for ever.
    int requestExitAndWait();

    // Whether an exit was requested (or the worker finished). Any thread.
    bool exitPending() const;

    // The worker's body; the thread's entry point. Always 0.
    static int _threadLoop(ThreadLoopHandler* self);

    // Use make(): run() aborts on a handler that no shared_ptr owns.
    ThreadLoopHandler() = default;
    // Releases the members only: neither requests an exit nor waits.
    ~ThreadLoopHandler();

private:
    std::thread mThread;  // guarded by mMutex; empty except inside run(), which detaches it
    // Kernel id of the latest worker, -1 until that worker has published it. Atomic because the
    // worker writes it before it first takes mMutex, while run() may be holding mMutex and waiting
    // for it (the report-thread registration needs the id and glibc has no pthread_gettid_np).
    std::atomic<int> mTid{-1};
    std::condition_variable mCond;  // with mMutex; signalled when the worker leaves its loop
    mutable std::mutex mMutex;      // guards every member below, and mThread
    std::string mThreadName;
    int mPolicy = INT_MIN;
    int mPriority = INT_MIN;
    bool mExitPending = false;  // an exit was requested, or the worker finished
    bool mRunning = false;      // a worker was started and has not left through the exit step
    // Handed from run() to the worker, which takes them over (reads and clears them) without the
    // lock: run() sets them before it creates the thread and nobody else writes them while
    // mRunning is set.
    std::shared_ptr<ThreadLoopHandler> mSelf;
    std::shared_ptr<IThreadLoop> mLoop;
    std::weak_ptr<IThreadLoop> mWeakLoop;  // for requestExit(); kept after the run
};

}  // namespace NSKorvalite
}  // namespace NSCam
