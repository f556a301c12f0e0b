// Counts heap allocations per thread, so that the figures can show which paths allocate.
//
// The benchmark's own malloc, calloc and realloc take the place of the C library's for the whole
// process (free stays the C library's, which accepts both). The Looper peer is loaded with
// RTLD_DEEPBIND and reaches the C library's directly: its allocations are not counted.
// Nothing here may include <stdlib.h>: its declarations of these functions are noexcept.
#include <stddef.h>
#include <stdint.h>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
}

namespace korvbench {
namespace {
thread_local uint64_t tAllocations = 0;
}  // namespace

uint64_t threadAllocations() {
    return tAllocations;
}

bool countsAllocations() {
    return true;
}

}  // namespace korvbench

extern "C" {

void* malloc(size_t size) {
    ++korvbench::tAllocations;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    ++korvbench::tAllocations;
    return __libc_calloc(count, size);
}

void* realloc(void* pointer, size_t size) {
    ++korvbench::tAllocations;
    return __libc_realloc(pointer, size);
}

}  // extern "C"
