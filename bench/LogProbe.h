// Call sites of the library's log and trace frame (LogProbe.cpp), in libkorv_bench_probe.so.
#pragma once

namespace korvbench {

struct Probes {
    // Each runs its call site `count` times (a multiple of 8), with a compiler barrier before the
    // site and another inside it.
    // Only the barriers: the floor the probes are compared with.
    void (*nothing)(int count);
    // A KORV_LOGD line (details level 4).
    void (*logD)(int count);
    // A trace section whose bit is in the default mask, while the camera trace tag is off: what
    // every wrapper pays on a device that is not tracing.
    void (*traceCameraOff)(int count);
    // A trace section whose bit is not in the mask.
    void (*traceBitOff)(int count);

    // The state the probes ran in, to print beside their figures.
    bool (*logDEnabled)();
    bool (*traceBitSet)(bool dispatchBit);
    bool (*cameraTraceOn)();
};

}  // namespace korvbench

// The module's one exported name.
extern "C" korvbench::Probes const* korv_bench_probes();
