// Event monitor: one thread waits on an epoll set and calls the observer of each ready descriptor.
#pragma once

#include <korvalite/ThreadLoop.h>
#include <qrvcam/IPrinter.h>
#include <stdint.h>
#include <sys/epoll.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace NSCam {
namespace NSKorvalite {

class IEpollMonitor;

// Observer of one descriptor.
class [[gnu::visibility("default")]] IEventObserver {
public:
    // What the monitor passes to onEvent().
    struct OnEvent {
        IEpollMonitor* monitor;  // the dispatching monitor
        uint32_t events;         // the ready epoll mask (EPOLLIN, EPOLLERR, ...)
    };

    virtual ~IEventObserver() = default;
    // The observed descriptor. Must stay the same while the observer is attached.
    virtual int getEventFD() const = 0;
    // Called on the monitor's thread when the descriptor is ready, with no lock held: it may
    // attach, modify and detach observers, itself included.
    virtual void onEvent(OnEvent const& event) = 0;
};

class [[gnu::visibility("default")]] IEpollMonitor {
public:
    virtual ~IEpollMonitor() = default;
    // Prints two lines of state into `printer`. Any thread.
    virtual void dumpState(NSCam::IPrinter* printer) const = 0;
    // "P2DrvEP-" followed by the name given to make(). Immutable.
    virtual std::string const& getName() const = 0;
    // Registers the observer's descriptor for `events` (the epoll mask, as given; nothing is
    // added). Fatal when the descriptor is already attached or the kernel refuses it. Blocks only
    // on the table lock. Any thread, also from onEvent(). The monitor does not own the observer,
    // which must stay alive until it is detached and no batch of the monitor's thread can still
    // name it (detach it from its own onEvent(), or stop the loop first).
    virtual void attach(IEventObserver* observer, int events) = 0;
    // Changes the events of an attached descriptor, and makes `observer` the one called for it.
    // Takes no lock and leaves the table alone. Fatal when the kernel refuses it. Any thread.
    virtual void modify(IEventObserver* observer, int events) = 0;
    // Unregisters the observer's descriptor (observers are identified by descriptor alone).
    // Fatal when it is not attached. Any thread, also from onEvent(). An event of the current
    // batch may still reach the observer after detach() returns on another thread.
    virtual void detach(IEventObserver* observer) = 0;

    // A new monitor named "P2DrvEP-<name>" ("P2DrvEP-?" for null). Never null; construction
    // failures are fatal. Run it with a ThreadLoopHandler (the object is an EpollMonitor, which
    // is an IThreadLoop); every observer callback then runs on that handler's thread.
    static std::shared_ptr<IEpollMonitor> make(char const* name);
};

class [[gnu::visibility("default")]] EpollMonitor
    : public IEpollMonitor, public IThreadLoop, public IEventObserver {
public:
    explicit EpollMonitor(char const* name);
    // Closes the monitor's own two descriptors only: attached observers are not told and their
    // descriptors stay open. The loop must have ended first (requestExitAndWait() on the handler).
    ~EpollMonitor() override;

    // IEpollMonitor
    void dumpState(NSCam::IPrinter* printer) const override;
    std::string const& getName() const override;
    void attach(IEventObserver* observer, int events) override;
    void modify(IEventObserver* observer, int events) override;
    void detach(IEventObserver* observer) override;

    // IEventObserver: the monitor observes its own wake-up descriptor (non-blocking eventfd,
    // never in the table). onEvent() drains it on the monitor's thread.
    int getEventFD() const override;
    void onEvent(OnEvent const& event) override;

    // IThreadLoop
    // Any thread, also from onEvent(); does not wait. The loop ends after the batch in progress
    // when the request arrives (the wake-up then stays undrained), or, when it was waiting, after
    // the batch that the wake-up starts; before the loop has started, it returns at once.
    void requestExit() override;
    // On the monitor's thread, once: default policy and priority (only when the handler gave
    // none), platform customisation and affinity. Always 0.
    int readyToRun(ReadyToRun const& r) override;
    using IThreadLoop::readyToRun;
    // The monitor's whole working life, on its thread: waits and dispatches until requestExit(),
    // then returns false. Returns at once when requestExit() came first.
    bool threadLoop() override;

    // mAttachCount - mDetachCount. Any thread.
    int determineFdObserverCount() const;
    // "{ <name> .mEpollFd=<fd> .mEventFd=<fd> }". Any thread.
    std::string toString_config() const;
    // Counters, running flag and the descriptor table. Takes the table lock only to copy it:
    // never call it with that lock held.
    std::string toString_runtime() const;
    static std::string toString_FdObserverMap(std::unordered_map<int, IEventObserver*> const& map);

    // Loop internals, for the monitor's own thread only: threadLoop() calls them there, and
    // requestExit() calls sendInterruptEvent() on its caller's thread. They are public members,
    // not an interface for clients: from another thread, tryEpoll() and handleEvents() would race
    // the loop over mEvents and the observers' callbacks. tryEpoll: 1 events handled, 0 timed
    // out, -2 interrupted by a signal; other wait errors are fatal.
    int tryEpoll(int timeoutMs);
    void handleEvents(epoll_event* events, unsigned long count);
    bool isInterruptEvent(unsigned int events) const;
    void sendInterruptEvent();

private:
    static constexpr int kMaxEvents = 64;

    // Immutable after construction.
    std::string mName;
    std::string mFdObserverTraceName;
    std::string mFdObserverCountTraceName;
    std::string mAttachTraceName;
    std::string mModifyTraceName;
    std::string mDetachTraceName;
    int32_t mLogv;
    int32_t mEpollTimeoutMs;
    int32_t mEpollFd;  // owned; tagged with its own address
    int32_t mEventFd;  // owned; tagged with its own address

    std::atomic<uint32_t> mAttachCount;  // attach() calls ever made; statistics, relaxed
    std::atomic<uint32_t> mDetachCount;  // successful detach() calls; statistics, relaxed
    std::atomic<bool> mActive;           // the loop runs while true; cleared by requestExit()

    epoll_event mEvents[kMaxEvents];  // receive buffer; the monitor's thread only

    mutable std::mutex mFdObserverMapLock;  // guards mFdObserverMap and the epoll changes of it
    // Every descriptor ever attached: the observer while attached, null once detached.
    std::unordered_map<int, IEventObserver*> mFdObserverMap;
};

}  // namespace NSKorvalite
}  // namespace NSCam
