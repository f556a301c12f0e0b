// Exception and warning reports: one formatting, the "+"/"-" lines, trace pause, then the report.

#include <gtest/gtest.h>
#include <korvalite/Korv_Xem.h>

#include "support/KorvTest.h"

namespace {

using NSCam::NSKorvalite::korvalite_xem_trigger_exception;
using NSCam::NSKorvalite::korvalite_xem_trigger_warning;

class XemTest : public ::testing::Test {
protected:
    korvtest::ScopedSwitches mSwitches{0x3, 3};
    korvtest::AndroidLogCapture mLog;
    korvtest::ULogCapture mULog;
};

// Each report: the "+" line (from details level 3), the trace pause, the report to the service
// (exception at priority 6, warning at 5) and the "-" line. The log lines go to the Android log at
// INFO and to ULog at level 3, cut like the report to 511 characters.
TEST_F(XemTest, ReportsLogPauseTheTraceAndReportInOrder) {
    std::string const cut(511, 'x');
    wchar_t const unconvertible[] = {0x100, 0};  // no narrow form in the C locale: formatting fails
    struct Case {
        uint32_t details;
        std::function<void()> report;
        std::string own, service, logged, reported;
    };
    std::string const e = "korvalite_xem_trigger_exception] ";
    std::string const w = "korvalite_xem_trigger_warning] ";
    for (auto const& c : std::vector<Case>{
                 {3,
                  [] { korvalite_xem_trigger_exception("tovrix", "Q err=%d(%s)\nK", -5, "I/O"); },
                  e, "6|exception module=tovrix", "Q err=-5(I/O)\nK", "Q err=-5(I/O)\nK"},
                 {3, [] { korvalite_xem_trigger_warning("isp", "frame %u late", 12u); }, w,
                  "5|warning module=isp", "frame 12 late", "frame 12 late"},
                 {3,
                  [] { korvalite_xem_trigger_exception("m", "%s", std::string(600, 'x').c_str()); },
                  e, "6|exception module=m", cut, cut},
                 {2, [] { korvalite_xem_trigger_exception("m", "quiet %d", 1); }, e,
                  "6|exception module=m", "", "quiet 1"},
                 {3, [&] { korvalite_xem_trigger_warning("m", "lost %ls", unconvertible); }, w,
                  "5|warning module=m", "", ""},
                 // The service gets the formatted text as its format: "%%" reaches it as "%".
                 {3, [] { korvalite_xem_trigger_warning("m", "load 50%%%%"); }, w,
                  "5|warning module=m", "load 50%%", "load 50%"}}) {
        SCOPED_TRACE(c.reported);
        mSwitches.details(c.details);
        mLog.clear();
        mULog.clear();
        c.report();
        std::vector<std::string> lines;
        for (auto& r : mLog.records()) lines.push_back(std::to_string(r.priority) + "|" + r.text);
        for (auto& r : mULog.records()) {
            EXPECT_EQ(std::make_tuple(r.module, r.tag, r.length),
                      std::make_tuple(0x8002001u, "korvalite-Xem", uint32_t(r.text.size())));
            lines.push_back("U" + std::to_string(r.level) + "|" + r.text);
        }
        std::vector<std::string> expected = {"4|trace pause",
                                             c.service + " path=null: " + c.reported};
        if (c.details >= 3) {
            expected.insert(expected.begin(), "4|[" + c.own + "+ " + c.logged);
            expected.insert(expected.end(),
                            {"4|[" + c.own + "- " + c.logged, "U3|[" + c.own + "+ " + c.logged,
                             "U3|[" + c.own + "- " + c.logged});
        }
        EXPECT_EQ(lines, expected);
    }
}

}  // namespace
