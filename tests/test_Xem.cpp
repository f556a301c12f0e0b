// Exception and warning reports: one formatting, the "+"/"-" lines, trace pause, then the report.

#include <gtest/gtest.h>
#include <korvalite/Korv_Xem.h>
#include <wchar.h>

#include <thread>

#include "support/KorvTest.h"

namespace {

using NSCam::NSKorvalite::korvalite_xem_trigger_exception;
using NSCam::NSKorvalite::korvalite_xem_trigger_warning;

class XemTest : public ::testing::Test {
protected:
    XemTest() { mSwitches.mode(0x3).details(3); }

    korvtest::ScopedSwitches mSwitches;
    korvtest::AndroidLogCapture mLog;
    korvtest::ULogCapture mULog;
};

// Each report: the "+" line (from details level 3), the trace pause, the report to the service
// (exception at priority 6, warning at 5) and the "-" line. The log lines go to the Android log at
// INFO and to ULog at level 3.
TEST_F(XemTest, ReportsLogPauseTheTraceAndReportInOrder) {
    std::string const cut(511, 'x');
    wchar_t const unconvertible[] = {0x100, 0};  // no narrow form in the C locale: formatting fails
    struct Case {
        uint32_t details;
        std::function<void()> report;
        std::string kind, module, logged, reported;
    };
    for (auto const& c : std::vector<Case>{
                 {3,
                  [] { korvalite_xem_trigger_exception("tovrix", "Q err=%d(%s)\nK", -5, "I/O"); },
                  "exception", "tovrix", "Q err=-5(I/O)\nK", "Q err=-5(I/O)\nK"},
                 {3, [] { korvalite_xem_trigger_warning("isp", "frame %u late", 12u); }, "warning",
                  "isp", "frame 12 late", "frame 12 late"},
                 {3,
                  [] { korvalite_xem_trigger_exception("m", "%s", std::string(600, 'x').c_str()); },
                  "exception", "m", cut, cut},
                 {2, [] { korvalite_xem_trigger_exception("m", "quiet %d", 1); }, "exception", "m",
                  "", "quiet 1"},
                 {3, [&] { korvalite_xem_trigger_warning("m", "lost %ls", unconvertible); },
                  "warning", "m", "", ""},
                 // The service gets the formatted text as its format: "%%" reaches it as "%".
                 {3, [] { korvalite_xem_trigger_warning("m", "load 50%%%%"); }, "warning", "m",
                  "load 50%%", "load 50%"}}) {
        SCOPED_TRACE(c.reported);
        mSwitches.details(c.details);
        mLog.clear();
        mULog.clear();
        c.report();
        std::string const own = "[korvalite_xem_trigger_" + c.kind + "] ";
        std::vector<std::string> ulog;
        if (c.details >= 3) ulog = {own + "+ " + c.logged, own + "- " + c.logged};
        std::vector<std::string> expected = {
                "qrvcam-xem|4|trace pause",
                std::string("qrvcam-xem|") + (c.kind[0] == 'e' ? "6" : "5") + "|" + c.kind +
                        " module=" + c.module + " path=null: " + c.reported};
        if (c.details >= 3) {
            expected.insert(expected.begin(), "korvalite-Xem|4|" + ulog[0]);
            expected.push_back("korvalite-Xem|4|" + ulog[1]);
        }
        std::vector<std::string> lines;
        for (auto& r : mLog.records())
            lines.push_back(r.tag + "|" + std::to_string(r.priority) + "|" + r.text);
        EXPECT_EQ(lines, expected);
        EXPECT_EQ(mULog.texts("korvalite-Xem"), ulog);
        for (auto& r : mULog.records()) {
            EXPECT_EQ(std::make_tuple(r.module, r.level, r.length),
                      std::make_tuple(0x8002001u, 3u, uint32_t(r.text.size())));
        }
    }
}

TEST_F(XemTest, ConcurrentReportsStayWhole) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i)
                korvalite_xem_trigger_warning("m", "thread %d report %d", t, i);
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < 4; ++t) {
        std::string const needle = "thread " + std::to_string(t) + " report ";
        EXPECT_EQ(mLog.count("qrvcam-xem", "path=null: " + needle), 50u);
        EXPECT_EQ(mLog.count("korvalite-Xem", needle), 100u);
    }
}

}  // namespace
