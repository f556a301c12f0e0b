// Call sites of the library's log and trace frame, for the disabled-path figures. Built into a
// module of their own (libkorv_bench_probe.so) exactly as the library builds its files: beside
// the trace accessor's file, with hidden visibility, no semantic interposition and link-time
// optimisation, so that each call site compiles as it does inside the library, and it reaches the
// process's one trace mask through the GOT as the library does (LogProbe.map.txt). Each probe runs
// its call site `count` times in one loop, eight to a turn, so that the figure per call site leaves
// out the call that reaches the probe and most of the loop's own counting. An empty barrier before
// each section and another inside it tell the compiler that memory may have changed, so every
// section loads the mask, the ready flag and the tags anew, in its opening and in its closing, as
// a section of a function called afresh does.
#define LOG_TAG "korvalite-bench"
#define KORV_SOURCE_PATH "bench/LogProbe"

#include "LogProbe.h"

#include <utility>

#include "KorvLog.h"

namespace korvbench {
namespace {

namespace korvlog = NSCam::NSKorvalite::korvlog;

inline void barrier(int value) {
    asm volatile("" : : "r"(value) : "memory");
}

// `site` `count` times (a multiple of 8), eight to a turn of the loop, each after a barrier.
template <class Site, int... J>
__attribute__((always_inline)) inline void repeat(int count, Site site,
                                                  std::integer_sequence<int, J...> = {}) {
    if constexpr (sizeof...(J) == 0) {
        repeat(count, site, std::make_integer_sequence<int, 8>{});
    } else {
        for (int i = 0; i < count; i += 8) ((barrier(i + J), site(i + J)), ...);
    }
}

__attribute__((noinline)) void probeNothing(int count) {
    repeat(count, [](int i) { barrier(i); });
}

__attribute__((noinline)) void probeLogD(int count) {
    repeat(count, [](int i) {
        KORV_LOGD("[%s] probe value=%d", "probeLogD", i);
        barrier(i);
    });
}

__attribute__((noinline)) void probeTraceCameraOff(int count) {
    repeat(count, [](int i) {
        korvlog::ScopedTrace trace(korvlog::kTraceDispatch, "probeTraceCameraOff");
        barrier(i);
    });
}

__attribute__((noinline)) void probeTraceBitOff(int count) {
    repeat(count, [](int i) {
        korvlog::ScopedTrace trace(korvlog::kTraceAttach, "probeTraceBitOff");
        barrier(i);
    });
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

Probes const kProbes = {&probeNothing, &probeLogD,   &probeTraceCameraOff, &probeTraceBitOff,
                        &logDEnabled,  &traceBitSet, &cameraTraceOn};

}  // namespace
}  // namespace korvbench

extern "C" __attribute__((visibility("default"))) korvbench::Probes const* korv_bench_probes() {
    return &korvbench::kProbes;
}
