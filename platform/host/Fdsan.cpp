// Descriptor ownership on the host, after bionic's fdsan: an owner tag per descriptor, checked by
// every close, including the C library's plain close(), which this library interposes.
#include <android/log.h>
#include <dlfcn.h>
#include <errno.h>
#include <inttypes.h>
#include <qrvcam/Properties.h>
#include <qrvcam/fdsan.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "ErrnoRestorer.h"

namespace {

constexpr char kTag[] = "qrvcam-fdsan";

// Two levels, so that the table costs nothing until descriptors are tagged and a lookup takes no
// lock: close() may run in a signal handler or in a forked child. Chunks are allocated on first
// tag and never freed (a freed chunk could still be read by a concurrent lookup). Descriptors
// beyond the table are untracked, i.e. always unowned.
constexpr int kChunkBits = 10;
constexpr int kChunkSize = 1 << kChunkBits;
constexpr int kChunkCount = 1024;

using TagSlot = std::atomic<uint64_t>;
std::atomic<TagSlot*> gChunks[kChunkCount];

TagSlot* findSlot(int fd, bool create) {
    if (fd < 0 || fd >= kChunkSize * kChunkCount) return nullptr;
    std::atomic<TagSlot*>& chunkRef = gChunks[fd >> kChunkBits];
    TagSlot* chunk = chunkRef.load(std::memory_order_acquire);
    if (chunk == nullptr && create) {
        // Value-initialised: every tag starts at 0 (unowned).
        TagSlot* fresh = new TagSlot[kChunkSize]();
        if (chunkRef.compare_exchange_strong(chunk, fresh, std::memory_order_acq_rel)) {
            chunk = fresh;
        } else {
            delete[] fresh;  // another thread installed one first; `chunk` now holds it
        }
    }
    return chunk != nullptr ? &chunk[fd & (kChunkSize - 1)] : nullptr;
}

using CloseFunction = int (*)(int);
std::atomic<CloseFunction> gRealClose{nullptr};

int directClose(int fd) {
    return static_cast<int>(syscall(SYS_close, fd));
}

// The C library's close, which ours hides. Resolved at load (below) so that close() does not
// call dlsym in a signal handler; a close that runs before that resolves it itself.
CloseFunction realClose() {
    CloseFunction function = gRealClose.load(std::memory_order_acquire);
    if (function == nullptr) {
        function = reinterpret_cast<CloseFunction>(dlsym(RTLD_NEXT, "close"));
        if (function == nullptr) function = directClose;
        gRealClose.store(function, std::memory_order_release);
    }
    return function;
}

__attribute__((constructor)) void resolveRealClose() {
    realClose();
}

// Logs the error line, aborts in fatal mode, otherwise refuses the call with EBADF.
int ownershipError(char const* operation, int fd, uint64_t given, uint64_t owner) {
    {
        qrvcam_host::ErrnoRestorer keepErrno;
        __android_log_print(ANDROID_LOG_ERROR, kTag,
                            "%s(fd=%d) refused: tag 0x%" PRIx64 " given, owner tag 0x%" PRIx64,
                            operation, fd, given, owner);
        char mode[PROPERTY_VALUE_MAX];
        NSCam::Utils::Properties::property_get("debug.qrvcam.fdsan", mode, "");
        if (strcmp(mode, "fatal") == 0) abort();
    }
    errno = EBADF;
    return -1;
}

}  // namespace

extern "C" {

uint64_t qrvcam_fdsan_create_tag(uint64_t value, int type) {
    return (static_cast<uint64_t>(type) << 56) | (value & UINT64_C(0x00ffffffffffffff));
}

int qrvcam_fdsan_exchange_tag(int fd, uint64_t expected_tag, uint64_t new_tag, int /*flags*/) {
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    TagSlot* slot = findSlot(fd, new_tag != 0);
    if (slot == nullptr) {
        // Untracked: its tag is 0 and stays 0.
        return expected_tag == 0 ? 0 : ownershipError("exchange_tag", fd, expected_tag, 0);
    }
    uint64_t current = expected_tag;
    if (!slot->compare_exchange_strong(current, new_tag, std::memory_order_acq_rel)) {
        return ownershipError("exchange_tag", fd, expected_tag, current);
    }
    return 0;
}

int qrvcam_fdsan_close_with_tag(int fd, uint64_t tag, int /*flags*/) {
    TagSlot* slot = findSlot(fd, false);
    if (slot != nullptr) {
        // Cleared before the real close: once the number is free, another thread may get it
        // from open() and tag it at once.
        uint64_t current = tag;
        if (!slot->compare_exchange_strong(current, 0, std::memory_order_acq_rel)) {
            return ownershipError("close_with_tag", fd, tag, current);
        }
    } else if (tag != 0) {
        return ownershipError("close_with_tag", fd, tag, 0);
    }
    // Through the process's first close(), not the C library's: a sanitizer's close() comes
    // before ours and must see every close, or ThreadSanitizer reports the next owner of the
    // number as racing with this one. The tag is clear, so our own close() lets it through.
    return close(fd);
}

uint64_t qrvcam_fdsan_get_owner_tag(int fd) {
    TagSlot* slot = findSlot(fd, false);
    return slot != nullptr ? slot->load(std::memory_order_acquire) : 0;
}

// Interposes the C library's close for every program that links this library before libc (any
// program linked against it). Owned descriptors may be closed only with their tag.
int close(int fd) {
    TagSlot* slot = findSlot(fd, false);
    uint64_t owner = slot != nullptr ? slot->load(std::memory_order_acquire) : 0;
    if (owner != 0) return ownershipError("close", fd, 0, owner);
    return realClose()(fd);
}

}  // extern "C"
