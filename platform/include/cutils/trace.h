// Android systrace interface as the camera platform provides it.
//
// The body functions write unconditionally; callers test atrace_get_enabled_tags() first.
// Each event is Android's trace-marker text ("B|<pid>|<name>", "E|<pid>", "C|<pid>|<name>|<value>",
// "S|<pid>|<name>|<cookie>", "F|<pid>|<name>|<cookie>"; at most 1022 bytes), written with one
// write() per line. To the file named by "debug.atrace.marker_file" it goes as a systrace text
// line, "<task>-<tid> (<pid>) [<cpu>] .... <seconds>.<microseconds>: tracing_mark_write: <marker>",
// under a "# tracer: nop" header written when the file is empty at open; without that property,
// to the kernel's trace_marker as the bare marker text when writable; else nowhere. Every
// function may be called from any thread and leaves errno alone.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
#include <atomic>
#define ATRACE_STD_ std::
#define ATRACE_ATOMIC_(type) std::atomic<type>
#else
#include <stdatomic.h>
#include <stdbool.h>
#define ATRACE_STD_
#define ATRACE_ATOMIC_(type) _Atomic(type)
#endif

#define ATRACE_TAG_CAMERA (UINT64_C(1) << 10)

#ifdef __cplusplus
extern "C" {
#endif

// Set, with release order, once atrace_setup() has read the tags and opened the marker.
extern ATRACE_ATOMIC_(bool) atrace_is_ready;
// The enabled tags ("debug.atrace.tags.enableflags"); valid once atrace_is_ready is set.
extern ATRACE_ATOMIC_(uint64_t) atrace_enabled_tags;

// Reads the tags and opens the marker the first time; later calls return at once.
void atrace_setup(void);

// Re-reads the enabled tags and the marker file property, reopening the marker when it changed.
void atrace_update_tags(void);

// Inline, as on a device: a disabled trace costs two loads and no call into the platform.
static inline uint64_t atrace_get_enabled_tags(void) {
    if (__builtin_expect(
                !ATRACE_STD_ atomic_load_explicit(&atrace_is_ready, ATRACE_STD_ memory_order_acquire),
                0)) {
        atrace_setup();
    }
    return ATRACE_STD_ atomic_load_explicit(&atrace_enabled_tags, ATRACE_STD_ memory_order_relaxed);
}

void atrace_begin_body(const char* name);
void atrace_end_body(void);
void atrace_int_body(const char* name, int32_t value);
void atrace_async_begin_body(const char* name, int32_t cookie);
void atrace_async_end_body(const char* name, int32_t cookie);

#ifdef __cplusplus
}
#endif
