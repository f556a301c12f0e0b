// The exception-reporting service on the host: each report becomes one log line.
#include <android/log.h>
#include <qrvcam/Xem.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "ErrnoRestorer.h"

namespace NSCam {
namespace Utils {
namespace Xem {
namespace {

constexpr char kTag[] = "qrvcam-xem";

__attribute__((format(printf, 5, 0))) void report(int priority, char const* kind,
                                                  char const* module, char const* path,
                                                  char const* format, va_list args) {
    qrvcam_host::ErrnoRestorer keepErrno;
    char* message = nullptr;
    if (format == nullptr || vasprintf(&message, format, args) < 0) message = nullptr;
    __android_log_print(priority, kTag, "%s module=%s path=%s: %s", kind,
                        module != nullptr ? module : "null", path != nullptr ? path : "null",
                        message != nullptr ? message : "");
    free(message);
}

}  // namespace

void triggerXemException(char const* module, char const* path, char const* format, ...) {
    va_list args;
    va_start(args, format);
    report(ANDROID_LOG_ERROR, "exception", module, path, format, args);
    va_end(args);
}

void triggerXemWarning(char const* module, char const* path, char const* format, ...) {
    va_list args;
    va_start(args, format);
    report(ANDROID_LOG_WARN, "warning", module, path, format, args);
    va_end(args);
}

void triggerTracePause() {
    qrvcam_host::ErrnoRestorer keepErrno;
    __android_log_print(ANDROID_LOG_INFO, kTag, "trace pause");
}

}  // namespace Xem
}  // namespace Utils
}  // namespace NSCam
