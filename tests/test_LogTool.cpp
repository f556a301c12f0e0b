// Log time stamps: local time, truncated microseconds, always 21 characters.

#include <ctype.h>
#include <gtest/gtest.h>
#include <korvalite/LogTool.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <climits>
#include <optional>
#include <string>

namespace {

using NSCam::NSKorvalite::convertToFormattedLogTime;
using NSCam::NSKorvalite::getCurrentLogTime;

// Sets TZ for the process and restores it.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(char const* zone) {
        if (char const* old = getenv("TZ")) mOld = old;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        if (mOld) {
            setenv("TZ", mOld->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

private:
    std::optional<std::string> mOld;
};

std::string format(time_t seconds, long nanoseconds) {
    timespec ts{};
    ts.tv_sec = seconds;
    ts.tv_nsec = nanoseconds;
    return convertToFormattedLogTime(ts);
}

TEST(LogTimeTest, FormatsLocalTimeWithTruncatedMicroseconds) {
    {
        ScopedTimeZone utc("UTC0");
        EXPECT_EQ(format(0, 0), "01-01 00:00:00.000000");
        EXPECT_EQ(format(0, 999999999), "01-01 00:00:00.999999");
        EXPECT_EQ(format(0, 999), "01-01 00:00:00.000000");
        EXPECT_EQ(format(0, 1000), "01-01 00:00:00.000001");
        EXPECT_EQ(format(1700000000, 123456789), "11-14 22:13:20.123456");
        EXPECT_EQ(format(-1, 0), "12-31 23:59:59.000000");
    }
    {
        ScopedTimeZone plusTwo("XXX-2");
        EXPECT_EQ(format(0, 0), "01-01 02:00:00.000000");
    }
}

TEST(LogTimeTest, AlwaysTwentyOneCharacters) {
    ScopedTimeZone utc("UTC0");
    time_t const seconds[] = {0, -1, 1700000000, INT_MAX, INT_MIN, LLONG_MAX, LLONG_MIN};
    long const nanoseconds[] = {0, 999999999, -1, -1000000, 1000000000, LONG_MAX, LONG_MIN};
    for (time_t s : seconds) {
        for (long ns : nanoseconds) {
            std::string const text = format(s, ns);
            EXPECT_EQ(text.size(), 21u) << s << " s " << ns << " ns: " << text;
            EXPECT_EQ(strlen(text.c_str()), 21u) << s << " s " << ns << " ns";
        }
    }
}

TEST(LogTimeTest, CurrentTimeIsTheRealTimeClock) {
    timespec before{};
    timespec after{};
    timespec now{-1, -1};
    ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &before), 0);
    EXPECT_EQ(getCurrentLogTime(now), 0);
    ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &after), 0);
    EXPECT_GE(now.tv_sec, before.tv_sec);
    EXPECT_LE(now.tv_sec, after.tv_sec);
    EXPECT_GE(now.tv_nsec, 0);
    EXPECT_LT(now.tv_nsec, 1000000000);
    std::string const text = convertToFormattedLogTime(now);
    std::string const shape = "99-99 99:99:99.999999";  // 9: any digit
    ASSERT_EQ(text.size(), shape.size());
    for (size_t i = 0; i < shape.size(); ++i) {
        EXPECT_TRUE(shape[i] == '9' ? isdigit(static_cast<unsigned char>(text[i])) != 0
                                    : text[i] == shape[i])
                << text;
    }
}

}  // namespace
