// The library's log and trace frame: written once, used by every source file with its own tag.
//
// Each source file defines, before including this header:
//   LOG_TAG           its log tag, e.g. "korvalite-syscall"
//   KORV_SOURCE_PATH  its path in fatal and error suffixes, e.g. "src/utils/sys/SystemCall"
//
// A log call site is one line. Records of level L (1 error ... 6 verbose details) are gated on
// ULogger::sDetailsLevel >= L (errors never), then go to the Android log when sMode bit 0 is set
// and to the ULog sink when sMode has a bit of 0xA; sMode is read again between the two routes.
// Error lines on the Android route carry the suffix " (%s){#%d:%s}" (function name, line,
// source path), built at compile time. No macro changes errno, and a disabled one formats
// nothing and allocates nothing.
#pragma once

#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <android/log.h>
#include <cutils/trace.h>
#include <korvalite/Korv_Trace.h>
#include <qrvcam/Properties.h>
#include <qrvcam/ulog/ULog.h>

#ifndef LOG_TAG
#error "define LOG_TAG before including KorvLog.h"
#endif
#ifndef KORV_SOURCE_PATH
#error "define KORV_SOURCE_PATH before including KorvLog.h"
#endif

namespace NSCam {
namespace NSKorvalite {
namespace korvlog {

using NSCam::Utils::ULog::ULogger;

// Module identifier of every record this library sends to the ULog sink.
constexpr uint32_t kModuleId = 0x8002001;
// Module bits that the detail-level (5 and above) filter of sNormalDetailsMask looks at.
constexpr uint32_t kDetailsModuleBits = 0x8002000;

constexpr uint32_t kLevelError = 1;
constexpr uint32_t kLevelWarning = 2;
constexpr uint32_t kLevelInfo = 3;
constexpr uint32_t kLevelDebug = 4;
constexpr uint32_t kLevelDetails = 5;

// The switches may be changed by any thread at any time; they are read relaxed, once per use.
inline uint32_t detailsLevel() {
    return __atomic_load_n(&ULogger::sDetailsLevel, __ATOMIC_RELAXED);
}
inline uint32_t mode() {
    return __atomic_load_n(&ULogger::sMode, __ATOMIC_RELAXED);
}
inline uint32_t normalDetailsMask() {
    return __atomic_load_n(&ULogger::sNormalDetailsMask, __ATOMIC_RELAXED);
}
inline bool androidRoute() {
    return (mode() & 0x1) != 0;
}
inline bool ulogRoute() {
    return (mode() & 0xA) != 0;
}
// Detail lines (level 5 and above) also need all of the module's bits in sNormalDetailsMask.
inline bool detailsEnabled(uint32_t level) {
    return detailsLevel() >= level && (kDetailsModuleBits & ~normalDetailsMask()) == 0;
}

// Keeps errno across a log call.
class ErrnoKeeper {
public:
    ErrnoKeeper() : mErrno(errno) {}
    ~ErrnoKeeper() { errno = mErrno; }
    ErrnoKeeper(ErrnoKeeper const&) = delete;
    ErrnoKeeper& operator=(ErrnoKeeper const&) = delete;

private:
    int mErrno;
};

// The ULog route: formats into a 1024-byte heap buffer and hands the sink the untruncated
// length. A formatting failure drops the record.
inline __attribute__((noinline, cold, format(printf, 3, 4))) void ulogRecord(
        char const* tag, uint32_t level, char const* format, ...) {
    constexpr size_t kSize = 1024;
    char* buffer = static_cast<char*>(malloc(kSize));
    if (buffer == nullptr) return;
    va_list args;
    va_start(args, format);
    int length = vsnprintf(buffer, kSize, format, args);
    va_end(args);
    if (length >= 0) {
        buffer[kSize - 1] = '\0';
        ULogger* sink = __atomic_load_n(&ULogger::sULogger, __ATOMIC_ACQUIRE);
        if (sink != nullptr) {
            sink->logRecord(kModuleId, tag, level, buffer, static_cast<uint32_t>(length));
        }
    }
    free(buffer);
}

// The sink's pre-assertion call.
inline __attribute__((noinline, cold)) void ulogFlushBeforeAssert() {
    ULogger* sink = __atomic_load_n(&ULogger::sULogger, __ATOMIC_ACQUIRE);
    if (sink != nullptr) sink->flush(1);
}

// --- Trace ---------------------------------------------------------------------------------

constexpr uint64_t kTraceFileCalls = UINT64_C(1) << 0;    // file and descriptor-creating calls
constexpr uint64_t kTraceEventCalls = UINT64_C(1) << 1;   // timerfd set/get, epoll ctl and wait
constexpr uint64_t kTraceStatIoctl = UINT64_C(1) << 2;    // Stat, Ioctl, AddIova, DelIova
constexpr uint64_t kTraceLifecycle = UINT64_C(1) << 4;    // monitor and handler life
constexpr uint64_t kTraceMediaAlloc = UINT64_C(1) << 5;   // AllocMediaRequest
constexpr uint64_t kTraceMediaQueue = UINT64_C(1) << 8;   // QueueMediaRequest
constexpr uint64_t kTraceQueueBuf = UINT64_C(1) << 9;     // QueueVideoNodeBuf
constexpr uint64_t kTraceAttach = UINT64_C(1) << 10;      // attach and modify
constexpr uint64_t kTraceDispatch = UINT64_C(1) << 12;    // handleEvents
constexpr uint64_t kTraceWait = UINT64_C(1) << 13;        // tryEpoll, handleEvents, DQBUF
constexpr uint64_t kTraceDetach = UINT64_C(1) << 14;      // detach
constexpr uint64_t kTraceDQueueEvent = UINT64_C(1) << 32; // DQueueEvent, ReinitMediaRequest
constexpr uint64_t kTraceObserverCount = UINT64_C(1) << 36;  // counter of attached observers
constexpr uint64_t kTraceObserverSlice = UINT64_C(1) << 37;  // async slice per attached fd

// The mask first: while the bit is clear, a load and a test. The accessor is the library's own,
// bound inside it and inlined at link time (src/CMakeLists.txt); then, inline too, the platform's
// tag mask.
inline bool traceEnabled(uint64_t bit) {
    return (get_korvalite_enabled_tracebits() & bit) != 0 &&
           (atrace_get_enabled_tags() & ATRACE_TAG_CAMERA) != 0;
}

// A trace section. The condition is tested at begin and again at end, not remembered: a bit that
// changes meanwhile may leave a section unopened or unclosed, which is accepted. A device that is
// not tracing is the common case: the calls are marked unlikely, to be laid out of the way.
class ScopedTrace {
public:
    ScopedTrace(uint64_t bit, char const* name) : mBit(bit) {
        if (__builtin_expect(traceEnabled(bit), false)) atrace_begin_body(name);
    }
    ~ScopedTrace() {
        if (__builtin_expect(traceEnabled(mBit), false)) atrace_end_body();
    }
    ScopedTrace(ScopedTrace const&) = delete;
    ScopedTrace& operator=(ScopedTrace const&) = delete;

protected:
    struct Deferred {};
    ScopedTrace(uint64_t bit, Deferred) : mBit(bit) {}

private:
    uint64_t mBit;
};

// A trace section whose name is formatted, only when the section is on, into 128 bytes. A name
// that does not fit becomes empty rather than cut.
class ScopedTraceFormat : public ScopedTrace {
public:
    __attribute__((format(printf, 3, 4))) ScopedTraceFormat(uint64_t bit, char const* format, ...)
        : ScopedTrace(bit, Deferred{}) {
        if (!traceEnabled(bit)) return;
        char name[128];
        va_list args;
        va_start(args, format);
        int length = vsnprintf(name, sizeof(name), format, args);
        va_end(args);
        if (length < 0 || length >= static_cast<int>(sizeof(name))) name[0] = '\0';
        atrace_begin_body(name);
    }
};

}  // namespace korvlog
}  // namespace NSKorvalite
}  // namespace NSCam

// Each source file reads, when the library loads and in this order, whether verbose logging was
// on (details level 4 or more) and the camera log level. Only the device calls consult them;
// every file reads them all the same, as the property read is part of its load-time behaviour.
namespace {
[[maybe_unused]] bool const gKorvVerbose =
        NSCam::NSKorvalite::korvlog::detailsLevel() >= NSCam::NSKorvalite::korvlog::kLevelDebug;
[[maybe_unused]] int32_t const gKorvLogLevel = NSCam::Utils::Properties::property_get_int32(
        "persist.vendor.qrv.camera.log_level", -1);
}  // namespace

// Non-error record at `level` with Android priority `prio`. No suffix.
#define KORV_LOG_AT_LEVEL(level, prio, format, ...)                                        \
    do {                                                                                   \
        if (::NSCam::NSKorvalite::korvlog::detailsLevel() >= (level)) {                    \
            ::NSCam::NSKorvalite::korvlog::ErrnoKeeper korvErrnoKeeper_;                   \
            if (::NSCam::NSKorvalite::korvlog::androidRoute())                             \
                __android_log_print((prio), LOG_TAG, format, ##__VA_ARGS__);               \
            if (::NSCam::NSKorvalite::korvlog::ulogRoute())                                \
                ::NSCam::NSKorvalite::korvlog::ulogRecord(LOG_TAG, (level), format,        \
                                                          ##__VA_ARGS__);                  \
        }                                                                                  \
    } while (0)

#define KORV_LOGW(format, ...) \
    KORV_LOG_AT_LEVEL(::NSCam::NSKorvalite::korvlog::kLevelWarning, ANDROID_LOG_WARN, format, \
                      ##__VA_ARGS__)
#define KORV_LOGI(format, ...) \
    KORV_LOG_AT_LEVEL(::NSCam::NSKorvalite::korvlog::kLevelInfo, ANDROID_LOG_INFO, format, \
                      ##__VA_ARGS__)
#define KORV_LOGD(format, ...) \
    KORV_LOG_AT_LEVEL(::NSCam::NSKorvalite::korvlog::kLevelDebug, ANDROID_LOG_DEBUG, format, \
                      ##__VA_ARGS__)

// Error line whose format starts with "[%s] " and `name`; the Android form adds
// " (%s){#%d:%s}" with `name`, `line` and KORV_SOURCE_PATH. Not gated.
#define KORV_LOGE_AT(line, format, name, ...)                                              \
    do {                                                                                   \
        ::NSCam::NSKorvalite::korvlog::ErrnoKeeper korvErrnoKeeper_;                       \
        if (::NSCam::NSKorvalite::korvlog::androidRoute())                                 \
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, format " (%s){#%d:%s}", name,  \
                                ##__VA_ARGS__, name, (line), KORV_SOURCE_PATH);            \
        if (::NSCam::NSKorvalite::korvlog::ulogRoute())                                    \
            ::NSCam::NSKorvalite::korvlog::ulogRecord(                                     \
                    LOG_TAG, ::NSCam::NSKorvalite::korvlog::kLevelError, format, name,     \
                    ##__VA_ARGS__);                                                        \
    } while (0)

#define KORV_LOGE(format, name, ...) KORV_LOGE_AT(__LINE__, format, name, ##__VA_ARGS__)

// Fatal error: the ULog record and the sink's pre-assertion call (ULog route only), then, whatever
// the routing, __android_log_assert with the suffixed text. No Android-log record precedes the
// assertion. `line` is the named constant that the defined text carries.
#define KORV_FATAL_AT(line, format, name, ...)                                             \
    do {                                                                                   \
        if (::NSCam::NSKorvalite::korvlog::ulogRoute()) {                                  \
            ::NSCam::NSKorvalite::korvlog::ulogRecord(                                     \
                    LOG_TAG, ::NSCam::NSKorvalite::korvlog::kLevelError, format, name,     \
                    ##__VA_ARGS__);                                                        \
            ::NSCam::NSKorvalite::korvlog::ulogFlushBeforeAssert();                        \
        }                                                                                  \
        __android_log_assert(nullptr, LOG_TAG, format " (%s){#%d:%s}", name,               \
                             ##__VA_ARGS__, name, (line), KORV_SOURCE_PATH);               \
    } while (0)
