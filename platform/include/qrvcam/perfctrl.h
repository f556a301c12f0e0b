// Per-thread performance customisation of the camera platform. On the host these only log what
// they were asked (debug priority, tag "qrvcam-perfctrl") and change nothing.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Applies the platform's customisation for the thread named by `name` (`length` characters).
// Returns a hint for qrvcam_perfctrl_set_affinity.
int customizeThreadReadyToRun(char const* name, size_t length);

// Applies the platform's CPU affinity to the calling thread. Returns 0.
int qrvcam_perfctrl_set_affinity(int hint);

#ifdef __cplusplus
}
#endif
