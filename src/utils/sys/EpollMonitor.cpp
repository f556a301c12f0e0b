#define LOG_TAG "korvalite-EpollMonitor"
#define KORV_SOURCE_PATH "src/utils/sys/EpollMonitor"

#include <errno.h>
#include <korvalite/EpollMonitor.h>
#include <korvalite/SystemCall.h>
#include <qrvcam/CustomCamUad.h>
#include <qrvcam/Properties.h>
#include <qrvcam/Utils.h>
#include <qrvcam/perfctrl.h>
#include <qrvcam/ulog/ULog.h>
#include <string.h>
#include <sys/eventfd.h>

#include <climits>
#include <locale>
#include <sstream>

#include "KorvLog.h"

namespace NSCam {
namespace NSKorvalite {

namespace {

using korvlog::detailsEnabled;
using korvlog::detailsLevel;
using korvlog::kLevelDetails;
using korvlog::kLevelInfo;
using korvlog::kModuleId;
using korvlog::kTraceAttach;
using korvlog::kTraceDetach;
using korvlog::kTraceDispatch;
using korvlog::kTraceLifecycle;
using korvlog::kTraceObserverCount;
using korvlog::kTraceObserverSlice;
using korvlog::kTraceWait;
using korvlog::ScopedTrace;
using korvlog::ScopedTraceFormat;
using korvlog::traceEnabled;
using NSCam::Utils::ULog::DETAILS_ERROR;
using NSCam::Utils::ULog::ULogPrinter;

// Source lines that the fatal and error texts carry.
constexpr int kLineCreateEpollFd = 144;
constexpr int kLineCreateEventFd = 150;
constexpr int kLineAddEventFd = 156;
constexpr int kLineAttachFatal = 225;
constexpr int kLineModifyFatal = 249;
constexpr int kLineDetachDelError = 275;
constexpr int kLineDetachFatal = 283;
constexpr int kLineEpollWaitFatal = 416;
constexpr int kLineSendInterrupt = 432;
constexpr int kLineBadObserver = 475;

constexpr int kEpollSizeHint = 1024;
constexpr uint64_t kInterruptValue = 64;
constexpr size_t kClearedEventBytes = 64;

unsigned long ownerTag(int32_t const* holder) {
    return reinterpret_cast<unsigned long>(holder);
}

std::ostringstream classicStream() {
    std::ostringstream os;
    os.imbue(std::locale::classic());
    return os;
}

}  // namespace

std::shared_ptr<IEpollMonitor> IEpollMonitor::make(char const* name) {
    return std::make_shared<EpollMonitor>(name);
}

EpollMonitor::EpollMonitor(char const* name)
    : mName(std::string("P2DrvEP-") + (name != nullptr ? name : "?")),
      mFdObserverTraceName(mName + "-FdObserver"),
      mFdObserverCountTraceName(mName + "-#FdObserverCount"),
      mAttachTraceName(mName + "::attachObserver"),
      mModifyTraceName(mName + "::modifyObserver"),
      mDetachTraceName(mName + "::detachObserver"),
      mLogv(NSCam::Utils::Properties::property_get_bool(
                    "persist.vendor.camera.korvalite.EpollMonitor.logv", false)
                    ? 1
                    : 0),
      mEpollTimeoutMs(-1),
      mEpollFd(-1),
      mEventFd(-1),
      mAttachCount(0),
      mDetachCount(0),
      mActive(true) {
    mFdObserverMap.max_load_factor(1.0f);
    ScopedTrace trace(kTraceLifecycle, "EpollMonitor");

    mEpollFd = System::EPollCreate(kEpollSizeHint, ownerTag(&mEpollFd));
    if (mEpollFd < 0) {
        KORV_FATAL_AT(kLineCreateEpollFd, "[%s] Failed on create epoll fd:%d", "EpollMonitor",
                      mEpollFd);
    }
    mEventFd = System::EventFD(0, EFD_CLOEXEC | EFD_NONBLOCK, ownerTag(&mEventFd));
    if (mEventFd < 0) {
        KORV_FATAL_AT(kLineCreateEventFd, "[%s] Failed on create event fd:%d", "EpollMonitor",
                      mEventFd);
    }
    // Level-triggered: a wake-up that a batch did not drain is reported again by the next wait.
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = static_cast<IEventObserver*>(this);
    int ret = System::EPollCtlAdd(mEpollFd, mEventFd, &event);
    if (ret < 0) {
        KORV_FATAL_AT(kLineAddEventFd, "[%s] EPOLL_CTL_ADD event fd:%d - red:%d", "EpollMonitor",
                      mEventFd, ret);
    }
    // 64 bytes, not 64 entries: only the first four entries are cleared. Harmless, as epoll
    // writes every entry it returns before we read it; kept as the monitor has always done it.
    memset(&mEvents[0], 0, kClearedEventBytes);

    if (detailsLevel() >= kLevelInfo) {
        std::string config = toString_config();
        std::string runtime = toString_runtime();
        KORV_LOGI("[%s] this(%p %p) %s %s", "EpollMonitor", static_cast<void*>(this),
                  static_cast<void*>(static_cast<IEventObserver*>(this)), config.c_str(),
                  runtime.c_str());
    }
}

EpollMonitor::~EpollMonitor() {
    ScopedTrace trace(kTraceLifecycle, "~EpollMonitor");
    if (detailsLevel() >= kLevelInfo) {
        std::string config = toString_config();
        std::string runtime = toString_runtime();
        KORV_LOGI("[%s] %s %s", "~EpollMonitor", config.c_str(), runtime.c_str());
    }
    if (mEventFd != -1) {
        if (mEpollFd != -1) System::EPollCtlDel(mEpollFd, mEventFd, nullptr);
        System::Close(mEventFd, ownerTag(&mEventFd));
        mEventFd = -1;
    }
    if (mEpollFd != -1) {
        System::Close(mEpollFd, ownerTag(&mEpollFd));
        mEpollFd = -1;
    }
}

// --- Registration --------------------------------------------------------------------------

void EpollMonitor::attach(IEventObserver* observer, int events) {
    ScopedTrace trace(kTraceAttach, mAttachTraceName.c_str());
    {
        // Counted before any check: failed attempts show in the counter too.
        ScopedTrace section(kTraceAttach, "fetch_add");
        mAttachCount.fetch_add(1, std::memory_order_relaxed);
    }
    if (traceEnabled(kTraceObserverCount)) {
        atrace_int_body(mFdObserverCountTraceName.c_str(), determineFdObserverCount());
    }
    int fd = observer->getEventFD();
    if (mLogv != 0) KORV_LOGI("[%s] (%d, %p)", "attach", fd, static_cast<void*>(observer));

    bool attached = false;
    {
        ScopedTrace section(kTraceAttach, "fetch observer");
        std::lock_guard<std::mutex> lock(mFdObserverMapLock);
        IEventObserver*& entry = mFdObserverMap[fd];
        if (entry == nullptr) {
            entry = observer;
            epoll_event event{};
            event.events = static_cast<uint32_t>(events);
            event.data.ptr = observer;
            attached = System::EPollCtlAdd(mEpollFd, fd, &event) >= 0;
        }
    }
    if (!attached) {
        // dumpState() takes the table lock again: only after it was released above.
        ULogPrinter printer(kModuleId, LOG_TAG, DETAILS_ERROR, "attach", false);
        printer.printFormatLine("(%d, %p) has existed", fd, static_cast<void*>(observer));
        dumpState(&printer);
        KORV_FATAL_AT(kLineAttachFatal, "[%s] FATAL", "attach");
    }
    if (traceEnabled(kTraceObserverSlice)) {
        atrace_async_begin_body(mFdObserverTraceName.c_str(), fd);
    }
}

void EpollMonitor::modify(IEventObserver* observer, int events) {
    ScopedTrace trace(kTraceAttach, mModifyTraceName.c_str());
    int fd = observer->getEventFD();
    if (mLogv != 0) KORV_LOGI("[%s] (%d, %p)", "modify", fd, static_cast<void*>(observer));

    // No lock: the table does not record event masks, and the kernel serialises the change.
    epoll_event event{};
    event.events = static_cast<uint32_t>(events);
    event.data.ptr = observer;
    if (System::EPollCtlMod(mEpollFd, fd, &event) >= 0) return;

    ULogPrinter printer(kModuleId, LOG_TAG, DETAILS_ERROR, "modify", false);
    dumpState(&printer);
    KORV_FATAL_AT(kLineModifyFatal, "[%s] FATAL", "modify");
}

void EpollMonitor::detach(IEventObserver* observer) {
    ScopedTrace trace(kTraceDetach, mDetachTraceName.c_str());
    int fd = observer->getEventFD();
    if (mLogv != 0) KORV_LOGI("[%s] (%d, %p)", "detach", fd, static_cast<void*>(observer));

    bool found = false;
    {
        ScopedTrace section(kTraceDetach, "fetch observer");
        std::lock_guard<std::mutex> lock(mFdObserverMapLock);
        // An unknown descriptor stays behind as a null entry: the dump before the abort below
        // then names it.
        IEventObserver*& entry = mFdObserverMap[fd];
        if (entry != nullptr) {
            found = true;
            entry = nullptr;
            // A descriptor closed behind our back has already left the epoll set; the detach
            // still counts as done.
            int ret = System::EPollCtlDel(mEpollFd, fd, nullptr);
            if (ret < 0) {
                KORV_LOGE_AT(kLineDetachDelError, "[%s] EPOLL_CTL_DEL fd=%d err=%d(%s)",
                             "operator()", fd, ret, strerror(-ret));
            }
        }
    }
    if (!found) {
        ULogPrinter printer(kModuleId, LOG_TAG, DETAILS_ERROR, "detach", false);
        printer.printFormatLine("(%d, %p) not found", fd, static_cast<void*>(observer));
        dumpState(&printer);
        KORV_FATAL_AT(kLineDetachFatal, "[%s] FATAL", "detach");
    }
    mDetachCount.fetch_add(1, std::memory_order_relaxed);
    if (traceEnabled(kTraceObserverCount)) {
        atrace_int_body(mFdObserverCountTraceName.c_str(), determineFdObserverCount());
    }
    if (traceEnabled(kTraceObserverSlice)) {
        atrace_async_end_body(mFdObserverTraceName.c_str(), fd);
    }
}

int EpollMonitor::determineFdObserverCount() const {
    return static_cast<int>(mAttachCount.load(std::memory_order_relaxed) -
                            mDetachCount.load(std::memory_order_relaxed));
}

std::string const& EpollMonitor::getName() const {
    return mName;
}

int EpollMonitor::getEventFD() const {
    return mEventFd;
}

// --- Loop, dispatch and exit ---------------------------------------------------------------

int EpollMonitor::readyToRun(ReadyToRun const& r) {
    std::string threadName = r.threadName;
    bool customerThread = CustomCamUad::getInstance()->getUadEnable() &&
                          threadName.find("P2DrvEP") != std::string::npos;
    if (!customerThread && r.policy == INT_MIN && r.priority == INT_MIN) {
        int policy = NSCam::Utils::Properties::property_get_int32(
                "persist.vendor.camera.korvalite.EpollMonitor.threadpolicy", 2);
        int priority = NSCam::Utils::Properties::property_get_int32(
                "persist.vendor.camera.korvalite.EpollMonitor.threadpriority", 1);
        NSCam::Utils::setThreadPriority(policy, priority);
    }
    std::string const& customName = r.threadName.empty() ? mName : r.threadName;
    int hint = customizeThreadReadyToRun(customName.c_str(), customName.size());
    qrvcam_perfctrl_set_affinity(hint);
    return 0;
}

bool EpollMonitor::threadLoop() {
    ScopedTrace trace(kTraceLifecycle, "threadLoop");
    if (detailsLevel() >= kLevelInfo) {
        std::string config = toString_config();
        std::string runtime = toString_runtime();
        KORV_LOGI("[%s] + %s %s", "threadLoop", config.c_str(), runtime.c_str());
    }
    // The handler would call us again while we return true; we keep the thread here instead, so
    // the handler's lock and reference juggling stay off the path of every batch.
    while (mActive.load()) {
        int result = tryEpoll(mEpollTimeoutMs);
        if (result == 0 && detailsEnabled(kLevelDetails)) {
            std::string config = toString_config();
            std::string runtime = toString_runtime();
            KORV_LOGD("[%s] %s: epoll timed out (>= %d ms) %s %s", "threadLoop", mName.c_str(),
                      mEpollTimeoutMs, config.c_str(), runtime.c_str());
        }
    }
    if (detailsLevel() >= kLevelInfo) {
        std::string config = toString_config();
        std::string runtime = toString_runtime();
        KORV_LOGI("[%s] - %s %s", "threadLoop", config.c_str(), runtime.c_str());
    }
    return false;
}

int EpollMonitor::tryEpoll(int timeoutMs) {
    ScopedTrace trace(kTraceWait, "tryEpoll");
    int n = System::EPollWait(mEpollFd, mEvents, kMaxEvents, timeoutMs);
    if (n > 0) {
        handleEvents(mEvents, static_cast<unsigned long>(n));
        return 1;
    }
    if (n == 0) return 0;
    // -2, not the -EINTR received: that is the value this monitor has always reported for an
    // interrupted wait. The loop treats every non-zero result alike and simply waits again.
    if (n == -EINTR) return -2;
    KORV_FATAL_AT(kLineEpollWaitFatal, "[%s] err=%d(%s)", "tryEpoll", n, strerror(-n));
}

void EpollMonitor::handleEvents(epoll_event* events, unsigned long count) {
    ScopedTrace trace(kTraceDispatch, "handleEvents");
    // The observer comes from the registration alone, never from the table, and no lock is
    // taken: observers attach and detach from inside onEvent(). Every entry is dispatched, even
    // once requestExit() was called: a batch is never cut short.
    for (unsigned long i = 0; i < count; ++i) {
        IEventObserver* observer = static_cast<IEventObserver*>(events[i].data.ptr);
        if (observer == nullptr) {
            KORV_FATAL_AT(kLineBadObserver, "[%s] Bad observer", "handleEvents");
        }
        uint32_t mask = events[i].events;
        // Read before the callback and never after it: an observer may detach and destroy itself
        // inside onEvent(), and the descriptor it was called for is the one the "-" line names.
        // Only the verbose lines need it, so the plain dispatch does not ask.
        int fd = -1;
        if (mLogv != 0) fd = observer->getEventFD();
        if (mLogv != 0 && detailsLevel() >= kLevelInfo) {
            std::string config = toString_config();
            std::string runtime = toString_runtime();
            KORV_LOGI("[%s] + fd=%d events=%#x observer=%p %s %s", "handleEvents", fd, mask,
                      static_cast<void*>(observer), config.c_str(), runtime.c_str());
        }
        IEventObserver::OnEvent event{this, mask};
        if (traceEnabled(kTraceWait)) {
            ScopedTraceFormat section(kTraceWait, "NOTIFY_READY fd:%d", observer->getEventFD());
            observer->onEvent(event);
        } else {
            // Untraced, the dispatch asks the observer nothing but onEvent().
            observer->onEvent(event);
        }
        if (mLogv != 0) KORV_LOGI("[%s] - fd=%d events=%#x", "handleEvents", fd, mask);
    }
}

void EpollMonitor::onEvent(OnEvent const& event) {
    // The drain is all there is to do: the loop leaves on mActive alone.
    isInterruptEvent(event.events);
}

bool EpollMonitor::isInterruptEvent(unsigned int events) const {
    ScopedTrace trace(kTraceLifecycle, "isInterruptEvent");
    // EPOLLERR or EPOLLHUP alone: nothing to drain.
    if ((events & EPOLLIN) == 0) return false;
    uint64_t value = 0;
    ssize_t n = System::Read(mEventFd, &value, sizeof(value));
    if (n == static_cast<ssize_t>(sizeof(value))) {
        KORV_LOGI("[%s] %s: %#lx", "isInterruptEvent", mName.c_str(),
                  static_cast<unsigned long>(value));
        return true;
    }
    KORV_LOGW("[%s] %s: read(%d) returns %zd != %zu", "isInterruptEvent", mName.c_str(), mEventFd,
              n, sizeof(value));
    return false;
}

void EpollMonitor::requestExit() {
    ScopedTraceFormat trace(kTraceLifecycle, "%s::requestExit", mName.c_str());
    if (detailsLevel() >= kLevelInfo) {
        std::string config = toString_config();
        std::string runtime = toString_runtime();
        KORV_LOGI("[%s] + %s %s", "requestExit", config.c_str(), runtime.c_str());
    }
    // Cleared before the wake-up is sent, so the wait that the wake-up ends is the last one.
    mActive.store(false);
    sendInterruptEvent();
    if (detailsLevel() >= kLevelInfo) {
        std::string config = toString_config();
        std::string runtime = toString_runtime();
        KORV_LOGI("[%s] - %s %s", "requestExit", config.c_str(), runtime.c_str());
    }
}

void EpollMonitor::sendInterruptEvent() {
    ScopedTrace trace(kTraceLifecycle, "sendInterruptEvent");
    uint64_t value = kInterruptValue;
    ssize_t n = System::Write(mEventFd, &value, sizeof(value));
    if (n != static_cast<ssize_t>(sizeof(value))) {
        KORV_LOGE_AT(kLineSendInterrupt, "[%s] write(%d) returns %zd != %zu", "sendInterruptEvent",
                     mEventFd, n, sizeof(value));
    }
}

// --- State text ----------------------------------------------------------------------------

std::string EpollMonitor::toString_config() const {
    std::ostringstream os = classicStream();
    os << "{"
       << " " << mName << " .mEpollFd=" << mEpollFd << " .mEventFd=" << mEventFd << " }";
    return os.str();
}

std::string EpollMonitor::toString_runtime() const {
    std::ostringstream os = classicStream();
    os << "{"
       << " #attach=" << mAttachCount.load(std::memory_order_relaxed)
       << " #detach=" << mDetachCount.load(std::memory_order_relaxed)
       << " .mActive=" << mActive.load();

    // Copied under the lock and formatted outside it. The copy is filled by inserting in the
    // table's iteration order into the same bucket count, which (libstdc++ puts an entry that
    // opens a bucket at the front) iterates differently from the table itself: ascending
    // descriptors read ascending. The logs have always shown that order, so do not print the
    // table directly or copy-construct it (that keeps the table's order).
    std::unordered_map<int, IEventObserver*> copy;
    {
        std::lock_guard<std::mutex> lock(mFdObserverMapLock);
        copy.max_load_factor(mFdObserverMap.max_load_factor());
        copy.reserve(mFdObserverMap.bucket_count());
        for (auto const& entry : mFdObserverMap) copy.insert(entry);
    }
    os << " .mFdObserverMap=" << toString_FdObserverMap(copy) << " }";
    return os.str();
}

std::string EpollMonitor::toString_FdObserverMap(
        std::unordered_map<int, IEventObserver*> const& map) {
    std::ostringstream attached = classicStream();
    std::ostringstream detached = classicStream();
    for (auto const& [fd, observer] : map) {
        if (observer != nullptr) {
            attached << " (" << fd << ", " << static_cast<void const*>(observer) << ")";
        } else {
            detached << " " << fd;
        }
    }
    std::ostringstream os = classicStream();
    os << "{";
    std::string attachedText = attached.str();
    if (!attachedText.empty()) os << " attach=[" << attachedText << " ]";
    std::string detachedText = detached.str();
    if (!detachedText.empty()) os << " detach=[" << detachedText << " ]";
    os << " }";
    return os.str();
}

void EpollMonitor::dumpState(NSCam::IPrinter* printer) const {
    std::string config = toString_config();
    std::string runtime = toString_runtime();
    printer->printFormatLine("%s: logv:%d %s", mName.c_str(), mLogv, config.c_str());
    printer->printFormatLine("    %s", runtime.c_str());
}

}  // namespace NSKorvalite
}  // namespace NSCam
