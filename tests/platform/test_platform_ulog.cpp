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

constexpr unsigned kModule = 0x8002001;
constexpr char kTag[] = "korvtest-ulp";

::testing::AssertionResult passed(korvtest::ChildResult const& child) {
    // A misspelt test name would run nothing and exit 0, hence the count.
    if (child.exited && child.exitCode == 0 &&
        child.out.find("[  PASSED  ] 1 test.") != std::string::npos) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "child: exited=" << child.exited << " code=" << child.exitCode
           << " signal=" << child.signal << "\n"
           << child.out << child.err;
}

bool contains(std::string const& text, std::string const& needle) {
    return text.find(needle) != std::string::npos;
}

// --- Load-time switches ------------------------------------------------------------------------

struct LoadCase {
    std::map<std::string, std::string> properties;
    uint32_t mode;
    uint32_t details;
    uint32_t mask;
    int minimum;  // liblog's minimum priority
    bool debugShown;
    bool verboseShown;
};

TEST(PlatformULogLoad, SwitchesAndLogMinimumComeFromProperties) {
    LoadCase const cases[] = {
            {{}, 1, 3, 0, ANDROID_LOG_DEFAULT, false, false},
            {{{"debug.qrvcam.ulog.mode", "0xA"},
              {"debug.qrvcam.ulog.detailslevel", "4"},
              {"debug.qrvcam.ulog.detailsmask", "0x80002000"}},
             0xA,
             4,
             0x80002000,
             ANDROID_LOG_DEBUG,
             true,
             false},
            {{{"debug.qrvcam.ulog.detailslevel", "5"}, {"debug.qrvcam.ulog.mode", "junk"}},
             1,
             5,
             0,
             ANDROID_LOG_DEBUG,
             true,
             false},
            {{{"debug.qrvcam.ulog.detailslevel", "6"}, {"debug.qrvcam.ulog.detailsmask", "-1"}},
             1,
             6,
             0xffffffff,
             ANDROID_LOG_VERBOSE,
             true,
             true},
    };
    for (LoadCase const& c : cases) {
        char report[128];
        snprintf(report, sizeof(report), "switches mode=0x%x details=%u mask=0x%x minimum=%d\n",
                 c.mode, c.details, c.mask, c.minimum);
        korvtest::ChildResult child =
                korvtest::runSelfChild("PlatformULogChild.DISABLED_ReportSwitches", c.properties);
        ASSERT_TRUE(passed(child)) << report;
        EXPECT_TRUE(contains(child.out, report)) << report << child.out;
        EXPECT_EQ(c.debugShown, contains(child.err, "korvtest-debug-record")) << report;
        EXPECT_EQ(c.verboseShown, contains(child.err, "korvtest-verbose-record")) << report;
    }
}

TEST(PlatformULogChild, DISABLED_ReportSwitches) {
    printf("switches mode=0x%x details=%u mask=0x%x minimum=%d\n", ULogger::sMode,
           ULogger::sDetailsLevel, ULogger::sNormalDetailsMask,
           __android_log_get_minimum_priority());
    __android_log_print(ANDROID_LOG_DEBUG, "korvtest", "korvtest-debug-record");
    __android_log_print(ANDROID_LOG_VERBOSE, "korvtest", "korvtest-verbose-record");
}

// --- The default sink --------------------------------------------------------------------------

TEST(PlatformULogSink, DefaultSinkWritesOneLinePerRecordToStderr) {
    std::string const longText(3000, 'x');
    korvtest::ChildResult child = korvtest::runInChild([&] {
        ULogger* sink = ULogger::sULogger;
        sink->logRecord(kModule, "korvtest", 3, "hello world", 11);
        // The length may exceed the text (a truncated record); the text is what is written.
        sink->logRecord(0xabc, "korvtest", 2, "cut", 5000);
        sink->logRecord(kModule, "korvtest", 6, longText.c_str(), 3000);
        sink->logRecord(kModule, nullptr, 1, nullptr, 0);
        sink->flush(1);
    });
    ASSERT_TRUE(child.exited) << child.err;
    std::string expected =
            "ULOG 8002001 3 korvtest: hello world\n"
            "ULOG abc 2 korvtest: cut\n";
    expected += "ULOG 8002001 6 korvtest: " + longText + "\n";
    expected += "ULOG 8002001 1 : \n";
    EXPECT_EQ(expected, child.err);
}

// --- ULogPrinter -------------------------------------------------------------------------------

class PlatformULogPrinter : public ::testing::Test {
protected:
    korvtest::ScopedSwitches mSwitches;
    korvtest::AndroidLogCapture mLog;
    korvtest::ULogCapture mULog;
};

TEST_F(PlatformULogPrinter, ModeBitsChooseTheRoutes) {
    mSwitches.details(3);
    ULogPrinter printer(kModule, kTag, NSCam::Utils::ULog::DETAILS_INFO, "pre: ", false);
    for (uint32_t mode : {0u, 1u, 2u, 8u, 3u, 0xAu, 4u}) {
        mSwitches.mode(mode);
        mLog.clear();
        mULog.clear();
        printer.printLine("line");
        // Through either base, as the library and libutils callers hold it.
        static_cast<android::Printer&>(printer).printFormatLine("n=%d", 7);
        static_cast<NSCam::IPrinter&>(printer).printFormatLine("m=%d", 8);

        auto records = mLog.withTag(kTag);
        if (mode & 1) {
            ASSERT_EQ(3u, records.size()) << "mode " << mode;
            EXPECT_EQ(ANDROID_LOG_INFO, records[0].priority);
            EXPECT_EQ("pre: line", records[0].text);
            EXPECT_EQ("pre: n=7", records[1].text);
            EXPECT_EQ("pre: m=8", records[2].text);
        } else {
            EXPECT_TRUE(records.empty()) << "mode " << mode;
        }
        auto ulog = mULog.records();
        if (mode & 0xA) {
            ASSERT_EQ(3u, ulog.size()) << "mode " << mode;
            EXPECT_EQ(kModule, ulog[0].module);
            EXPECT_EQ(kTag, ulog[0].tag);
            EXPECT_EQ(3u, ulog[0].level);
            EXPECT_EQ("line", ulog[0].text);
            EXPECT_EQ(4u, ulog[0].length);
            EXPECT_EQ("n=7", ulog[1].text);
            EXPECT_EQ("m=8", ulog[2].text);
        } else {
            EXPECT_TRUE(ulog.empty()) << "mode " << mode;
        }
    }
}

TEST_F(PlatformULogPrinter, LevelGivesThePriorityAndIsGatedByDetailsLevel) {
    mSwitches.mode(1).mask(0xffffffff);
    int const priorities[] = {ANDROID_LOG_ERROR, ANDROID_LOG_WARN,  ANDROID_LOG_INFO,
                              ANDROID_LOG_DEBUG, ANDROID_LOG_DEBUG, ANDROID_LOG_VERBOSE,
                              ANDROID_LOG_DEBUG};
    for (int level = 1; level <= 7; ++level) {
        ULogPrinter printer(kModule, kTag, static_cast<DetailsType>(level), nullptr, false);
        mSwitches.details(static_cast<uint32_t>(level - 1));
        mLog.clear();
        printer.printLine("below");
        printer.printFormatLine("below %d", level);
        mSwitches.details(static_cast<uint32_t>(level));
        printer.printLine("at");
        auto records = mLog.withTag(kTag);
        ASSERT_EQ(1u, records.size()) << "level " << level;
        EXPECT_EQ("at", records[0].text);
        EXPECT_EQ(priorities[level - 1], records[0].priority) << "level " << level;
    }
}

TEST_F(PlatformULogPrinter, DetailLevelsAlsoNeedTheModuleInTheMask) {
    struct Case {
        unsigned module;
        uint32_t mask;
        DetailsType level;
        bool shown;
    };
    Case const cases[] = {
            {kModule, 0, NSCam::Utils::ULog::DETAILS_DEBUG, true},  // below 5: no mask rule
            {kModule, 0, NSCam::Utils::ULog::DETAILS_DETAILS, false},
            {kModule, 0x8002000, NSCam::Utils::ULog::DETAILS_DETAILS, true},
            {kModule, 0x0102000, NSCam::Utils::ULog::DETAILS_VERBOSE,
             false},  // bit 0x100000 not in the module
            {kModule, 0x8000000, NSCam::Utils::ULog::DETAILS_DETAILS, false},  // no bit of 0xff000
            {kModule, 0x0002000, NSCam::Utils::ULog::DETAILS_DETAILS, false},  // below 0x100000
            {0x0101000, 0xffffffff, NSCam::Utils::ULog::DETAILS_VERBOSE, true},
            {0x0001001, 0xffffffff, NSCam::Utils::ULog::DETAILS_DETAILS, false},
    };
    mSwitches.mode(3).details(6);
    for (Case const& c : cases) {
        mSwitches.mask(c.mask);
        mLog.clear();
        mULog.clear();
        ULogPrinter printer(c.module, kTag, c.level, nullptr, false);
        printer.printLine("detail");
        printer.printFormatLine("%s", "detail");
        size_t const expected = c.shown ? 2 : 0;
        EXPECT_EQ(expected, mLog.withTag(kTag).size())
                << std::hex << "module " << c.module << " mask " << c.mask << " level " << c.level;
        EXPECT_EQ(expected, mULog.records().size())
                << std::hex << "module " << c.module << " mask " << c.mask << " level " << c.level;
    }
}

TEST_F(PlatformULogPrinter, FormattedLinesAreCutTo1023WithTheFullLengthToTheSink) {
    mSwitches.mode(3).details(3);
    ULogPrinter printer(kModule, kTag, NSCam::Utils::ULog::DETAILS_INFO, "p:", false);
    std::string const text(2000, 'a');
    printer.printFormatLine("%s", text.c_str());
    auto ulog = mULog.records();
    ASSERT_EQ(1u, ulog.size());
    EXPECT_EQ(text.substr(0, 1023), ulog[0].text);
    EXPECT_EQ(2000u, ulog[0].length);
    auto records = mLog.withTag(kTag);
    ASSERT_EQ(1u, records.size());
    // liblog cuts the record further to its own buffer; the prefix comes first.
    EXPECT_EQ(0u, records[0].text.rfind("p:aaaa", 0));

    // printLine has no limit of its own.
    mULog.clear();
    printer.printLine(text.c_str());
    ulog = mULog.records();
    ASSERT_EQ(1u, ulog.size());
    EXPECT_EQ(text, ulog[0].text);
    EXPECT_EQ(2000u, ulog[0].length);
}

TEST_F(PlatformULogPrinter, FormatFailureGivesAnEmptyLineAndNullLinesAreSkipped) {
    mSwitches.mode(3).details(3);
    ULogPrinter printer(kModule, kTag, NSCam::Utils::ULog::DETAILS_INFO, nullptr, false);
    // A wide character that the C locale cannot convert makes vsnprintf fail.
    printer.printFormatLine("x%lsy", L"\u00e9");
    printer.printLine(nullptr);
    auto ulog = mULog.records();
    ASSERT_EQ(1u, ulog.size());
    EXPECT_EQ("", ulog[0].text);
    EXPECT_EQ(0u, ulog[0].length);
    // An empty line reaches the Android log as a single blank.
    EXPECT_EQ(std::vector<std::string>{" "}, mLog.texts(kTag));
}

TEST_F(PlatformULogPrinter, TagIsCutTo63Characters) {
    mSwitches.mode(3).details(3);
    std::string const tag(100, 't');
    ULogPrinter printer(kModule, tag.c_str(), NSCam::Utils::ULog::DETAILS_INFO, nullptr, false);
    printer.printLine("x");
    ASSERT_EQ(1u, mULog.records().size());
    EXPECT_EQ(tag.substr(0, 63), mULog.records()[0].tag);
    EXPECT_EQ(1u, mLog.withTag(tag.substr(0, 63)).size());
}

// --- android::LogPrinter -----------------------------------------------------------------------

TEST(PlatformLogPrinter, WritesPrefixThenLineAndKeepsBlankLinesVisible) {
    korvtest::AndroidLogCapture log;
    android::LogPrinter printer("korvtest-lp", ANDROID_LOG_WARN, "p:");
    printer.printLine("abc");
    printer.printLine("");
    printer.printFormatLine("%d-%s", 4, "x");
    printer.printLine(nullptr);

    android::LogPrinter keepBlank("korvtest-lp", ANDROID_LOG_WARN, "k:", true);
    keepBlank.printLine("");
    android::LogPrinter noPrefix("korvtest-lp", ANDROID_LOG_ERROR, nullptr);
    noPrefix.printLine("bare");

    auto records = log.withTag("korvtest-lp");
    ASSERT_EQ(5u, records.size());
    EXPECT_EQ("p:abc", records[0].text);
    EXPECT_EQ(ANDROID_LOG_WARN, records[0].priority);
    EXPECT_EQ("p: ", records[1].text);
    EXPECT_EQ("p:4-x", records[2].text);
    EXPECT_EQ("k:", records[3].text);
    EXPECT_EQ("bare", records[4].text);
    EXPECT_EQ(ANDROID_LOG_ERROR, records[4].priority);
    // The null line is reported, not printed.
    auto warnings = log.withTag("qrvcam-printer");
    ASSERT_EQ(1u, warnings.size());
    EXPECT_EQ(ANDROID_LOG_WARN, warnings[0].priority);
}

}  // namespace
