// Thread customisation on the host: nothing to tune, so the requests are only logged.
#include <android/log.h>
#include <limits.h>
#include <qrvcam/perfctrl.h>

#include "ErrnoRestorer.h"

namespace {
constexpr char kTag[] = "qrvcam-perfctrl";
}  // namespace

int customizeThreadReadyToRun(char const* name, size_t length) {
    qrvcam_host::ErrnoRestorer keepErrno;
    int const precision = length < INT_MAX ? static_cast<int>(length) : INT_MAX;
    __android_log_print(ANDROID_LOG_DEBUG, kTag, "customizeThreadReadyToRun(name=%.*s, length=%zu)",
                        name != nullptr ? precision : 0, name != nullptr ? name : "", length);
    return 0;
}

int qrvcam_perfctrl_set_affinity(int hint) {
    qrvcam_host::ErrnoRestorer keepErrno;
    __android_log_print(ANDROID_LOG_DEBUG, kTag, "qrvcam_perfctrl_set_affinity(hint=%d)", hint);
    return 0;
}
