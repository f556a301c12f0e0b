// Log time stamps: local time, truncated microseconds, always 21 characters; where a write fails
// the sample's characters remain, with a warning.
//
// This executable defines strftime() and snprintf(); the library binds to them by symbol
// preemption. While a script is active each records the size it was given and, when a result is
// scripted for it, writes nothing and returns that result.

#include <android/log.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <korvalite/LogTool.h>
#include <stdarg.h>
#include <stdlib.h>
#include <time.h>

#include <optional>

#include "support/KorvTest.h"

namespace {

struct Script {
    bool active = false;
    std::optional<size_t> strftimeResult;
    std::optional<int> snprintfResult;
    std::vector<size_t> sizes;
} gScript;

}  // namespace

extern "C" size_t strftime(char* s, size_t max, char const* format, tm const* t) {
    static auto* const real = reinterpret_cast<size_t (*)(char*, size_t, char const*, tm const*)>(
            dlsym(RTLD_NEXT, "strftime"));
    if (gScript.active) gScript.sizes.push_back(max);
    return gScript.active && gScript.strftimeResult ? *gScript.strftimeResult
                                                    : real(s, max, format, t);
}

extern "C" int snprintf(char* s, size_t max, char const* format, ...) {
    if (gScript.active) gScript.sizes.push_back(max);
    if (gScript.active && gScript.snprintfResult) return *gScript.snprintfResult;
    va_list args;
    va_start(args, format);
    int result = vsnprintf(s, max, format, args);
    va_end(args);
    return result;
}

namespace {

using NSCam::NSKorvalite::convertToFormattedLogTime;
using NSCam::NSKorvalite::getCurrentLogTime;

std::string format(time_t seconds, long nanoseconds) {
    return convertToFormattedLogTime(timespec{seconds, nanoseconds});
}

// The zone stays set after a test: nothing else runs in this executable.
class LogTimeTest : public ::testing::Test {
protected:
    LogTimeTest() { setZone("UTC0"); }

    static void setZone(char const* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

    korvtest::ScopedSwitches mSwitches{1, 2};
    korvtest::AndroidLogCapture mLog;
};

// The current time is the real-time clock's, then formatted as local time.
TEST_F(LogTimeTest, FormatsLocalTimeWithTruncatedMicrosecondsIn21Characters) {
    timespec now{};
    EXPECT_EQ(getCurrentLogTime(now), 0);
    EXPECT_GT(now.tv_sec, 1700000000);  // neither zeroed nor a monotonic clock
    EXPECT_EQ(format(0, 0), "01-01 00:00:00.000000");
    EXPECT_EQ(format(1700000000, 123456789), "11-14 22:13:20.123456");
    setZone("XXX-2");  // two hours east of UTC
    EXPECT_EQ(format(0, 999), "01-01 02:00:00.000000");
    EXPECT_EQ(format(0, 999999999), "01-01 02:00:00.999999");
}

// Each write is bounded by what is left of the 21 characters and the terminator; where it wrote
// nothing the sample shows through, and a result below 1 is warned about at warning level.
TEST_F(LogTimeTest, FailedWritesKeepTheSampleAndWarn) {
    std::string const w = "[convertToFormattedLogTime] ";
    std::string const f = w + "0 returned from strftime";
    // strftime's terminator stays where the fraction was not written.
    std::string const cut = std::string("01-01 00:00:01") + '\0' + "123456";
    struct Case {
        std::optional<size_t> strftimeResult;
        std::optional<int> snprintfResult;
        std::string stamp;
        std::vector<std::string> warnings;
    };
    for (auto const& c : std::vector<Case>{
                 {{}, {}, "01-01 00:00:01.000002", {}},
                 {0, {}, "01-01 02:32:54.000002", {f}},
                 {1, 1, "01-01 02:32:54.123456", {}},
                 {{}, 0, cut, {w + "0 returned from snprintf"}},
                 {0, -1, "01-01 02:32:54.123456", {f, w + "-1 returned from snprintf"}}}) {
        SCOPED_TRACE(c.stamp);
        mLog.clear();
        gScript = Script{true, c.strftimeResult, c.snprintfResult, {}};
        std::string const stamp = format(1, 2999);
        std::vector<size_t> const sizes = gScript.sizes;
        gScript = Script{};
        EXPECT_EQ(stamp, c.stamp);
        EXPECT_EQ(sizes, (std::vector<size_t>{22, 8}));
        EXPECT_EQ(mLog.texts("korvalite-LogTool"), c.warnings);
        for (auto& record : mLog.records()) EXPECT_EQ(record.priority, ANDROID_LOG_WARN);
    }
}

}  // namespace
