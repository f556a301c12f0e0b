// Trace-bit mask of the image-processing module.
//
// Each bit enables the systrace sections of one group of operations; a section is emitted only
// when its bit is set here and ATRACE_TAG_CAMERA is enabled. The mask is read from
// "persist.vendor.camera.korvalite.tracebits" (default 0x10001131) once, when the library loads.
#pragma once

#include <stdint.h>

// Written once while the library loads; read-only afterwards.
[[gnu::visibility("default")]] extern uint64_t korvalite_enabled_tracebits;

// Returns korvalite_enabled_tracebits. Any thread. A C++ function: modules look it up under its
// mangled name.
[[gnu::visibility("default")]] uint64_t get_korvalite_enabled_tracebits();
