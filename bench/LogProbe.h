// Call sites of the library's log and trace frame (LogProbe.cpp).
#pragma once

namespace korvbench {

// An empty out-of-line call: the floor the probes are compared with.
void probeNothing(int value);
// A KORV_LOGD line (details level 4).
void probeLogD(int value);
// A trace section whose bit is in the default mask, while the camera trace tag is off: what every
// wrapper pays on a device that is not tracing.
void probeTraceCameraOff(int value);
// A trace section whose bit is not in the mask.
void probeTraceBitOff(int value);

// The state the probes ran in, to print beside their figures.
bool logDEnabled();
bool traceBitSet(bool dispatchBit);
bool cameraTraceOn();

}  // namespace korvbench
