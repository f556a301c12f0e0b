// Call sites of the library's log and trace frame, compiled as the library's own files compile
// them, for the disabled-path figures. Out of line so that the benchmark loop cannot hoist the
// switch tests out of the loop.
#define LOG_TAG "korvalite-bench"
#define KORV_SOURCE_PATH "bench/LogProbe"

#include "LogProbe.h"

#include "KorvLog.h"

namespace korvbench {

namespace korvlog = NSCam::NSKorvalite::korvlog;

__attribute__((noinline)) void probeNothing(int value) {
    asm volatile("" : : "r"(value) : "memory");
}

__attribute__((noinline)) void probeLogD(int value) {
    KORV_LOGD("[%s] probe value=%d", "probeLogD", value);
}

__attribute__((noinline)) void probeTraceCameraOff(int value) {
    korvlog::ScopedTrace trace(korvlog::kTraceDispatch, "probeTraceCameraOff");
    asm volatile("" : : "r"(value) : "memory");
}

__attribute__((noinline)) void probeTraceBitOff(int value) {
    korvlog::ScopedTrace trace(korvlog::kTraceAttach, "probeTraceBitOff");
    asm volatile("" : : "r"(value) : "memory");
}

bool logDEnabled() {
    return korvlog::detailsLevel() >= korvlog::kLevelDebug;
}

bool traceBitSet(bool dispatchBit) {
    return (get_korvalite_enabled_tracebits() &
            (dispatchBit ? korvlog::kTraceDispatch : korvlog::kTraceAttach)) != 0;
}

bool cameraTraceOn() {
    return (atrace_get_enabled_tags() & ATRACE_TAG_CAMERA) != 0;
}

}  // namespace korvbench
