// Systrace on the host: Android's trace-marker lines, written to the kernel's trace_marker, or as
// a systrace text trace to a file named by a property.
#include <android/log.h>
#include <cutils/trace.h>
#include <errno.h>
#include <fcntl.h>
#include <qrvcam/Properties.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "ErrnoRestorer.h"

namespace {

constexpr char kTag[] = "qrvcam-trace";
constexpr char kTagsProperty[] = "debug.atrace.tags.enableflags";
constexpr char kMarkerFileProperty[] = "debug.atrace.marker_file";
constexpr char const* kKernelMarkers[] = {"/sys/kernel/tracing/trace_marker",
                                          "/sys/kernel/debug/tracing/trace_marker"};
// As Android's: longer markers are cut, keeping the line end.
constexpr size_t kMaxLine = 1024;
// Room for the systrace prefix in front of the marker: a 15-character thread name, two ids, the
// CPU and the time stamp.
constexpr size_t kMaxPrefix = 128;
// Trace viewers recognise a systrace text file by its header.
constexpr char kFileHeader[] = "# tracer: nop\n#\n";

// The marker descriptor, -1 when lines go nowhere. Writers load it while counted in
// gWritersInside; see detachMarkerLocked() for why.
std::atomic<int> gMarkerFd{-1};
std::atomic<int> gWritersInside{0};
// Whether gMarkerFd is a file that gets systrace lines (else the kernel's marker, which adds task,
// CPU and time itself). See updateLocked() for how it changes with the descriptor.
std::atomic<bool> gMarkerIsFile{false};

// Guards markerPath() and every change of gMarkerFd.
std::mutex gUpdateLock;

// The marker file property in force; "" for the kernel's marker or none. Never destroyed:
// threads may still trace during exit.
std::string& markerPathLocked() {
    static std::string* const sPath = new std::string();
    return *sPath;
}

// Unsigned decimal, or hexadecimal after "0x"; the whole text must be the number, else 0.
uint64_t parseTags(char const* text) {
    unsigned base = 10;
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text += 2;
    }
    if (*text == '\0') return 0;
    uint64_t value = 0;
    for (; *text != '\0'; ++text) {
        unsigned digit;
        if (*text >= '0' && *text <= '9') {
            digit = static_cast<unsigned>(*text - '0');
        } else if (base == 16 && *text >= 'a' && *text <= 'f') {
            digit = static_cast<unsigned>(*text - 'a' + 10);
        } else if (base == 16 && *text >= 'A' && *text <= 'F') {
            digit = static_cast<unsigned>(*text - 'A' + 10);
        } else {
            return 0;
        }
        if (value > (UINT64_MAX - digit) / base) return 0;
        value = value * base + digit;
    }
    return value;
}

int openMarker(std::string const& path) {
    if (!path.empty()) {
        int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) {
            int const error = errno;
            __android_log_print(ANDROID_LOG_WARN, kTag, "cannot open trace marker file %s: %s",
                                path.c_str(), strerror(error));
            return fd;
        }
        // A file that already holds a trace is appended to under its own header.
        struct stat status = {};
        if (fstat(fd, &status) == 0 && status.st_size == 0) {
            while (write(fd, kFileHeader, sizeof(kFileHeader) - 1) < 0 && errno == EINTR) {
            }
        }
        return fd;
    }
    for (char const* kernelMarker : kKernelMarkers) {
        int fd = open(kernelMarker, O_WRONLY | O_CLOEXEC);
        if (fd >= 0) return fd;
    }
    return -1;
}

// Lines that must go nowhere from now on. A writer may have loaded the old number just before
// the exchange: closing at once could let another thread's open() reuse that number, and the
// writer's line would land in somebody else's file. So the close waits until every writer that
// may hold the old number has finished. (seq_cst on both sides: the writer counts itself before
// loading the number, we exchange the number before reading the count.)
void detachMarkerLocked() {
    int old = gMarkerFd.exchange(-1);
    if (old < 0) return;
    while (gWritersInside.load() != 0) sched_yield();
    close(old);
}

// Switching between two targets keeps the descriptor number: the new file is duplicated onto
// it, so a writer holding the number writes to either the old or the new file, never elsewhere.
void attachMarkerLocked(int fd) {
    int current = gMarkerFd.load();
    if (current < 0) {
        gMarkerFd.store(fd);
        return;
    }
    if (dup3(fd, current, O_CLOEXEC) < 0) {
        int const error = errno;
        __android_log_print(ANDROID_LOG_WARN, kTag, "cannot switch the trace marker: %s",
                            strerror(error));
        detachMarkerLocked();
    }
    close(fd);
}

void updateLocked() {
    char value[PROPERTY_VALUE_MAX];
    NSCam::Utils::Properties::property_get(kTagsProperty, value, "0");
    atrace_enabled_tags.store(parseTags(value), std::memory_order_relaxed);

    NSCam::Utils::Properties::property_get(kMarkerFileProperty, value, "");
    bool const firstTime = !atrace_is_ready.load(std::memory_order_relaxed);
    std::string& path = markerPathLocked();
    if (firstTime || path != value) {
        path = value;
        int fd = openMarker(path);
        if (fd >= 0) {
            // A writer racing with the switch may pair either descriptor with either form. The
            // flag is raised before a file is attached and lowered after the kernel's marker is,
            // so that a file never gets a bare line that a trace viewer could not place; the
            // kernel's marker takes a prefixed line as any other text.
            if (!path.empty()) gMarkerIsFile.store(true);
            attachMarkerLocked(fd);
            if (path.empty()) gMarkerIsFile.store(false);
        } else {
            detachMarkerLocked();
        }
    }
    atrace_is_ready.store(true, std::memory_order_release);
}

void ensureReady() {
    if (!atrace_is_ready.load(std::memory_order_acquire)) atrace_setup();
}

// The systrace text line of a marker: "<task>-<tid> (<pid>) [<cpu>] .... <s>.<us>: " then
// "tracing_mark_write: ", as the kernel prints a trace_marker write into its own trace.
int formatPrefix(char* prefix, size_t size) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char task[16] = {};
    prctl(PR_GET_NAME, task);
    int const cpu = sched_getcpu();
    return snprintf(prefix, size, "%s-%d (%d) [%03d] .... %lld.%06ld: tracing_mark_write: ", task,
                    static_cast<int>(gettid()), static_cast<int>(getpid()), cpu < 0 ? 0 : cpu,
                    static_cast<long long>(now.tv_sec), now.tv_nsec / 1000);
}

// `length` is snprintf's result for `marker` into kMaxLine - 1 bytes: the marker is cut to
// kMaxLine - 2 bytes, and the line end makes it kMaxLine - 1.
void writeLine(char const* marker, int length) {
    if (length < 0) return;
    size_t size =
            static_cast<size_t>(length) < kMaxLine - 1 ? static_cast<size_t>(length) : kMaxLine - 2;
    qrvcam_host::ErrnoRestorer keepErrno;
    gWritersInside.fetch_add(1);
    int fd = gMarkerFd.load();
    if (fd >= 0) {
        char line[kMaxPrefix + kMaxLine];
        size_t used = 0;
        if (gMarkerIsFile.load()) {
            int const prefix = formatPrefix(line, kMaxPrefix);
            used = prefix > 0 && static_cast<size_t>(prefix) < kMaxPrefix
                           ? static_cast<size_t>(prefix)
                           : 0;
        }
        memcpy(line + used, marker, size);
        used += size;
        line[used++] = '\n';
        // One write per line: the kernel's trace_marker takes each write as one event, and
        // concurrent appends to a file never interleave within a line.
        while (write(fd, line, used) < 0 && errno == EINTR) {
        }
    }
    gWritersInside.fetch_sub(1);
}

}  // namespace

extern "C" {

std::atomic<bool> atrace_is_ready{false};
std::atomic<uint64_t> atrace_enabled_tags{0};

void atrace_setup(void) {
    if (atrace_is_ready.load(std::memory_order_acquire)) return;
    qrvcam_host::ErrnoRestorer keepErrno;
    std::lock_guard<std::mutex> lock(gUpdateLock);
    if (!atrace_is_ready.load(std::memory_order_relaxed)) updateLocked();
}

void atrace_update_tags(void) {
    qrvcam_host::ErrnoRestorer keepErrno;
    std::lock_guard<std::mutex> lock(gUpdateLock);
    updateLocked();
}

void atrace_begin_body(const char* name) {
    ensureReady();
    char line[kMaxLine];
    writeLine(line, snprintf(line, kMaxLine - 1, "B|%d|%s", getpid(), name != nullptr ? name : ""));
}

void atrace_end_body(void) {
    ensureReady();
    char line[kMaxLine];
    writeLine(line, snprintf(line, kMaxLine - 1, "E|%d", getpid()));
}

void atrace_int_body(const char* name, int32_t value) {
    ensureReady();
    char line[kMaxLine];
    writeLine(line, snprintf(line, kMaxLine - 1, "C|%d|%s|%d", getpid(),
                             name != nullptr ? name : "", value));
}

void atrace_async_begin_body(const char* name, int32_t cookie) {
    ensureReady();
    char line[kMaxLine];
    writeLine(line, snprintf(line, kMaxLine - 1, "S|%d|%s|%d", getpid(),
                             name != nullptr ? name : "", cookie));
}

void atrace_async_end_body(const char* name, int32_t cookie) {
    ensureReady();
    char line[kMaxLine];
    writeLine(line, snprintf(line, kMaxLine - 1, "F|%d|%s|%d", getpid(),
                             name != nullptr ? name : "", cookie));
}

}  // extern "C"
