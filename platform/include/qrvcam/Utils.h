// Thread and file-system utilities of the camera stack.
#pragma once

namespace NSCam {
namespace Utils {

// Applies policy and priority to the calling thread (for SCHED_OTHER, SCHED_BATCH and SCHED_IDLE
// the priority is the nice value). Logs a warning (tag "qrvcam-utils") and returns false, with
// errno from the refused call, when the kernel refuses.
bool setThreadPriority(int policy, int priority);

// Creates `path` and its missing parents with `mode` (less the umask). True when the folder exists
// at the end; a failed mkdir is logged as a warning (tag "qrvcam-utils").
bool makePath(char const* path, unsigned int mode);

}  // namespace Utils
}  // namespace NSCam
