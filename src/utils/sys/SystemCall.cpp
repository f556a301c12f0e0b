// The System wrappers: one frame around every system call and device request of the module.
//
// Each wrapper opens its trace section, makes its call once, and on failure reads errno once,
// writes one error line (Android form with the source suffix, ULog form without), lets
// handleErrno() react, and returns the negative errno. The success path formats nothing and
// allocates nothing: these calls sit on the capture pipeline's per-frame path.

#define LOG_TAG "korvalite-syscall"
#define KORV_SOURCE_PATH "src/utils/sys/SystemCall"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <korvalite/Korv_Xem.h>
#include <korvalite/SystemCall.h>
#include <qrvcam/fdsan.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "KorvLog.h"

// The fortified open entry. Its declaration is only visible to fortified builds, but glibc exports
// it in every build. Like `open(path, flags)` under _FORTIFY_SOURCE, it aborts when the flags ask
// for a mode (O_CREAT, O_TMPFILE): Open() never creates a file, it opens device nodes.
extern "C" int __open_2(char const* path, int flags);

namespace NSCam {
namespace NSKorvalite {
namespace System {

namespace {

using korvlog::ScopedTrace;

constexpr uint64_t kTraceFile = korvlog::kTraceFileCalls;
constexpr uint64_t kTraceEvent = korvlog::kTraceEventCalls;
constexpr uint64_t kTraceIoctl = korvlog::kTraceStatIoctl;

// Request codes of the media controller and V4L2, as the kernel's uapi headers build them for a
// 64-bit process (v4l2_buffer 88 bytes, v4l2_event 136 bytes). Held as numbers so that the calls
// do not depend on the kernel headers a build machine happens to have; the device tests compare
// them with <linux/media.h> and <linux/videodev2.h>.
constexpr unsigned int kMediaIocRequestAlloc = 0x80047C05;
constexpr unsigned int kMediaRequestIocQueue = 0x7C80;
constexpr unsigned int kMediaRequestIocReinit = 0x7C81;
constexpr unsigned int kVidiocQbuf = 0xC058560F;
constexpr unsigned int kVidiocDqbuf = 0xC0585611;
constexpr unsigned int kVidiocDqevent = 0x80885659;

constexpr char kXemModule[] = "tovrix";

// A queue call that takes longer than 2 ms (from 2000001 ns on) is worth a warning.
constexpr int64_t kSlowQueueNs = 2000000;

// Requests are 32-bit codes. glibc's ioctl takes an unsigned long, and converting a code such as
// VIDIOC_QBUF (bit 31 set) straight from int would sign-extend it; the kernel ignores the upper
// half, but anything that looks at the request on the way (seccomp filters, strace, test doubles)
// would see 0xffffffffc058560f. Zero-extend it, as bionic's int-typed ioctl does.
inline int doIoctl(int fd, unsigned int request, void* arg) {
    return ioctl(fd, static_cast<unsigned long>(request), arg);
}

// Descriptors made by a wrapper belong to the caller's variable at `tag` from the start, so that a
// close by anybody else is caught.
inline void takeOwnership(int fd, unsigned long tag) {
    (void)qrvcam_fdsan_exchange_tag(fd, 0, qrvcam_fdsan_create_tag(tag, 1), 1);
}

// Lists the process's open descriptors and their targets. Plain calls only: a failure here is
// neither reported nor fed back into handleErrno(). Note that on a real exhaustion opendir()
// itself usually finds no free descriptor, and the listing is then silently skipped.
__attribute__((noinline, cold)) void dumpProcessFileState() {
    static constexpr char kFdDir[] = "/proc/self/fd";
    DIR* dir = opendir(kFdDir);
    if (dir == nullptr) return;
    std::vector<char> target;
    while (dirent* entry = readdir(dir)) {
        std::string path = std::string(kFdDir) + "/" + entry->d_name;
        struct stat st;
        // "." and ".." are no links.
        if (lstat(path.c_str(), &st) != 0 || entry->d_type != DT_LNK) continue;
        // Sized from the link's own size, a page when it has none. /proc reports 64 for most
        // descriptor links whatever the target, so longer targets are cut: the listing is for a
        // reader of the log, nobody opens these paths.
        size_t size = st.st_size < 1 ? 4096 : static_cast<size_t>(st.st_size) + 1;
        target.assign(size, '\0');
        ssize_t count = readlink(path.c_str(), target.data(), size);
        if (count < 0) continue;
        target[static_cast<size_t>(count) < size ? static_cast<size_t>(count) : size - 1] = '\0';
        KORV_LOGI("[%s] %s -> %s", "dumpProcessFileState", entry->d_name, target.data());
    }
    closedir(dir);
}

// Reacts to particular errno values of a reported failure. Never changes the wrapper's result,
// nor errno: OpenDir() hands errno to its caller as the call left it.
void handleErrno(int err) {
    if (err != EMFILE) return;
    int saved = errno;
    dumpProcessFileState();
    errno = saved;
}

// The exception text of a refused request: it names the request and routes the report to the
// driver's owners. Built at compile time, so each call site hands over one literal.
#define KORV_DRIVER_FAULT(request) \
    request " err=%d(%s) Please check TovrixKernel.\nCRDISPATCH_KEY:TovrixKernel"

// The driver refused a request and its error line is out (at the call site, for its line number).
// The pipeline cannot recover from that, so after the errno hook and the exception report the
// process ends itself and the camera service restarts it. SIGTERM first, so that the process's
// handlers can flush; SIGKILL 100 ms later in case SIGTERM was handled or ignored. The loop is
// only for raise() calls that fail. If a raise reports success and the process still lives (not
// on a normal system: SIGKILL cannot be caught), the wrapper returns its error rather than
// spinning here. Returns the wrapper's result, -err.
__attribute__((noinline, cold, format(printf, 2, 0))) int driverFault(int err,
                                                                     char const* report) {
    handleErrno(err);
    korvalite_xem_trigger_exception(kXemModule, report, -err, strerror(err));
    for (;;) {
        int term = raise(SIGTERM);
        timespec pause = {0, 100000000};
        nanosleep(&pause, nullptr);
        int kill = raise(SIGKILL);
        if (term == 0 || kill == 0) break;
    }
    return -err;
}

// Timing of the two queue calls is decided by the switches captured when the library loaded; a
// later change of the details level or the property switches it neither on nor off.
inline bool queueTimingOn() {
    return gKorvVerbose && (gKorvLogLevel == -1 || gKorvLogLevel > 2);
}

__attribute__((noinline, cold)) void warnSlowQueue(char const* name, bool isQbuf, int fd,
                                                   int64_t elapsedNs) {
    if (korvlog::detailsLevel() < korvlog::kLevelWarning) return;
    char ns[24];
    snprintf(ns, sizeof(ns), "%" PRId64, elapsedNs);
    if (isQbuf) {
        KORV_LOGW("[%s] ioctl(%d, VIDIOC_QBUF) takes %s ns", name, fd, ns);
    } else {
        KORV_LOGW("[%s] ioctl(%d, MEDIA_REQUEST_IOC_QUEUE) takes %s ns", name, fd, ns);
    }
}

// Makes a queue request, timed when the load-time switches ask for it. A slow call that
// succeeded is only worth the warning, not a failure.
inline int timedIoctl(int fd, unsigned int request, void* arg, char const* name, bool isQbuf) {
    if (!queueTimingOn()) return doIoctl(fd, request, arg);
    auto start = std::chrono::steady_clock::now();
    int result = doIoctl(fd, request, arg);
    int saved = errno;
    int64_t elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(
                              std::chrono::steady_clock::now() - start)
                              .count();
    if (elapsed > kSlowQueueNs) warnSlowQueue(name, isQbuf, fd, elapsed);
    errno = saved;
    return result;
}

}  // namespace

// --- Files and directories -----------------------------------------------------------------

int Stat(char const* path, struct stat* st) {
    ScopedTrace trace(kTraceIoctl, "Stat");
    int result = stat(path, st);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] stat(%s): %s", "Stat", path, strerror(err));
        handleErrno(err);
        return -err;
    }
    return result;
}

int Open(char const* path, int flags, unsigned long tag) {
    ScopedTrace trace(kTraceFile, "Open");
    struct stat st;
    int statResult = Stat(path, &st);
    if (statResult < 0) {
        int err = -statResult;
        KORV_LOGE("[%s] Invalid device %s: %s", "Open", path, strerror(err));
        handleErrno(err);
        return -err;
    }
    // One mask test on purpose: character (0x2000) and block (0x6000) devices both pass, while
    // regular files, directories, pipes and sockets do not.
    if ((st.st_mode & 0xB000) != 0x2000) {
        KORV_LOGE("[%s] Invalid device node: %s", "Open", path);
        return -ENODEV;
    }
    int fd = __open_2(path, flags);
    if (fd < 0) {
        int err = errno;
        KORV_LOGE("[%s] open(%s) return %d: err=%d(%s)", "Open", path, fd, -err, strerror(err));
        handleErrno(err);
        return -err;
    }
    takeOwnership(fd, tag);
    return fd;
}

int Close(int fd, unsigned long tag) {
    ScopedTrace trace(kTraceFile, "Close");
    int result = qrvcam_fdsan_close_with_tag(fd, qrvcam_fdsan_create_tag(tag, 1), 1);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] close(%d) return %d: err=%d(%s)", "Close", fd, result, -err, strerror(err));
        handleErrno(err);
        return -err;
    }
    return result;
}

// Plain read() and write(): with an object size the compiler cannot know, glibc's fortified
// entries reduce to exactly these calls (and it has no __write_chk at all), and the plain names
// are the ones the sanitizers intercept.
ssize_t Read(int fd, void* buf, unsigned long count) {
    ScopedTrace trace(kTraceFile, "Read");
    ssize_t result = read(fd, buf, count);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] read(%d, %p, %zu) return %zd: err=%d(%s)", "Read", fd, buf, count, result,
                  -err, strerror(err));
        handleErrno(err);
        return -static_cast<ssize_t>(err);
    }
    return result;
}

ssize_t Write(int fd, void const* buf, unsigned long count) {
    ScopedTrace trace(kTraceFile, "Write");
    ssize_t result = write(fd, buf, count);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] write(%d, %p, %zu) return %zd: err=%d(%s)", "Write", fd, buf, count, result,
                  -err, strerror(err));
        handleErrno(err);
        return -static_cast<ssize_t>(err);
    }
    return result;
}

DIR* OpenDir(char const* path) {
    ScopedTrace trace(kTraceFile, "OpenDir");
    DIR* dir = opendir(path);
    if (dir == nullptr) {
        int err = errno;
        KORV_LOGE("[%s] opendir(%s) return NULL: err=%d(%s)", "OpenDir", path, -err, strerror(err));
        handleErrno(err);
    }
    return dir;
}

dirent* ReadDir(DIR* dir) {
    ScopedTrace trace(kTraceFile, "ReadDir");
    dirent* entry = readdir(dir);
    if (entry == nullptr) {
        // The end of the directory is reported like a failure, with whatever errno holds (usually
        // 0). Callers and log scanners count on exactly one such line per directory read to the
        // end; resetting errno first or staying quiet at the end would change that.
        int err = errno;
        KORV_LOGE("[%s] readdir() return NULL: err=%d(%s)", "ReadDir", -err, strerror(err));
        handleErrno(err);
    }
    return entry;
}

int CloseDir(DIR* dir) {
    ScopedTrace trace(kTraceFile, "CloseDir");
    int result = closedir(dir);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] closedir() return %d: err=%d(%s)", "CloseDir", result, -err, strerror(err));
        handleErrno(err);
        return -err;
    }
    return result;
}

int ReadLink(char const* path, char* buf, unsigned long size) {
    ScopedTrace trace(kTraceFile, "ReadLink");
    int result = static_cast<int>(readlink(path, buf, size));
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] readlink(%s) return %d: err=%d(%s)", "ReadLink", path, result, -err,
                  strerror(err));
        handleErrno(err);
        return -err;
    }
    return result;
}

// --- Event descriptors ---------------------------------------------------------------------

int EventFD(unsigned int initval, int flags, unsigned long tag) {
    ScopedTrace trace(kTraceFile, "EventFD");
    int fd = eventfd(initval, flags);
    if (fd < 0) {
        int err = errno;
        KORV_LOGE("[%s] eventfd(%u, %#x) return %d: err=%d(%s)", "EventFD", initval,
                  static_cast<unsigned int>(flags), fd, -err, strerror(err));
        handleErrno(err);
        return -err;
    }
    takeOwnership(fd, tag);
    return fd;
}

int TimerFDCreate(int clockid, int flags, unsigned long tag) {
    ScopedTrace trace(kTraceFile, "TimerFDCreate");
    int fd = timerfd_create(clockid, flags);
    if (fd < 0) {
        int err = errno;
        KORV_LOGE("[%s] timerfd_create() return %d: err=%d(%s)", "TimerFDCreate", fd, -err,
                  strerror(err));
        handleErrno(err);
        return -err;
    }
    takeOwnership(fd, tag);
    return fd;
}

int TimerFDSetTime(int fd, int flags, itimerspec const* newValue, itimerspec* oldValue) {
    ScopedTrace trace(kTraceEvent, "TimerFDSetTime");
    int result = timerfd_settime(fd, flags, newValue, oldValue);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] timerfd_settime(%d) return %d: err=%d(%s)", "TimerFDSetTime", fd, result,
                  -err, strerror(err));
        handleErrno(err);
        return -err;
    }
    return result;
}

int TimerFDGetTime(int fd, itimerspec* curValue) {
    ScopedTrace trace(kTraceEvent, "TimerFDGetTime");
    int result = timerfd_gettime(fd, curValue);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] timerfd_gettime(%d) return %d: err=%d(%s)", "TimerFDGetTime", fd, result,
                  -err, strerror(err));
        handleErrno(err);
        return -err;
    }
    return result;
}

// The old entry on purpose: the epoll descriptor is not close-on-exec, as it has always been.
// epoll_create1(EPOLL_CLOEXEC) would change what an exec'd child inherits.
int EPollCreate(int size, unsigned long tag) {
    ScopedTrace trace(kTraceFile, "EPollCreate");
    int fd = epoll_create(size);
    if (fd < 0) {
        int err = errno;
        KORV_LOGE("[%s] epoll_create() return %d: err=%d(%s)", "EPollCreate", fd, -err,
                  strerror(err));
        handleErrno(err);
        return -err;
    }
    takeOwnership(fd, tag);
    return fd;
}

int EPollCtlAdd(int epfd, int fd, epoll_event* event) {
    ScopedTrace trace(kTraceEvent, "EPollCtlAdd");
    int result = epoll_ctl(epfd, EPOLL_CTL_ADD, fd, event);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] epoll_ctl(%d, EPOLL_CTL_ADD, %d) return %d: err=%d(%s)", "EPollCtlAdd",
                  epfd, fd, result, -err, strerror(err));
        handleErrno(err);
        return -err;
    }
    return 0;
}

int EPollCtlMod(int epfd, int fd, epoll_event* event) {
    ScopedTrace trace(kTraceEvent, "EPollCtlMod");
    int result = epoll_ctl(epfd, EPOLL_CTL_MOD, fd, event);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] epoll_ctl(%d, EPOLL_CTL_MOD, %d) return %d: err=%d(%s)", "EPollCtlMod",
                  epfd, fd, result, -err, strerror(err));
        handleErrno(err);
        return -err;
    }
    return 0;
}

int EPollCtlDel(int epfd, int fd, epoll_event* event) {
    ScopedTrace trace(kTraceEvent, "EPollCtlDel");
    int result = epoll_ctl(epfd, EPOLL_CTL_DEL, fd, event);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] epoll_ctl(%d, EPOLL_CTL_DEL, %d) return %d: err=%d(%s)", "EPollCtlDel",
                  epfd, fd, result, -err, strerror(err));
        handleErrno(err);
        return -err;
    }
    return 0;
}

int EPollWait(int epfd, epoll_event* events, int maxevents, int timeout) {
    ScopedTrace trace(kTraceEvent, "EPollWait");
    int result = epoll_wait(epfd, events, maxevents, timeout);
    if (result < 0) {
        int err = errno;
        // A signal woke the waiter: the event monitor's loop decides what that means, and a line
        // per interrupted wait would flood the log of a process that takes signals.
        if (err == EINTR) return -EINTR;
        KORV_LOGE("[%s] epoll_wait(%d, maxevents=%d, timeout=%d) return %d: err=%d(%s)",
                  "EPollWait", epfd, maxevents, timeout, result, -err, strerror(err));
        handleErrno(err);
        return -err;
    }
    return result;
}

// --- Device requests, buffers and IOVA mappings --------------------------------------------

int Ioctl(int fd, int request, void* arg, unsigned int flags) {
    ScopedTrace trace(kTraceIoctl, "Ioctl");
    auto code = static_cast<unsigned int>(request);
    int result = doIoctl(fd, code, arg);
    // Without bit 0 the caller probes: the raw result and errno are its business, and no line.
    if (result < 0 && (flags & 1u) != 0) {
        int err = errno;
        KORV_LOGE("[%s] ioctl(%d, %#x): %d(%s)", "Ioctl", fd, code, -err, strerror(err));
        handleErrno(err);
        return -err;
    }
    return result;
}

int AllocMediaRequest(int mediaFd, unsigned long tag) {
    ScopedTrace trace(korvlog::kTraceMediaAlloc, "MEDIA_IOC_REQUEST_ALLOC");
    int requestFd = -1;
    int result = doIoctl(mediaFd, kMediaIocRequestAlloc, &requestFd);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] ioctl(%d, MEDIA_IOC_REQUEST_ALLOC) return %d: err=%d(%s)",
                  "AllocMediaRequest", mediaFd, result, -err, strerror(err));
        return driverFault(err, KORV_DRIVER_FAULT("MEDIA_IOC_REQUEST_ALLOC"));
    }
    takeOwnership(requestFd, tag);
    return requestFd;
}

// Deliberately without a trace section, unlike every other request call: captures are read by
// tools that expect exactly the sections they know.
int ReinitMediaRequest(int requestFd) {
    int result = doIoctl(requestFd, kMediaRequestIocReinit, nullptr);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] ioctl(%d, MEDIA_REQUEST_IOC_REINIT): err=%d(%s)", "ReinitMediaRequest",
                  requestFd, -err, strerror(err));
        return driverFault(err, KORV_DRIVER_FAULT("MEDIA_REQUEST_IOC_REINIT"));
    }
    return 0;
}

int QueueMediaRequest(int requestFd) {
    ScopedTrace trace(korvlog::kTraceMediaQueue, "MEDIA_REQUEST_IOC_QUEUE");
    int result = timedIoctl(requestFd, kMediaRequestIocQueue, nullptr, "QueueMediaRequest", false);
    if (result != 0) {
        int err = errno;
        KORV_LOGE("[%s] ioctl(%d, MEDIA_REQUEST_IOC_QUEUE): err=%d(%s)", "QueueMediaRequest",
                  requestFd, -err, strerror(err));
        return driverFault(err, KORV_DRIVER_FAULT("MEDIA_REQUEST_IOC_QUEUE"));
    }
    return 0;
}

int QueueVideoNodeBuf(int fd, void* buffer) {
    ScopedTrace trace(korvlog::kTraceQueueBuf, "VIDIOC_QBUF");
    int result = timedIoctl(fd, kVidiocQbuf, buffer, "QueueVideoNodeBuf", true);
    if (result != 0) {
        int err = errno;
        KORV_LOGE("[%s] ioctl(%d, VIDIOC_QBUF): %d(%s)", "QueueVideoNodeBuf", fd, -err,
                  strerror(err));
        return driverFault(err, KORV_DRIVER_FAULT("VIDIOC_QBUF"));
    }
    return 0;
}

int DQueueVideoNodeBuf(int fd, void* buffer) {
    ScopedTrace trace(korvlog::kTraceWait, "VIDIOC_DQBUF");
    int result = doIoctl(fd, kVidiocDqbuf, buffer);
    if (result != 0) {
        int err = errno;
        // No buffer ready on a non-blocking node: the normal answer to a poll that came early.
        if (err == EAGAIN) return -EAGAIN;
        KORV_LOGE("[%s] ioctl(%d, VIDIOC_DQBUF): %d(%s)", "DQueueVideoNodeBuf", fd, -err,
                  strerror(err));
        return driverFault(err, KORV_DRIVER_FAULT("VIDIOC_DQBUF"));
    }
    return 0;
}

// Unlike DQueueVideoNodeBuf(), an empty queue (ENOENT) ends the process too: callers dequeue only
// once they were told that an event is pending, so an empty queue means the driver lost it. Keep
// the asymmetry; a quiet path here would hide that.
int DQueueEvent(int fd, void* event) {
    ScopedTrace trace(korvlog::kTraceDQueueEvent, "VIDIOC_DQEVENT");
    int result = doIoctl(fd, kVidiocDqevent, event);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] ioctl(%d, VIDIOC_DQEVENT): %d(%s)", "DQueueEvent", fd, -err, strerror(err));
        return driverFault(err, KORV_DRIVER_FAULT("VIDIOC_DQEVENT"));
    }
    return 0;
}

int AddIova(int fd, int request, void* arg) {
    ScopedTrace trace(kTraceIoctl, "AddIova");
    auto code = static_cast<unsigned int>(request);
    int result = doIoctl(fd, code, arg);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] ioctl(%d, %#x): %d(%s)", "AddIova", fd, code, -err, strerror(err));
        return driverFault(err, KORV_DRIVER_FAULT("QRVDIP_IOC_ADD_IOVA"));
    }
    return 0;
}

int DelIova(int fd, int request, void* arg) {
    ScopedTrace trace(kTraceIoctl, "DelIova");
    auto code = static_cast<unsigned int>(request);
    int result = doIoctl(fd, code, arg);
    if (result < 0) {
        int err = errno;
        KORV_LOGE("[%s] ioctl(%d, %#x): %d(%s)", "DelIova", fd, code, -err, strerror(err));
        return driverFault(err, KORV_DRIVER_FAULT("QRVDIP_IOC_DEL_IOVA"));
    }
    return 0;
}

}  // namespace System
}  // namespace NSKorvalite
}  // namespace NSCam
