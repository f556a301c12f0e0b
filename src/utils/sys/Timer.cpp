// Timer on a timerfd that is itself an event observer.
#define LOG_TAG "korvalite-Timer"
#define KORV_SOURCE_PATH "src/utils/sys/Timer"

#include <korvalite/Timer.h>

#include <stdint.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <locale>
#include <sstream>
#include <utility>

#include <korvalite/SystemCall.h>
#include <qrvcam/Properties.h>

#include "KorvLog.h"

namespace NSCam {
namespace NSKorvalite {

namespace {

// Source lines that the fatal construction texts carry.
constexpr int kBadFdLine = 103;
constexpr int kBadNotifyTimeoutLine = 104;

char const kLogVProperty[] = "persist.vendor.camera.korvalite.timer.logv";

// The texts are for logs that tools compare: in the classic locale, whatever the client's global
// locale (one that groups digits would print ".fd=1,4").
std::ostringstream classicStream() {
    std::ostringstream os;
    os.imbue(std::locale::classic());
    return os;
}

// Seconds, a dot, then the nanoseconds without leading zeros: 1 s + 5 ns reads "1.5", half a
// second reads "0.500000000". Misleading at a glance, but it is the timer's established log
// format, which tools and people compare line for line: do not "fix" it with zero padding.
std::string toString(timespec const& ts) {
    std::ostringstream os = classicStream();
    os << ts.tv_sec << '.' << ts.tv_nsec;
    return os.str();
}

std::string toString(itimerspec const& its) {
    std::ostringstream os = classicStream();
    os << "{ .it_interval=" << toString(its.it_interval) << " .it_value=" << toString(its.it_value)
       << " }";
    return os.str();
}

bool isZero(timespec const& ts) {
    return ts.tv_sec == 0 && ts.tv_nsec == 0;
}

// The verbose line of the arming operations; the text is built only when the line is written.
void logArming(bool logV, std::string const& name, char const* operation, itimerspec const& its) {
    if (!logV || !korvlog::detailsEnabled(korvlog::kLevelDetails)) return;
    KORV_LOG_AT_LEVEL(korvlog::kLevelDetails, ANDROID_LOG_DEBUG, "[%s] %-7s: %s", operation,
                      name.c_str(), toString(its).c_str());
}

}  // namespace

Timer::Timer(char const* name, int clockid, std::function<void()> notifyTimeout)
    : mLogV(Utils::Properties::property_get_int32(kLogVProperty, 0) != 0),
      mName(std::string("Timer-") + (name != nullptr ? name : "?")),
      mFd(System::TimerFDCreate(clockid, TFD_CLOEXEC | TFD_NONBLOCK,
                                reinterpret_cast<uintptr_t>(&mFd))),
      mEvents(static_cast<int>(EPOLLIN | EPOLLET)),
      mNotifyTimeout(std::move(notifyTimeout)) {
    if (mFd < 0) {
        KORV_FATAL_AT(kBadFdLine, "[%s] Bad fd:%d", "Timer", mFd);
    }
    if (!mNotifyTimeout) {
        KORV_FATAL_AT(kBadNotifyTimeoutLine, "[%s] Bad mNotifyTimeout", "Timer");
    }
}

Timer::~Timer() {
    System::Close(mFd, reinterpret_cast<uintptr_t>(&mFd));
}

int Timer::getEventFD() const {
    return mFd;
}

std::string const& Timer::getEventName() const {
    return mName;
}

int Timer::getEventType() const {
    return mEvents;
}

void Timer::startTimerAbsoluteTime(timespec const* value, timespec const* interval) {
    itimerspec const setting = {*interval, *value};
    {
        std::lock_guard<std::mutex> lock(mMutex);
        System::TimerFDSetTime(mFd, TFD_TIMER_ABSTIME, &setting, nullptr);
    }
    logArming(mLogV, mName, "startTimerAbsoluteTime", setting);
}

void Timer::stopTimer() {
    itimerspec const setting = {};
    {
        std::lock_guard<std::mutex> lock(mMutex);
        System::TimerFDSetTime(mFd, 0, &setting, nullptr);
    }
    logArming(mLogV, mName, "stopTimer", setting);
}

void Timer::enableEdgeTrigger() {
    // Zeroed so that a failed get re-arms with nothing, i.e. disarms: the wrapper has logged it.
    itimerspec current = {};
    {
        // Get and set under one lock: a start or stop from another thread between them would be
        // overwritten with the time read before it.
        std::lock_guard<std::mutex> lock(mMutex);
        System::TimerFDGetTime(mFd, &current);
        // A periodic timer read at the instant its next expiry is due, before the kernel has
        // delivered it, reports a remaining time of 0 (the kernel clamps the negative rest).
        // Setting that back relatively would disarm the timer for good: a zero it_value means
        // "off", and nothing would ever arm it again (it happens several times a minute under
        // load). 1 ns lets the due expiry arrive at once and keeps the interval. Only a timer
        // with a zero interval, an expired one-shot, stays disarmed. Do not drop this for
        // "symmetry" with the plain re-arm: the periodic timers of the pipeline would stop.
        if (isZero(current.it_value) && !isZero(current.it_interval)) {
            current.it_value.tv_nsec = 1;
        }
        // Setting the time resets the expiry count, so the descriptor is no longer readable and
        // the next expiry is a new edge for the monitor's EPOLLET wait. This stands in for a
        // read(): the timer never reads its descriptor.
        System::TimerFDSetTime(mFd, 0, &current, nullptr);
    }
    logArming(mLogV, mName, "enableEdgeTrigger", current);
}

void Timer::onEvent(IEventObserver::OnEvent const&) noexcept {
    // Keeps the timer alive while the callback runs, even if the client drops its last reference
    // meanwhile. On a timer that no shared_ptr owns this aborts the process right here: the
    // library has no exceptions, and onEvent is noexcept so that a build with them ends here too
    // rather than unwinding through the monitor's loop.
    std::shared_ptr<Timer> self = shared_from_this();
    if (self == nullptr) {
        KORV_LOGW("[%s] Timer instance has gone", "onEvent");
        return;
    }
    // Without the lock: the callback may start or stop this timer, and the re-arm below then
    // keeps whatever it set (a callback that stops the timer leaves it stopped).
    mNotifyTimeout();
    enableEdgeTrigger();
}

std::string Timer::toString() const {
    std::ostringstream os = classicStream();
    os << "{ " << mName << " .fd=" << mFd << " .event=" << std::hex
       << static_cast<unsigned int>(mEvents) << " }";
    return os.str();
}

void Timer::dumpState(NSCam::IPrinter* printer) const {
    printer->printFormatLine("%s", toString().c_str());
}

}  // namespace NSKorvalite
}  // namespace NSCam
