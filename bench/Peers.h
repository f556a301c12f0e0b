// The loops under test that live in the benchmark itself: the library's EpollMonitor, a raw epoll
// loop (the floor) and libevent. android::Looper lives in its own shared object (LooperPeer.cpp).
#pragma once

#include <korvalite/EpollMonitor.h>
#include <sys/timerfd.h>

#include <memory>
#include <thread>
#include <vector>

#include "PeerLoop.h"

namespace korvbench {

// Lateness of a periodic timer's expiries, recorded on the loop thread from inside the callback.
// The callback reads the timer's remaining time first: the kernel moves a periodic timerfd to its
// next expiry when it is read or asked for its time, so (interval - remaining) is how long after
// the current expiry the callback ran, whoever re-arms the timer and however its phase drifts.
struct LatenessLog {
    int64_t intervalNs = 1000000;
    int doneFd = -1;
    size_t want = 0;
    std::vector<int64_t> samples;  // capacity reserved by the client: no allocation on the loop
    std::atomic<bool> armed{false};
    int64_t previousExpiryNs = 0;
    unsigned missed = 0;  // expiries that never got a callback of their own

    // Client side, while disarmed.
    void reset(size_t count) {
        samples.clear();
        samples.reserve(count);
        want = count;
        previousExpiryNs = 0;
        armed.store(true, std::memory_order_release);
    }

    void record(int timerFd) {
        if (!armed.load(std::memory_order_acquire)) return;
        itimerspec current;
        if (timerfd_gettime(timerFd, &current) != 0) return;
        int64_t now = nowNs();
        int64_t remaining =
                current.it_value.tv_sec * INT64_C(1000000000) + current.it_value.tv_nsec;
        if (remaining == 0) return;  // disarmed meanwhile
        int64_t expiry = now + remaining - intervalNs;
        if (previousExpiryNs != 0 && expiry - previousExpiryNs > intervalNs * 3 / 2) {
            missed += static_cast<unsigned>((expiry - previousExpiryNs - intervalNs / 2) /
                                            intervalNs);
        }
        previousExpiryNs = expiry;
        samples.push_back(intervalNs - remaining);
        if (samples.size() == want) {
            armed.store(false, std::memory_order_relaxed);
            signalFd(doneFd);
        }
    }
};

// The raw loop's timer work: record, then either read the expiry count as a plain timerfd loop
// does, or re-arm the timer as the library's Timer does (the remaining time read back and set
// again relative, 1 ns when it reads zero), which takes two calls instead of one.
struct TimerTick {
    int fd;
    LatenessLog* log;
    bool rearm;
    void fire() {
        log->record(fd);
        if (!rearm) {
            drainFd(fd);
            return;
        }
        itimerspec current = {};
        timerfd_gettime(fd, &current);
        if (current.it_value.tv_sec == 0 && current.it_value.tv_nsec == 0 &&
            (current.it_interval.tv_sec != 0 || current.it_interval.tv_nsec != 0)) {
            current.it_value.tv_nsec = 1;
        }
        timerfd_settime(fd, 0, &current, nullptr);
    }
};

// A hand-written epoll loop doing nothing else: one epoll_wait for up to `maxEvents` events (64,
// as the monitor takes them) and one virtual call per ready descriptor.
class RawEpollPeer : public PeerLoop {
public:
    explicit RawEpollPeer(int maxEvents = 64);
    ~RawEpollPeer() override;
    char const* name() const override { return "raw epoll"; }
    void addPingPong(PingPong* work) override;
    void addGate(Gate* work) override;
    void addDrain(Drain* work) override;
    // Edge-triggered when the tick re-arms, as the Timer is attached.
    void addTimerTick(TimerTick* work);
    void start() override;
    void stop() override;

    struct Handler {
        virtual ~Handler() = default;
        virtual void onEvent(uint32_t events) = 0;
    };

private:
    void add(int fd, std::unique_ptr<Handler> handler, uint32_t events = EPOLLIN);
    void loop();

    int mMaxEvents;
    int mEpollFd;
    int mExitFd;
    bool mExit = false;  // the loop thread's
    std::vector<std::unique_ptr<Handler>> mHandlers;
    std::thread mThread;
};

// The library's monitor, run by its ThreadLoopHandler.
class MonitorPeer : public PeerLoop {
public:
    MonitorPeer();
    ~MonitorPeer() override;
    char const* name() const override { return "EpollMonitor"; }
    void addPingPong(PingPong* work) override;
    void addGate(Gate* work) override;
    void addDrain(Drain* work) override;
    void start() override;
    void stop() override;
    NSCam::NSKorvalite::IEpollMonitor& monitor() { return *mMonitor; }

private:
    template <class Work>
    void add(Work* work);

    std::shared_ptr<NSCam::NSKorvalite::EpollMonitor> mMonitor;
    std::shared_ptr<NSCam::NSKorvalite::ThreadLoopHandler> mHandler;
    std::vector<std::unique_ptr<NSCam::NSKorvalite::IEventObserver>> mObservers;
    bool mRunning = false;
};

std::unique_ptr<PeerLoop> makeLibeventPeer();

}  // namespace korvbench
