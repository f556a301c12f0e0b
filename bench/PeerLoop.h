// What every event loop under test runs, and the interface each loop is driven through.
//
// The callbacks' work is the same inline code for every loop (the work structs below); each loop
// only adds its own way of reaching it. This header is also compiled into the Looper peer, which
// is built against /usr/include/android alone: it must include nothing of the project.
#pragma once

#include <stdint.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace korvbench {

inline int64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// CPU time of the calling thread: unlike the wall clock it leaves out the time the thread was
// preempted or its virtual CPU stolen, which on the shared 2-core machines is most of the noise of
// a CPU-bound figure. A system call (about 0.2 us): only around whole rounds or bursts.
inline int64_t threadCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Plain calls on eventfds: the same cost for every loop under test.
inline void drainFd(int fd) {
    uint64_t value;
    ssize_t n = read(fd, &value, sizeof(value));
    (void)n;
}
inline void signalFd(int fd) {
    uint64_t const one = 1;
    ssize_t n = write(fd, &one, sizeof(one));
    (void)n;
}

// Wake-to-callback round trip: the client writes `ping`, the callback answers through `pong`.
// The first callback also names the loop's thread, so that the client can place it.
struct PingPong {
    int fd;  // ping
    int pong;
    std::atomic<int> loopTid{0};
    void fire() {
        if (loopTid.load(std::memory_order_relaxed) == 0) {
            loopTid.store(static_cast<int>(gettid()), std::memory_order_relaxed);
        }
        drainFd(fd);
        signalFd(pong);
    }
};

// One dispatch burst: the client makes `target` descriptors ready while the loop is held in the
// gate's callback, then releases it; the loop then dispatches them all, each callback draining its
// descriptor (level-triggered, so an undrained one would come back). The time is taken on the
// loop thread only, from the release to the last callback, so the client's writes are not in it:
// the wall time, and the loop thread's CPU time, which the figures use.
struct Burst {
    int gateFd;
    int doneFd;
    std::atomic<unsigned> target{0};      // written by the client while the loop is idle
    std::atomic<unsigned> dispatched{0};  // reset by the client while idle; else the loop's
    std::atomic<bool> released{false};
    std::atomic<int64_t> startNs{0};
    std::atomic<int64_t> endNs{0};
    std::atomic<int64_t> startCpuNs{0};
    std::atomic<int64_t> endCpuNs{0};
    // Heap allocations made on the loop thread during the burst, when the host counts them.
    uint64_t (*allocCount)() = nullptr;
    std::atomic<uint64_t> allocStart{0};
    std::atomic<uint64_t> allocEnd{0};
};

struct Gate {
    int fd;
    Burst* burst;
    void fire() {
        drainFd(fd);
        while (!burst->released.load(std::memory_order_acquire)) {
            __builtin_ia32_pause();
        }
        if (burst->allocCount != nullptr) {
            burst->allocStart.store(burst->allocCount(), std::memory_order_relaxed);
        }
        burst->startNs.store(nowNs(), std::memory_order_relaxed);
        burst->startCpuNs.store(threadCpuNs(), std::memory_order_relaxed);
    }
};

struct Drain {
    int fd;
    Burst* burst;
    void fire() {
        drainFd(fd);
        // Only the loop thread writes while a burst runs: a load and a store, no locked add.
        unsigned count = burst->dispatched.load(std::memory_order_relaxed) + 1;
        burst->dispatched.store(count, std::memory_order_relaxed);
        if (count == burst->target.load(std::memory_order_relaxed)) {
            burst->endCpuNs.store(threadCpuNs(), std::memory_order_relaxed);
            burst->endNs.store(nowNs(), std::memory_order_relaxed);
            if (burst->allocCount != nullptr) {
                burst->allocEnd.store(burst->allocCount(), std::memory_order_relaxed);
            }
            signalFd(burst->doneFd);
        }
    }
};

// An event loop on its own thread. add*() before start(); the work objects must outlive stop().
class PeerLoop {
public:
    virtual ~PeerLoop() = default;
    virtual char const* name() const = 0;
    // Each registers the work's descriptor for input, level-triggered.
    virtual void addPingPong(PingPong* work) = 0;
    virtual void addGate(Gate* work) = 0;
    virtual void addDrain(Drain* work) = 0;
    virtual void start() = 0;
    // Ends the loop and joins its thread.
    virtual void stop() = 0;
};

}  // namespace korvbench

extern "C" {
// Exported by the Looper peer's shared object.
typedef korvbench::PeerLoop* (*korv_bench_make_looper_peer_t)();
}
