// The raw epoll loop, the libevent loop and the EpollMonitor adapter.
#include "Peers.h"

#include <errno.h>
#include <event2/event.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

namespace korvbench {

using NSCam::NSKorvalite::EpollMonitor;
using NSCam::NSKorvalite::IEventObserver;
using NSCam::NSKorvalite::ThreadLoopHandler;

namespace {

[[noreturn]] void die(char const* what) {
    fprintf(stderr, "korv_bench: %s: %s\n", what, strerror(errno));
    abort();
}

int makeEventFd() {
    int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) die("eventfd");
    return fd;
}

}  // namespace

// --- Raw epoll ----------------------------------------------------------------------------

namespace {

template <class Work>
struct WorkHandler : RawEpollPeer::Handler {
    explicit WorkHandler(Work* work) : mWork(work) {}
    void onEvent(uint32_t) override { mWork->fire(); }
    Work* mWork;
};

struct ExitHandler : RawEpollPeer::Handler {
    ExitHandler(int fd, bool* exit) : mFd(fd), mExit(exit) {}
    void onEvent(uint32_t) override {
        drainFd(mFd);
        *mExit = true;
    }
    int mFd;
    bool* mExit;
};

}  // namespace

RawEpollPeer::RawEpollPeer(int maxEvents)
    : mMaxEvents(maxEvents), mEpollFd(epoll_create1(EPOLL_CLOEXEC)), mExitFd(makeEventFd()) {
    if (mEpollFd < 0) die("epoll_create1");
    add(mExitFd, std::make_unique<ExitHandler>(mExitFd, &mExit));
}

RawEpollPeer::~RawEpollPeer() {
    stop();
    close(mExitFd);
    close(mEpollFd);
}

void RawEpollPeer::add(int fd, std::unique_ptr<Handler> handler, uint32_t events) {
    epoll_event event = {};
    event.events = events;
    event.data.ptr = handler.get();
    if (epoll_ctl(mEpollFd, EPOLL_CTL_ADD, fd, &event) != 0) die("epoll_ctl");
    mHandlers.push_back(std::move(handler));
}

void RawEpollPeer::addPingPong(PingPong* work) {
    add(work->fd, std::make_unique<WorkHandler<PingPong>>(work));
}
void RawEpollPeer::addGate(Gate* work) {
    add(work->fd, std::make_unique<WorkHandler<Gate>>(work));
}
void RawEpollPeer::addDrain(Drain* work) {
    add(work->fd, std::make_unique<WorkHandler<Drain>>(work));
}
void RawEpollPeer::addTimerTick(TimerTick* work) {
    add(work->fd, std::make_unique<WorkHandler<TimerTick>>(work),
        work->rearm ? EPOLLIN | EPOLLET : EPOLLIN);
}

void RawEpollPeer::loop() {
    std::vector<epoll_event> buffer(static_cast<size_t>(mMaxEvents));
    epoll_event* events = buffer.data();
    while (!mExit) {
        int count = epoll_wait(mEpollFd, events, mMaxEvents, -1);
        if (count < 0) {
            if (errno == EINTR) continue;
            die("epoll_wait");
        }
        for (int i = 0; i < count; ++i) {
            static_cast<Handler*>(events[i].data.ptr)->onEvent(events[i].events);
        }
    }
}

void RawEpollPeer::start() {
    mThread = std::thread([this] {
        pthread_setname_np(pthread_self(), "bench-raw");
        loop();
    });
}

void RawEpollPeer::stop() {
    if (!mThread.joinable()) return;
    signalFd(mExitFd);
    mThread.join();
}

// --- EpollMonitor -------------------------------------------------------------------------

namespace {

template <class Work>
class Observer : public IEventObserver {
public:
    explicit Observer(Work* work) : mWork(work) {}
    int getEventFD() const override { return mWork->fd; }
    void onEvent(OnEvent const&) override { mWork->fire(); }

private:
    Work* mWork;
};

}  // namespace

MonitorPeer::MonitorPeer()
    : mMonitor(std::make_shared<EpollMonitor>("bench")), mHandler(ThreadLoopHandler::make()) {}

MonitorPeer::~MonitorPeer() {
    stop();
}

template <class Work>
void MonitorPeer::add(Work* work) {
    auto observer = std::make_unique<Observer<Work>>(work);
    mMonitor->attach(observer.get(), EPOLLIN);
    mObservers.push_back(std::move(observer));
}

void MonitorPeer::addPingPong(PingPong* work) {
    add(work);
}
void MonitorPeer::addGate(Gate* work) {
    add(work);
}
void MonitorPeer::addDrain(Drain* work) {
    add(work);
}

void MonitorPeer::start() {
    mHandler->setThreadName("bench-monitor");
    // The same scheduling as every other loop under test. Left unset, the monitor would give its
    // own thread SCHED_RR: a different race on a loaded machine, not a cheaper dispatch.
    mHandler->setThreadPriority(SCHED_OTHER, 0);
    if (mHandler->run(mMonitor) != 0) {
        fprintf(stderr, "korv_bench: the monitor's handler refused to run\n");
        abort();
    }
    mRunning = true;
}

void MonitorPeer::stop() {
    if (!mRunning) return;
    mRunning = false;
    mHandler->requestExitAndWait();
    for (auto& observer : mObservers) mMonitor->detach(observer.get());
    mObservers.clear();
}

// --- libevent ------------------------------------------------------------------------------

namespace {

class LibeventPeer : public PeerLoop {
public:
    LibeventPeer() : mBase(event_base_new()), mExitFd(makeEventFd()) {
        if (mBase == nullptr) die("event_base_new");
        if (strcmp(event_base_get_method(mBase), "epoll") != 0) {
            fprintf(stderr, "korv_bench: libevent chose %s, not epoll\n",
                    event_base_get_method(mBase));
            abort();
        }
        addEvent(mExitFd, &LibeventPeer::onExit, mBase);
    }
    ~LibeventPeer() override {
        stop();
        for (event* e : mEvents) event_free(e);
        event_base_free(mBase);
        close(mExitFd);
    }

    char const* name() const override { return "libevent"; }
    void addPingPong(PingPong* work) override { addEvent(work->fd, &onWork<PingPong>, work); }
    void addGate(Gate* work) override { addEvent(work->fd, &onWork<Gate>, work); }
    void addDrain(Drain* work) override { addEvent(work->fd, &onWork<Drain>, work); }

    void start() override {
        mThread = std::thread([this] {
            pthread_setname_np(pthread_self(), "bench-libevent");
            event_base_dispatch(mBase);
        });
    }
    void stop() override {
        if (!mThread.joinable()) return;
        signalFd(mExitFd);
        mThread.join();
    }

private:
    template <class Work>
    static void onWork(evutil_socket_t, short, void* work) {
        static_cast<Work*>(work)->fire();
    }
    static void onExit(evutil_socket_t fd, short, void* base) {
        drainFd(fd);
        event_base_loopbreak(static_cast<event_base*>(base));
    }

    void addEvent(int fd, event_callback_fn callback, void* arg) {
        event* e = event_new(mBase, fd, EV_READ | EV_PERSIST, callback, arg);
        if (e == nullptr || event_add(e, nullptr) != 0) die("event_add");
        mEvents.push_back(e);
    }

    event_base* mBase;
    int mExitFd;
    std::vector<event*> mEvents;
    std::thread mThread;
};

}  // namespace

std::unique_ptr<PeerLoop> makeLibeventPeer() {
    return std::make_unique<LibeventPeer>();
}

}  // namespace korvbench
