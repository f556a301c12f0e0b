// Wrappers of the system calls and device requests of the image-processing module.
//
// Every wrapper makes one call and returns its result on success and the negative errno on
// failure (null for the directory handles). A failure leaves one error line, in the Android log
// and in ULog as the mode switches say, under the tag "korvalite-syscall"; running out of
// descriptors (EMFILE) also lists the process's open descriptors. Wrappers that create a
// descriptor mark it as owned by `tag`, the address of the variable that keeps it; close it with
// Close() and the same tag. All wrappers may be called from any thread.
//
// The device wrappers (media requests, V4L2 buffers and events, IOVA mappings) treat a refused
// request as a driver fault: after the error line they raise an exception report (module
// "tovrix") and end the process with SIGTERM, then SIGKILL 100 ms later; they return the negative
// errno only if the process survives both. Ioctl() never does this.
#pragma once

#include <dirent.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

namespace NSCam {
namespace NSKorvalite {
namespace [[gnu::visibility("default")]] System {

// --- Files and directories -----------------------------------------------------------------

// Opens a device node (character or block device) with `flags` and no mode. -ENODEV when the
// path is no device node; the stat failure's negative errno when it cannot be examined.
int Open(char const* path, int flags, unsigned long tag);
// Closes `fd` through the descriptor-ownership check with `tag` (as given at creation).
int Close(int fd, unsigned long tag);
// Byte counts as they come (short counts are not retried).
ssize_t Read(int fd, void* buf, unsigned long count);
ssize_t Write(int fd, void const* buf, unsigned long count);
int Stat(char const* path, struct stat* st);
// Null on failure.
DIR* OpenDir(char const* path);
// Null at the end of the directory too, and that end is reported as a failure (err=0 when
// nothing failed): iterating to the end leaves one error line.
dirent* ReadDir(DIR* dir);
int CloseDir(DIR* dir);
// The byte count; the buffer is not NUL-terminated.
int ReadLink(char const* path, char* buf, unsigned long size);

// --- Event descriptors ---------------------------------------------------------------------

int EventFD(unsigned int initval, int flags, unsigned long tag);
int TimerFDCreate(int clockid, int flags, unsigned long tag);
// `oldValue` may be null.
int TimerFDSetTime(int fd, int flags, itimerspec const* newValue, itimerspec* oldValue);
int TimerFDGetTime(int fd, itimerspec* curValue);
// epoll_create(size): the descriptor is deliberately not close-on-exec.
int EPollCreate(int size, unsigned long tag);
int EPollCtlAdd(int epfd, int fd, epoll_event* event);
int EPollCtlMod(int epfd, int fd, epoll_event* event);
// `event` may be null.
int EPollCtlDel(int epfd, int fd, epoll_event* event);
// Blocks up to `timeout` ms (-1: without limit). Returns the number of ready events, 0 on
// time-out, -EINTR silently when a signal interrupted the wait.
int EPollWait(int epfd, epoll_event* events, int maxevents, int timeout);

// --- Device requests, buffers and IOVA mappings --------------------------------------------

// Plain ioctl. With `flags` bit 0 set a negative result is reported and returned as the negative
// errno; without it the result is returned as it comes and nothing is logged. Never ends the
// process.
int Ioctl(int fd, int request, void* arg, unsigned int flags);
// MEDIA_IOC_REQUEST_ALLOC on the media device: the new request descriptor, owned by `tag`.
int AllocMediaRequest(int mediaFd, unsigned long tag);
int ReinitMediaRequest(int requestFd);
// The two queue calls time themselves when verbose logging was on as the library loaded (and
// "persist.vendor.qrv.camera.log_level" was unset or above 2), and warn when the kernel took more
// than 2 ms. Any non-zero result is a failure.
int QueueMediaRequest(int requestFd);
// `buffer` is a v4l2_buffer.
int QueueVideoNodeBuf(int fd, void* buffer);
// -EAGAIN silently when no buffer is ready on a non-blocking node.
int DQueueVideoNodeBuf(int fd, void* buffer);
// `event` is a v4l2_event. An empty event queue is a driver fault like any other failure.
int DQueueEvent(int fd, void* event);
// The driver's add/delete-IOVA requests; the caller supplies the request code.
int AddIova(int fd, int request, void* arg);
int DelIova(int fd, int request, void* arg);

}  // namespace System
}  // namespace NSKorvalite
}  // namespace NSCam
