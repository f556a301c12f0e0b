// Trace-bit mask, filled once while the library loads.

#define LOG_TAG "korvalite-Trace"
#define KORV_SOURCE_PATH "src/utils/sys/Korv_Trace"

#include <korvalite/Korv_Trace.h>

#include "KorvLog.h"

namespace {

constexpr char kTracebitsProperty[] = "persist.vendor.camera.korvalite.tracebits";
constexpr uint64_t kDefaultTracebits = 0x10001131;  // bits 0, 4, 5, 8, 12 and 28

uint64_t getEnabledTracebitsFromSysprop() {
    // 64 bits wide: bits 32, 36 and 37 are in use.
    auto value = static_cast<uint64_t>(NSCam::Utils::Properties::property_get_int64(
            kTracebitsProperty, static_cast<int64_t>(kDefaultTracebits)));
    KORV_LOGI("[%s] %s=%#lx default=%#lx", "getEnabledTracebitsFromSysprop", kTracebitsProperty,
              static_cast<unsigned long>(value), static_cast<unsigned long>(kDefaultTracebits));
    return value;
}

}  // namespace

// Declared after the per-file pair of KorvLog.h, so it is initialised after it.
uint64_t korvalite_enabled_tracebits = getEnabledTracebitsFromSysprop();

uint64_t get_korvalite_enabled_tracebits() {
    return korvalite_enabled_tracebits;
}
