// The customer report-thread registry on the host: switched by a property, and logging only.
#include <android/log.h>
#include <qrvcam/CustomCamUad.h>
#include <qrvcam/Properties.h>

#include "ErrnoRestorer.h"

CustomCamUad* CustomCamUad::getInstance() {
    // Stateless, so a plain static is safe to use at any time, even during exit.
    static CustomCamUad sInstance;
    return &sInstance;
}

bool CustomCamUad::getUadEnable() const {
    return NSCam::Utils::Properties::property_get_bool("debug.qrvcam.uad.enable", 0) != 0;
}

void CustomCamUad::setReportThread(char const* name, int type, int tid) {
    qrvcam_host::ErrnoRestorer keepErrno;
    __android_log_print(ANDROID_LOG_INFO, "qrvcam-uad", "setReportThread(%s, %d, %d)",
                        name != nullptr ? name : "null", type, tid);
}
