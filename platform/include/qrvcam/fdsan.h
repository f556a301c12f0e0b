// Descriptor ownership (fd sanitizer) of the camera platform.
//
// Every descriptor has an owner tag, 0 when unowned. A mismatch is an ownership error: one error
// line with tag "qrvcam-fdsan", and the call is refused (nothing changes; errno EBADF). With the
// property "debug.qrvcam.fdsan" set to "fatal" the process aborts instead. The library also
// interposes close(): a plain close of an owned descriptor is an ownership error too.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// (type << 56) | (value & 0x00ffffffffffffff)
uint64_t qrvcam_fdsan_create_tag(uint64_t value, int type);

// Sets `new_tag` when the current tag equals `expected_tag`. Returns 0, or -1 when refused.
int qrvcam_fdsan_exchange_tag(int fd, uint64_t expected_tag, uint64_t new_tag, int flags);

// Closes `fd` when its current tag equals `tag`, and clears the tag. Returns close()'s result,
// or -1 with errno EBADF when refused.
int qrvcam_fdsan_close_with_tag(int fd, uint64_t tag, int flags);

// Host addition: the current owner tag of `fd` (0 when unowned). Descriptors from 1048576 up
// are not tracked: they read 0, and tagging them succeeds without effect. Any thread.
uint64_t qrvcam_fdsan_get_owner_tag(int fd);

#ifdef __cplusplus
}
#endif
