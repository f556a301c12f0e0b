// Thread-loop handler: one detached worker thread running an IThreadLoop body.
#pragma once

#include <climits>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace NSCam {
namespace NSKorvalite {

// A loop body run by a ThreadLoopHandler.
class IThreadLoop {
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
// be destroyed on the worker thread.
class ThreadLoopHandler : public std::enable_shared_from_this<ThreadLoopHandler> {
public:
    // Never null.
    static std::shared_ptr<ThreadLoopHandler> make();

    // Name, policy and priority for the next run(); the worker copies them when it starts.
    // Any thread.
    void setThreadName(std::string name);
    void setThreadPriority(int policy, int priority);

    // Starts the worker running `loop`. Returns 0, or -ENOSYS (silently) while a worker runs.
    // Aborts the process when the handler is not owned by a shared_ptr. Any thread.
    int run(std::shared_ptr<IThreadLoop> const& loop) noexcept;

    // Marks the exit as pending and forwards requestExit() to the body if it is alive.
    // Does not wait. Any thread.
    void requestExit();

    // requestExit(), then blocks until the worker has left its loop. Returns 0, or -EAGAIN from
    // the same-thread guard. Must not be called from the worker (it would wait for ever).
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
    std::thread mThread;           // empty except inside run(): detached before run() returns
    int mTid = -1;                 // written by the worker when it starts; never reset
    std::condition_variable mCond; // signalled when the worker leaves its loop
    mutable std::mutex mMutex;     // guards every member below
    std::string mThreadName;
    int mPolicy = INT_MIN;
    int mPriority = INT_MIN;
    bool mExitPending = false;     // an exit was requested, or the worker finished
    bool mRunning = false;         // a worker was started and has not left through the exit step
    std::shared_ptr<ThreadLoopHandler> mSelf;  // handed from run() to the worker
    std::shared_ptr<IThreadLoop> mLoop;        // handed from run() to the worker
    std::weak_ptr<IThreadLoop> mWeakLoop;      // for requestExit(); kept after the run
};

}  // namespace NSKorvalite
}  // namespace NSCam
