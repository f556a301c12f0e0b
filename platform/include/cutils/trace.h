// Android systrace interface as the camera platform provides it.
//
// The body functions write unconditionally; callers test atrace_get_enabled_tags() first.
// Each writes one line ("B|<pid>|<name>", "E|<pid>", "C|<pid>|<name>|<value>",
// "S|<pid>|<name>|<cookie>", "F|<pid>|<name>|<cookie>", then a newline; at most 1023 bytes) in one
// write() to the file named by "debug.atrace.marker_file", else to the kernel's trace_marker when
// writable, else nowhere. Every function may be called from any thread and leaves errno alone.
#pragma once

#include <stdint.h>

#define ATRACE_TAG_CAMERA (UINT64_C(1) << 10)

#ifdef __cplusplus
extern "C" {
#endif

// Enabled trace tags ("debug.atrace.tags.enableflags"), read at the first trace call.
uint64_t atrace_get_enabled_tags(void);

// Re-reads the enabled tags and the marker file property, reopening the marker when it changed.
void atrace_update_tags(void);

void atrace_begin_body(const char* name);
void atrace_end_body(void);
void atrace_int_body(const char* name, int32_t value);
void atrace_async_begin_body(const char* name, int32_t cookie);
void atrace_async_end_body(const char* name, int32_t cookie);

#ifdef __cplusplus
}
#endif
