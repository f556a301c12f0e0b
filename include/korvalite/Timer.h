// Timer on a timerfd that is itself an event observer.
#pragma once

#include <time.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <korvalite/EpollMonitor.h>
#include <qrvcam/IPrinter.h>

namespace NSCam {
namespace NSKorvalite {

// The client attaches the timer to a monitor with getEventType(); each expiry calls the callback
// on the monitor's thread. Must be owned by a shared_ptr before it receives events. The timer holds
// no reference to any monitor: detach it before destroying it.
class [[gnu::visibility("default")]] Timer
    : public IEventObserver, public std::enable_shared_from_this<Timer> {
public:
    // `name` may be null ("Timer-?"). `clockid` is passed to timerfd_create() as it is. Reads the
    // verbose switch now: a later change of the property affects only timers made afterwards.
    // Fatal when the timerfd cannot be made or the callback is empty. The timer starts disarmed.
    Timer(char const* name, int clockid, std::function<void()> notifyTimeout);
    // Closes the timerfd; neither stops the timer nor detaches it from a monitor (the client must
    // have detached it).
    ~Timer() override;

    // IEventObserver
    int getEventFD() const override;
    // The expiry handler, on the monitor's thread: calls the callback without the timer's lock,
    // then re-arms (enableEdgeTrigger) with what the timer reads back: a stop stays a stop and a
    // time still ahead stays armed, but an expiry already due when the callback armed the timer
    // is cleared before the monitor sees it (a one-shot ends disarmed, a periodic timer goes on
    // from its next period). `event` is not looked at. Keeps the timer alive for the call;
    // aborts when no shared_ptr owns the timer.
    void onEvent(IEventObserver::OnEvent const& event) noexcept override;

    // "Timer-<name>". Immutable.
    virtual std::string const& getEventName() const;
    // EPOLLIN | EPOLLET: the events to attach the timer with.
    virtual int getEventType() const;

    // Arms the timer: first expiry at the absolute time `value` on the timer's clock, then every
    // `interval` (zero: once); a zero `value` disarms, as timerfd_settime() does. Both must be
    // valid. Any thread; from the callback, a `value` already reached is lost to the re-arm that
    // follows it (see onEvent).
    void startTimerAbsoluteTime(timespec const* value, timespec const* interval);
    // Disarms the timer. Any thread.
    void stopTimer();
    // Re-arms with the remaining time and the same interval, which clears the expiry count so
    // that the next expiry is a new edge. An expired one-shot stays disarmed; a periodic timer
    // whose next expiry is due but not yet delivered is re-armed with 1 ns, never disarmed.
    // Any thread.
    void enableEdgeTrigger();

    // "{ Timer-<name> .fd=<fd> .event=<hex> }". Any thread.
    std::string toString() const;
    // Prints toString() as one line. Any thread.
    void dumpState(NSCam::IPrinter* printer) const;

private:
    // Immutable after construction.
    bool mLogV;
    std::string mName;
    int mFd;  // owned; tagged with its own address
    int mEvents;
    std::function<void()> mNotifyTimeout;  // called on the monitor's thread, without mMutex
    mutable std::mutex mMutex;  // serialises the timerfd get/set calls; never held for callbacks
};

}  // namespace NSKorvalite
}  // namespace NSCam
