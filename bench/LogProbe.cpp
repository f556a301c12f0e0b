// Call sites of the library's log and trace frame, for the disabled-path figures. Built into a
// module of their own (libkorv_bench_probe.so) exactly as the library builds its files: beside
// the trace accessor's file, with hidden visibility, no semantic interposition and link-time
// optimisation, so that each call site compiles as it does inside the library, and it reaches the
// process's one trace mask through the GOT as the library does (LogProbe.map.txt). Out of line and
// called through pointers so that the benchmark loop cannot hoist the switch tests out of the
// loop.
#define LOG_TAG "korvalite-bench"
#define KORV_SOURCE_PATH "bench/LogProbe"

#include "LogProbe.h"

#include "KorvLog.h"

namespace korvbench {
namespace {

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

Probes const kProbes = {&probeNothing,  &probeLogD,   &probeTraceCameraOff, &probeTraceBitOff,
                        &logDEnabled,   &traceBitSet, &cameraTraceOn};

}  // namespace
}  // namespace korvbench

extern "C" __attribute__((visibility("default"))) korvbench::Probes const* korv_bench_probes() {
    return &korvbench::kProbes;
}
