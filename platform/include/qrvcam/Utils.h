// Thread and file-system utilities of the camera stack.
#pragma once

namespace NSCam {
namespace Utils {

// Applies policy and priority to the calling thread (for SCHED_OTHER and SCHED_BATCH the
// priority is the nice value). Logs a warning and returns false when the kernel refuses.
bool setThreadPriority(int policy, int priority);

// Creates `path` and its missing parents with `mode`. True when the folder exists at the end.
bool makePath(char const* path, unsigned int mode);

}  // namespace Utils
}  // namespace NSCam
