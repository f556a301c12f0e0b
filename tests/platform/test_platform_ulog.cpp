// ULog on the host: switches read at load, the default sink, ULogPrinter, android::LogPrinter.
#include <android/log.h>
#include <gtest/gtest.h>
#include <qrvcam/ulog/ULog.h>
#include <stdio.h>
#include <utils/Printer.h>
#include <wchar.h>

#include <string>
#include <vector>

#include "support/KorvTest.h"

namespace {

using NSCam::Utils::ULog::DetailsType;
using NSCam::Utils::ULog::ULogger;
using NSCam::Utils::ULog::ULogPrinter;
using Texts = std::vector<std::string>;

constexpr unsigned kModule = 0x8002001;
constexpr char kTag[] = "korvtest-ulp";

bool contains(std::string const& text, std::string const& needle) {
    return text.find(needle) != std::string::npos;
}

TEST(PlatformULogLoad, SwitchesAndLogMinimumComeFromProperties) {
    // Properties mode, details level, mask (null: unset); then what the child reports, where
    // liblog's minimum is 1 (liblog's default: info), 3 (debug) or 2 (verbose).
    char const* const cases[][4] = {
            {nullptr, nullptr, nullptr, "mode=0x1 details=3 mask=0x0 minimum=1"},
            {"0xA", "4", "0x80002000", "mode=0xa details=4 mask=0x80002000 minimum=3"},
            {"junk", "5", nullptr, "mode=0x1 details=5 mask=0x0 minimum=3"},
            {nullptr, "6", "-1", "mode=0x1 details=6 mask=0xffffffff minimum=2"}};
    char const* const keys[] = {"debug.qrvcam.ulog.mode", "debug.qrvcam.ulog.detailslevel",
                                "debug.qrvcam.ulog.detailsmask"};
    for (auto const& c : cases) {
        std::map<std::string, std::string> properties;
        for (int i = 0; i < 3; ++i) {
            if (c[i] != nullptr) properties[keys[i]] = c[i];
        }
        korvtest::ChildResult child =
                korvtest::runSelfChild("PlatformULogChild.DISABLED_ReportSwitches", properties);
        std::string const report = c[3];
        EXPECT_TRUE(contains(child.out, report + "\n[       OK ]")) << report << "\n" << child.out;
        EXPECT_EQ(report.back() != '1', contains(child.err, "korvtest-debug-record")) << report;
        EXPECT_EQ(report.back() == '2', contains(child.err, "korvtest-verbose-record")) << report;
    }
}

TEST(PlatformULogChild, DISABLED_ReportSwitches) {
    printf("mode=0x%x details=%u mask=0x%x minimum=%d\n", ULogger::sMode, ULogger::sDetailsLevel,
           ULogger::sNormalDetailsMask, __android_log_get_minimum_priority());
    __android_log_print(ANDROID_LOG_DEBUG, "korvtest", "korvtest-debug-record");
    __android_log_print(ANDROID_LOG_VERBOSE, "korvtest", "korvtest-verbose-record");
}

TEST(PlatformULogSink, DefaultSinkWritesOneLinePerRecordToStderr) {
    std::string const longText(3000, 'x');
    korvtest::ChildResult child = korvtest::runInChild([&] {
        ULogger* sink = ULogger::sULogger;
        sink->logRecord(kModule, "korvtest", 3, "hello world", 11);
        sink->logRecord(0xabc, "korvtest", 2, "cut", 5000);  // the text is what is written
        sink->logRecord(kModule, "korvtest", 6, longText.c_str(), 3000);
        sink->logRecord(kModule, nullptr, 1, nullptr, 0);
        sink->flush(1);
    });
    std::string const expected = "ULOG 8002001 3 korvtest: hello world\nULOG abc 2 korvtest: cut\n";
    EXPECT_EQ(expected + "ULOG 8002001 6 korvtest: " + longText + "\nULOG 8002001 1 : \n",
              child.err);
}

class PlatformULogPrinter : public ::testing::Test {
protected:
    // The sink's records of `tag`: "<module> <level> <text> <length>".
    Texts sunk(std::string const& tag) {
        Texts texts;
        for (auto const& r : mULog.records()) {
            char head[32];
            snprintf(head, sizeof(head), "%x %u ", r.module, r.level);
            if (r.tag == tag) texts.push_back(head + r.text + " " + std::to_string(r.length));
        }
        return texts;
    }

    korvtest::ScopedSwitches mSwitches;
    korvtest::AndroidLogCapture mLog;
    korvtest::ULogCapture mULog;
};

TEST_F(PlatformULogPrinter, ModeBitsChooseTheRoutes) {
    mSwitches.details(3);
    std::string const tag(100, 't');  // kept up to 63 characters
    std::string const cut = tag.substr(0, 63);
    ULogPrinter printer(kModule, tag.c_str(), NSCam::Utils::ULog::DETAILS_INFO, "pre: ", false);
    for (uint32_t mode : {0u, 1u, 2u, 8u, 3u, 4u}) {
        mSwitches.mode(mode);
        mLog.clear();
        mULog.clear();
        printer.printLine("line");
        static_cast<android::Printer&>(printer).printFormatLine("n=%d", 7);  // either base
        static_cast<NSCam::IPrinter&>(printer).printFormatLine("m=%d", 8);
        EXPECT_EQ(mode & 1 ? Texts({"pre: line", "pre: n=7", "pre: m=8"}) : Texts(),
                  mLog.texts(cut))
                << "mode " << mode;
        for (auto const& record : mLog.withTag(cut)) EXPECT_EQ(ANDROID_LOG_INFO, record.priority);
        Texts const sink = {"8002001 3 line 4", "8002001 3 n=7 3", "8002001 3 m=8 3"};
        EXPECT_EQ(mode & 0xA ? sink : Texts(), sunk(cut)) << "mode " << mode;
    }
}

// A level is shown from the same details level on, with the priority of its level; from 5 on
// only when the mask selects the module (at least 0x100000, with a bit of 0xff000).
TEST_F(PlatformULogPrinter, DetailsLevelAndMaskGateEachLevel) {
    int const priorities[] = {ANDROID_LOG_ERROR, ANDROID_LOG_WARN,  ANDROID_LOG_INFO,
                              ANDROID_LOG_DEBUG, ANDROID_LOG_DEBUG, ANDROID_LOG_VERBOSE,
                              ANDROID_LOG_DEBUG};
    uint32_t const cases[][3] = {// module, mask, shown from level 5 on
                                 {kModule, 0xffffffff, 1},  {kModule, 0, 0},
                                 {kModule, 0x8002000, 1},   {kModule, 0x0102000, 0},
                                 {kModule, 0x8000000, 0},   {kModule, 0x0002000, 0},
                                 {0x0101000, 0xffffffff, 1}};
    mSwitches.mode(3);
    for (auto const& [module, mask, shownFrom5] : cases) {
        mSwitches.mask(mask);
        for (uint32_t level = 1; level <= 7; ++level) {
            ULogPrinter printer(module, kTag, static_cast<DetailsType>(level), nullptr, false);
            mLog.clear();
            mULog.clear();
            mSwitches.details(level - 1);
            printer.printLine("below");
            printer.printFormatLine("below %u", level);
            mSwitches.details(level);
            printer.printLine("at");
            printer.printFormatLine("at");
            bool const shown = level < 5 || shownFrom5;
            EXPECT_EQ(shown ? Texts({"at", "at"}) : Texts(), mLog.texts(kTag))
                    << std::hex << "module " << module << " mask " << mask << " level " << level;
            EXPECT_EQ(mLog.texts(kTag), mULog.texts(kTag));
            for (auto const& record : mLog.withTag(kTag)) {
                EXPECT_EQ(priorities[level - 1], record.priority) << "level " << level;
            }
        }
    }
}

TEST_F(PlatformULogPrinter, FormattedLinesAreCutTo1023WithTheFullLengthToTheSink) {
    mSwitches.mode(2).details(3);
    ULogPrinter printer(kModule, kTag, NSCam::Utils::ULog::DETAILS_INFO, nullptr, false);
    std::string const text(2000, 'a');
    printer.printFormatLine("%s", text.c_str());
    printer.printLine(text.c_str());              // printLine has no limit of its own
    printer.printFormatLine("x%lsy", L"\u00e9");  // vsnprintf fails in the C locale
    printer.printLine(nullptr);
    EXPECT_EQ(Texts({"8002001 3 " + text.substr(0, 1023) + " 2000", "8002001 3 " + text + " 2000",
                     "8002001 3  0"}),
              sunk(kTag));
}

TEST(PlatformLogPrinter, WritesPrefixThenLineAndKeepsBlankLinesVisible) {
    korvtest::AndroidLogCapture log;
    android::LogPrinter printer("korvtest-lp", ANDROID_LOG_WARN, "p:");
    printer.printLine("abc");
    printer.printLine("");
    printer.printFormatLine("%d-%s", 4, "x");
    printer.printLine(nullptr);  // reported under the printer's own tag, not printed
    android::LogPrinter("korvtest-lp", ANDROID_LOG_WARN, "k:", true).printLine("");
    android::LogPrinter("korvtest-lp", ANDROID_LOG_ERROR, nullptr).printLine("bare");

    EXPECT_EQ(Texts({"p:abc", "p: ", "p:4-x", "k:", "bare"}), log.texts("korvtest-lp"));
    EXPECT_EQ(ANDROID_LOG_WARN, log.withTag("korvtest-lp")[0].priority);
    EXPECT_EQ(ANDROID_LOG_ERROR, log.withTag("korvtest-lp")[4].priority);
    EXPECT_EQ(1u, log.withTag("qrvcam-printer").size());
}

}  // namespace
