#include <android/log.h>
#include <errno.h>
#include <qrvcam/Utils.h>
#include <sched.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "ErrnoRestorer.h"

namespace NSCam {
namespace Utils {
namespace {

constexpr char kTag[] = "qrvcam-utils";

bool isDirectory(char const* path) {
    struct stat status;
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

bool setThreadPriority(int policy, int priority) {
    // Linux schedules threads, not processes: pid 0 and gettid() both name the calling thread.
    int const basePolicy = policy & ~SCHED_RESET_ON_FORK;
    bool const realTime = basePolicy == SCHED_FIFO || basePolicy == SCHED_RR;
    sched_param param = {};
    param.sched_priority = realTime ? priority : 0;
    char const* step = "sched_setscheduler";
    bool applied = sched_setscheduler(0, policy, &param) == 0;
    if (applied && !realTime) {
        step = "setpriority";
        applied = setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), priority) == 0;
    }
    if (!applied) {
        qrvcam_host::ErrnoRestorer keepErrno;
        int const error = errno;
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "setThreadPriority(policy=%d, priority=%d) tid=%d: %s: %s (%d)", policy,
                            priority, gettid(), step, strerror(error), error);
    }
    return applied;
}

bool makePath(char const* path, unsigned int mode) {
    if (path == nullptr || path[0] == '\0') return false;
    std::string partial(path);
    // Each parent in turn, then the path itself; one that exists already is fine, and whether
    // the whole path ends up a directory is what decides.
    for (size_t slash = partial.find('/', 1);; slash = partial.find('/', slash + 1)) {
        bool const last = slash == std::string::npos;
        if (!last) partial[slash] = '\0';
        if (mkdir(partial.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST) {
            qrvcam_host::ErrnoRestorer keepErrno;
            int const error = errno;
            __android_log_print(ANDROID_LOG_WARN, kTag, "makePath(%s): mkdir(%s): %s (%d)", path,
                                partial.c_str(), strerror(error), error);
            return false;
        }
        if (last) break;
        partial[slash] = '/';
    }
    return isDirectory(path);
}

}  // namespace Utils
}  // namespace NSCam
