// State dump of the image-processing module.
#pragma once

#include <stdint.h>

#include <qrvcam/IPrinter.h>

namespace NSCam {
namespace NSKorvalite {

// Parameters of one dump. The layout is part of the exported interface.
struct korv_dumpstate_params {
    char const* tag;        // log tag of the dump; null means "korvalite"
    char const* name;       // line prefix; null prints as "[Unknown]" when the dump runs on the
                            // calling thread, as nothing before the blank on a worker
    int32_t timeout;        // ms the caller waits; negative runs the dump on the calling thread
    int32_t target;         // -2 log then file, -1 file then log, 1 file, 2 log,
                            // 0 the property "persist.vendor.camera.korvalite.dumpKorvaliteMgr",
                            // anything else file with the log as fallback
    uint32_t flags;         // bit 0: back-trace in a file dump; bit 1: back-trace in a log dump
    uint8_t reserved[16];   // copied through unchanged, never read
};

using korv_dumpstate_callback_t = void (*)(NSCam::IPrinter*);

// Registers the process-wide state callback, replacing any earlier one; null clears it.
// Any thread.
[[gnu::visibility("default")]]
void korv_dumpstate_set_dumpstate_callback(korv_dumpstate_callback_t callback);

}  // namespace NSKorvalite
}  // namespace NSCam

extern "C" {
// Dumps the registered state. With a non-negative timeout the dump runs on a detached worker
// thread and the caller waits at most `timeout` ms for it; the worker copies what it needs, so
// `params` need not outlive the call. `params` must not be null. Any thread.
[[gnu::visibility("default")]]
void korv_dumpstate(NSCam::NSKorvalite::korv_dumpstate_params const* params);
}
