// Log time stamps.

#define LOG_TAG "korvalite-LogTool"
#define KORV_SOURCE_PATH "src/utils/sys/LogTool"

#include <korvalite/LogTool.h>
#include <stdio.h>
#include <time.h>

#include "KorvLog.h"

namespace NSCam {
namespace NSKorvalite {

namespace {

// Fixes the length of every stamp; its characters show through wherever a write below fails.
constexpr char kSampleStamp[] = "01-01 02:32:54.123456";
constexpr size_t kDateTimeLength = 14;  // "MM-DD hh:mm:ss"

}  // namespace

int getCurrentLogTime(timespec& ts) {
    int result = clock_gettime(CLOCK_REALTIME, &ts);
    if (result != 0) {
        ts = timespec{};
    }
    return result;
}

std::string convertToFormattedLogTime(timespec const& ts) {
    tm local{};
    time_t seconds = ts.tv_sec;
    // The result is not checked: on an out-of-range time glibc still fills `local` in part (the
    // time of day and a wrapped year; month and day stay zero), and the stamp reads as that, e.g.
    // "01-00 15:30:07": still a well-formed field of the same width.
    localtime_r(&seconds, &local);

    // Both writes go into the string's own storage, including its terminator slot (writing '\0'
    // there is allowed). They never change the length: callers align columns on these 21
    // characters, so a failed write keeps the sample's characters rather than shortening it.
    std::string result = kSampleStamp;
    char* buffer = &result[0];
    size_t written = strftime(buffer, result.size() + 1, "%m-%d %H:%M:%S", &local);
    if (written == 0) {
        KORV_LOGW("[%s] %d returned from strftime", "convertToFormattedLogTime", 0);
    }
    int fraction = snprintf(buffer + kDateTimeLength, result.size() + 1 - kDateTimeLength, ".%06lu",
                            static_cast<unsigned long>(ts.tv_nsec / 1000));
    if (fraction < 1) {
        KORV_LOGW("[%s] %d returned from snprintf", "convertToFormattedLogTime", fraction);
    }
    return result;
}

}  // namespace NSKorvalite
}  // namespace NSCam
