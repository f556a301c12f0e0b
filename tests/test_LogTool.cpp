// Log time stamps: local time, truncated microseconds, always 21 characters.

#include <gtest/gtest.h>
#include <korvalite/LogTool.h>
#include <stdlib.h>
#include <time.h>

#include <climits>
#include <string>

namespace {

using NSCam::NSKorvalite::convertToFormattedLogTime;
using NSCam::NSKorvalite::getCurrentLogTime;

std::string format(time_t seconds, long nanoseconds) {
    timespec ts{};
    ts.tv_sec = seconds;
    ts.tv_nsec = nanoseconds;
    return convertToFormattedLogTime(ts);
}

TEST(LogTimeTest, FormatsLocalTimeWithTruncatedMicrosecondsIn21Characters) {
    std::string const oldZone = getenv("TZ") != nullptr ? getenv("TZ") : "";
    setenv("TZ", "XXX-2", 1);  // two hours east of UTC
    tzset();
    EXPECT_EQ(format(0, 999), "01-01 02:00:00.000000");
    EXPECT_EQ(format(0, 999999999), "01-01 02:00:00.999999");
    setenv("TZ", "UTC0", 1);
    tzset();
    EXPECT_EQ(format(0, 0), "01-01 00:00:00.000000");
    EXPECT_EQ(format(1700000000, 123456789), "11-14 22:13:20.123456");
    for (time_t s : {time_t{-1}, time_t{INT_MIN}, time_t{LLONG_MAX}, time_t{LLONG_MIN}}) {
        for (long ns : {-1L, 1000000000L, LONG_MAX, LONG_MIN}) {
            std::string const text = format(s, ns);
            EXPECT_EQ(text.size(), 21u) << s << " s " << ns << " ns: " << text;
            EXPECT_EQ(text.find('\0'), std::string::npos) << s << " s " << ns << " ns";
        }
    }
    oldZone.empty() ? unsetenv("TZ") : setenv("TZ", oldZone.c_str(), 1);
    tzset();
}

TEST(LogTimeTest, CurrentTimeIsTheRealTimeClock) {
    timespec before{};
    timespec now{-1, -1};
    timespec after{};
    clock_gettime(CLOCK_REALTIME, &before);
    EXPECT_EQ(getCurrentLogTime(now), 0);
    clock_gettime(CLOCK_REALTIME, &after);
    EXPECT_LE(before.tv_sec, now.tv_sec);
    EXPECT_LE(now.tv_sec, after.tv_sec);
    EXPECT_GE(now.tv_nsec, 0);
}

}  // namespace
