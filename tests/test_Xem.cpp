// Exception and warning reports: one formatting, the "+"/"-" lines, trace pause, then the report.

#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <korvalite/Korv_Xem.h>
#include <wchar.h>

#include <string>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

namespace {

using NSCam::NSKorvalite::korvalite_xem_trigger_exception;
using NSCam::NSKorvalite::korvalite_xem_trigger_warning;
using ::testing::ElementsAre;

constexpr char kTag[] = "korvalite-Xem";
constexpr char kService[] = "qrvcam-xem";
constexpr char kException[] = "korvalite_xem_trigger_exception";
constexpr char kWarning[] = "korvalite_xem_trigger_warning";

class XemTest : public ::testing::Test {
protected:
    XemTest() { mSwitches.mode(0x3).details(3); }

    // Every Android record of the report, in order, as "<tag>|<priority>|<text>".
    std::vector<std::string> sequence() const {
        std::vector<std::string> lines;
        for (auto& record : mLog.records()) {
            lines.push_back(record.tag + "|" + std::to_string(record.priority) + "|" + record.text);
        }
        return lines;
    }

    korvtest::ScopedSwitches mSwitches;
    korvtest::AndroidLogCapture mLog;
    korvtest::ULogCapture mULog;
};

TEST_F(XemTest, ExceptionLogsPausesTheTraceAndReportsInOrder) {
    korvalite_xem_trigger_exception("tovrix", "VIDIOC_QBUF err=%d(%s) Please check.\nKEY", -5,
                                    "Input/output error");
    std::string const message = "VIDIOC_QBUF err=-5(Input/output error) Please check.\nKEY";
    EXPECT_THAT(sequence(),
                ElementsAre("korvalite-Xem|4|[korvalite_xem_trigger_exception] + " + message,
                            "qrvcam-xem|4|trace pause",
                            "qrvcam-xem|6|exception module=tovrix path=null: " + message,
                            "korvalite-Xem|4|[korvalite_xem_trigger_exception] - " + message));
    auto ulog = mULog.records();
    ASSERT_EQ(ulog.size(), 2u);
    for (auto& record : ulog) {
        EXPECT_EQ(record.module, 0x8002001u);
        EXPECT_EQ(record.tag, kTag);
        EXPECT_EQ(record.level, 3u);
        EXPECT_EQ(record.length, record.text.size());
    }
    EXPECT_EQ(ulog[0].text, std::string("[") + kException + "] + " + message);
    EXPECT_EQ(ulog[1].text, std::string("[") + kException + "] - " + message);
}

TEST_F(XemTest, WarningPausesTheTraceToo) {
    korvalite_xem_trigger_warning("isp", "frame %u late", 12u);
    EXPECT_THAT(sequence(),
                ElementsAre("korvalite-Xem|4|[korvalite_xem_trigger_warning] + frame 12 late",
                            "qrvcam-xem|4|trace pause",
                            "qrvcam-xem|5|warning module=isp path=null: frame 12 late",
                            "korvalite-Xem|4|[korvalite_xem_trigger_warning] - frame 12 late"));
}

TEST_F(XemTest, LongMessagesAreCutTo511CharactersEverywhere) {
    std::string const longText(600, 'x');
    std::string const cut(511, 'x');
    korvalite_xem_trigger_exception("tovrix", "%s", longText.c_str());
    EXPECT_THAT(mLog.texts(kTag), ElementsAre(std::string("[") + kException + "] + " + cut,
                                              std::string("[") + kException + "] - " + cut));
    EXPECT_THAT(mLog.texts(kService),
                ElementsAre("trace pause", "exception module=tovrix path=null: " + cut));
    EXPECT_THAT(mULog.texts(kTag), ElementsAre(std::string("[") + kException + "] + " + cut,
                                               std::string("[") + kException + "] - " + cut));
}

TEST_F(XemTest, BelowInfoLevelOnlyThePauseAndTheReport) {
    mSwitches.details(2);
    korvalite_xem_trigger_exception("tovrix", "quiet %d", 1);
    korvalite_xem_trigger_warning("tovrix", "quiet %d", 2);
    EXPECT_TRUE(mLog.texts(kTag).empty());
    EXPECT_TRUE(mULog.records().empty());
    EXPECT_THAT(mLog.texts(kService),
                ElementsAre("trace pause", "exception module=tovrix path=null: quiet 1",
                            "trace pause", "warning module=tovrix path=null: quiet 2"));
}

TEST_F(XemTest, AFormatThatFailsGivesAnEmptyReport) {
    // A wide character with no narrow form in the C locale makes the formatting fail.
    wchar_t const unconvertible[] = {0x100, 0};
    korvalite_xem_trigger_exception("tovrix", "lost %ls", unconvertible);
    EXPECT_THAT(sequence(), ElementsAre("korvalite-Xem|4|[korvalite_xem_trigger_exception] + ",
                                        "qrvcam-xem|4|trace pause",
                                        "qrvcam-xem|6|exception module=tovrix path=null: ",
                                        "korvalite-Xem|4|[korvalite_xem_trigger_exception] - "));
}

// The service formats the text a second time: a "%%" that survives the first formatting reaches
// the report as "%", while the log lines keep it.
TEST_F(XemTest, TheServiceGetsTheFormattedTextAsItsFormat) {
    korvalite_xem_trigger_warning("tovrix", "load 50%%%%");
    EXPECT_THAT(mLog.texts(kTag), ElementsAre(std::string("[") + kWarning + "] + load 50%%",
                                              std::string("[") + kWarning + "] - load 50%%"));
    EXPECT_THAT(mLog.texts(kService),
                ElementsAre("trace pause", "warning module=tovrix path=null: load 50%"));
}

TEST_F(XemTest, ConcurrentReportsStayWhole) {
    constexpr int kThreads = 4;
    constexpr int kReports = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kReports; ++i) {
                korvalite_xem_trigger_warning("tovrix", "thread %d report %d", t, i);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < kThreads; ++t) {
        std::string const needle = "thread " + std::to_string(t) + " report ";
        EXPECT_EQ(mLog.count(kService, "path=null: " + needle), size_t{kReports});
        EXPECT_EQ(mLog.count(kTag, needle), size_t{2 * kReports});
    }
    EXPECT_EQ(mLog.count(kService, "trace pause"), size_t{kThreads * kReports});
}

}  // namespace
