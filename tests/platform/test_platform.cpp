// The host platform: properties, descriptor ownership, ULog and its printers, and the systrace
// text trace of a marker file.
#include <android/log.h>
#include <cutils/trace.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <qrvcam/Properties.h>
#include <qrvcam/fdsan.h>
#include <qrvcam/ulog/ULog.h>
#include <signal.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/KorvTest.h"

namespace {

using namespace NSCam::Utils::Properties;
using korvtest::ScopedProperty;
using NSCam::Utils::ULog::DetailsType;
using NSCam::Utils::ULog::ULogger;
using NSCam::Utils::ULog::ULogPrinter;
using Texts = std::vector<std::string>;

// --- Properties --------------------------------------------------------------------------------

// A set value over the default, cut to the buffer; an empty value reads as unset. Typed reads
// parse as Android's do (bool: 1/y/yes/on/true, 0/n/no/off/false; integers: decimal, 0x
// hexadecimal, a sign, in range) and give the default otherwise.
TEST(PlatformProperties, SetValuesOverDefaultsAndTypedParsing) {
    char buffer[PROPERTY_VALUE_MAX];
    EXPECT_EQ(8, property_get("korvtest.props.value", buffer, "fallback"));
    {
        ScopedProperty property("korvtest.props.value", std::string(200, 'v'));
        EXPECT_EQ(PROPERTY_VALUE_MAX - 1, property_get("korvtest.props.value", buffer, ""));
        EXPECT_EQ(std::string(PROPERTY_VALUE_MAX - 1, 'v'), buffer);
    }
    property_get("korvtest.props.value", buffer, "fallback");
    EXPECT_STREQ("fallback", buffer);  // restored to empty, which reads as unset
    std::pair<char const*, int> const bools[] = {
            {"1", 1},     {"y", 1},     {"yes", 1},   {"on", 1},  {"true", 1},
            {"0", 0},     {"n", 0},     {"no", 0},    {"off", 0}, {"false", 0},
            {"TRUE", -7}, {"offf", -7}, {" yes", -7}, {"", -7}};
    for (auto const& [text, value] : bools) {
        ScopedProperty property("korvtest.props.typed", text);
        EXPECT_EQ(value, property_get_bool("korvtest.props.typed", -7)) << '"' << text << '"';
    }
    // The 32-bit read also refuses what does not fit.
    std::pair<char const*, int64_t> const integers[] = {
            {"-0x10", -16}, {"+7", 7},   {"010", 10}, {"0x80000000", 0x80000000},
            {"0x", -7},     {"12a", -7}, {" 1", -7},  {"9223372036854775808", -7}};
    for (auto const& [text, value] : integers) {
        ScopedProperty property("korvtest.props.typed", text);
        EXPECT_EQ(value, property_get_int64("korvtest.props.typed", -7)) << '"' << text << '"';
        EXPECT_EQ(value == 0x80000000 ? -7 : value, property_get_int32("korvtest.props.typed", -7));
    }
}

TEST(PlatformProperties, FileValuesLieBetweenSetValuesAndDefaults) {
    korvtest::TempDir dir;
    std::ofstream(dir.path() + "/props")
            << "# a comment=1\n\n  korvtest.file.spaced  =   two words \t\r\n"
               "korvtest.file.noequals\nkorvtest.file.twice=first\nkorvtest.file.twice=second\n"
               "korvtest.file.equals=a=b\nkorvtest.file.number=0x20\nkorvtest.file.hidden=file\n"
               "korvtest.file.emptied=file\nkorvtest.file.last=no newline";
    korvtest::ChildResult child =
            korvtest::runChild({"/proc/self/exe", "--gtest_filter=PlatformPropertiesChild.*",
                                "--gtest_also_run_disabled_tests"},
                               {{"QRVCAM_PROPERTIES", dir.path() + "/props"}});
    // The count: a misspelt test name would run nothing and exit 0.
    EXPECT_TRUE(child.exited && child.exitCode == 0 &&
                child.out.find("[  PASSED  ] 1 test.") != std::string::npos)
            << child.out << child.err;
}

TEST(PlatformPropertiesChild, DISABLED_FileValues) {
    property_set("korvtest.file.hidden", "set");
    property_set("korvtest.file.emptied", "");  // hides the file's value as well
    std::pair<char const*, char const*> const cases[] = {
            {"korvtest.file.spaced", "two words"}, {"# a comment", "default"},
            {"korvtest.file.noequals", "default"}, {"korvtest.file.twice", "second"},
            {"korvtest.file.equals", "a=b"},       {"korvtest.file.last", "no newline"},
            {"korvtest.file.hidden", "set"},       {"korvtest.file.emptied", "default"}};
    for (auto const& [key, expected] : cases) {
        char value[PROPERTY_VALUE_MAX];
        property_get(key, value, "default");
        EXPECT_STREQ(expected, value) << key;
    }
    EXPECT_EQ(0x20, property_get_int32("korvtest.file.number", 0));
}

// --- Descriptor ownership ----------------------------------------------------------------------

constexpr uint64_t kOwner = UINT64_C(0x0500007ffd1234a0);
constexpr uint64_t kOther = UINT64_C(0x0500007ffd1234b8);

// Refused: -1 with EBADF, and the owner unchanged.
void expectRefused(int result, int fd) {
    EXPECT_EQ(std::make_tuple(-1, EBADF, kOwner),
              std::make_tuple(result, errno, qrvcam_fdsan_get_owner_tag(fd)));
}

// On a low descriptor and on one past the first thousand; the plain close() is the interposed,
// checking one.
TEST(PlatformFdsan, OnlyTheOwnersTagExchangesOrCloses) {
    EXPECT_EQ(UINT64_C(0xff12345678901234),
              qrvcam_fdsan_create_tag(UINT64_C(0xab12345678901234), 0xff));
    int fds[2];
    ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
    for (int fd : {fds[0], fcntl(fds[1], F_DUPFD_CLOEXEC, 5000)}) {
        if (fd < 0) continue;  // descriptor limit below 5000
        korvtest::AndroidLogCapture log;
        ASSERT_EQ(0, qrvcam_fdsan_exchange_tag(fd, 0, kOwner, 0));
        expectRefused(qrvcam_fdsan_exchange_tag(fd, 0, kOther, 0), fd);
        expectRefused(qrvcam_fdsan_close_with_tag(fd, kOther, 0), fd);
        expectRefused(close(fd), fd);
        std::string const fdText = "(fd=" + std::to_string(fd) + ") refused: tag ";
        std::string const owner = " given, owner tag 0x500007ffd1234a0";
        EXPECT_EQ((Texts{"exchange_tag" + fdText + "0x0" + owner,
                         "close_with_tag" + fdText + "0x500007ffd1234b8" + owner,
                         "close" + fdText + "0x0" + owner}),
                  log.texts("qrvcam-fdsan"));
        EXPECT_EQ(ANDROID_LOG_ERROR, log.withTag("qrvcam-fdsan").at(0).priority);

        ASSERT_EQ(0, qrvcam_fdsan_exchange_tag(fd, kOwner, kOther, 0));  // handed over
        EXPECT_EQ(0, qrvcam_fdsan_close_with_tag(fd, kOther, 0));
        // The number starts unowned when reused, and unowned descriptors close as usual.
        EXPECT_EQ(fd, fcntl(fds[1], F_DUPFD_CLOEXEC, fd));
        EXPECT_EQ(0u, qrvcam_fdsan_get_owner_tag(fd));
        EXPECT_EQ(0, close(fd));
        EXPECT_EQ(3u, log.records().size());
    }
    EXPECT_EQ(0, close(fds[1]));
}

TEST(PlatformFdsan, FatalModeAbortsAfterTheErrorLine) {
    korvtest::ChildResult child = korvtest::runInChild([] {
        property_set("debug.qrvcam.fdsan", "fatal");
        int fds[2];
        if (pipe(fds) != 0) _exit(3);
        qrvcam_fdsan_exchange_tag(fds[0], 0, kOwner, 0);
        close(fds[0]);
        _exit(0);  // not reached when the close aborts
    });
    EXPECT_EQ(SIGABRT, child.signal) << child.err;
    EXPECT_NE(std::string::npos,
              child.err.find("refused: tag 0x0 given, owner tag 0x500007ffd1234a0"))
            << child.err;
}

// --- ULog and printers -------------------------------------------------------------------------

constexpr unsigned kModule = 0x8002001;
constexpr char kTag[] = "korvtest-ulp";

// The switches come from properties read at load, and liblog's minimum priority is lowered to
// match the details level (1 is liblog's default, info; 2 verbose).
TEST(PlatformULogLoad, SwitchesAndLogMinimumComeFromProperties) {
    std::pair<std::map<std::string, std::string>, std::string> const cases[] = {
            {{}, "mode=0x1 details=3 mask=0x0 minimum=1"},
            {{{"debug.qrvcam.ulog.mode", "0xA"},
              {"debug.qrvcam.ulog.detailslevel", "6"},
              {"debug.qrvcam.ulog.detailsmask", "0x80002000"}},
             "mode=0xa details=6 mask=0x80002000 minimum=2"}};
    for (auto const& [properties, report] : cases) {
        korvtest::ChildResult child =
                korvtest::runSelfChild("PlatformULogChild.DISABLED_ReportSwitches", properties);
        EXPECT_NE(std::string::npos, child.out.find(report + "\n[       OK ]")) << child.out;
        EXPECT_EQ(report.back() != '1', child.err.find("korvtest-debug") != std::string::npos);
        EXPECT_EQ(report.back() == '2', child.err.find("korvtest-verbose") != std::string::npos);
    }
}

TEST(PlatformULogChild, DISABLED_ReportSwitches) {
    printf("mode=0x%x details=%u mask=0x%x minimum=%d\n", ULogger::sMode, ULogger::sDetailsLevel,
           ULogger::sNormalDetailsMask, __android_log_get_minimum_priority());
    __android_log_print(ANDROID_LOG_DEBUG, "korvtest", "korvtest-debug");
    __android_log_print(ANDROID_LOG_VERBOSE, "korvtest", "korvtest-verbose");
}

// Mode bit 0 sends each line, prefixed, to liblog at its level's priority; bits 0xA send it to the
// sink with module, level and length. A level shows from the same details level on, and from 5
// on only when the mask selects the module (at least 0x100000, with a bit of 0xff000).
TEST(PlatformULogPrinter, GatesAndRoutesLikeTheLibrarysLog) {
    korvtest::ScopedSwitches switches;
    korvtest::AndroidLogCapture log;
    korvtest::ULogCapture ulog;
    int const priorities[] = {ANDROID_LOG_ERROR, ANDROID_LOG_WARN,  ANDROID_LOG_INFO,
                              ANDROID_LOG_DEBUG, ANDROID_LOG_DEBUG, ANDROID_LOG_VERBOSE,
                              ANDROID_LOG_DEBUG};
    uint32_t const cases[][4] = {// mode, module, mask, shown from level 5 on
                                 {1, kModule, 0xffffffff, 1},   {2, kModule, 0, 0},
                                 {8, kModule, 0x8002000, 1},    {3, kModule, 0x0102000, 0},
                                 {3, kModule, 0x8000000, 0},    {3, kModule, 0x0002000, 0},
                                 {3, 0x0101000, 0xffffffff, 1}, {4, kModule, 0xffffffff, 1}};
    for (auto const& [mode, module, mask, shownFrom5] : cases) {
        switches.mode(mode).mask(mask);
        for (uint32_t level = 1; level <= 7; ++level) {
            SCOPED_TRACE(testing::Message()
                         << mode << ' ' << module << ' ' << mask << ' ' << level);
            ULogPrinter printer(module, kTag, static_cast<DetailsType>(level), "p:", false);
            log.clear();
            ulog.clear();
            switches.details(level - 1);
            printer.printLine("below");
            printer.printFormatLine("below %u", level);
            switches.details(level);
            printer.printLine("at");
            static_cast<NSCam::IPrinter&>(printer).printFormatLine("n=%d", 7);
            bool const shown = level < 5 || shownFrom5;
            EXPECT_EQ(shown && mode & 1 ? Texts({"p:at", "p:n=7"}) : Texts(), log.texts(kTag));
            for (auto const& r : log.withTag(kTag)) EXPECT_EQ(priorities[level - 1], r.priority);
            EXPECT_EQ(shown && mode & 0xA ? Texts({"at", "n=7"}) : Texts(), ulog.texts(kTag));
            for (auto const& r : ulog.records()) {
                EXPECT_EQ(std::make_tuple(module, level, r.text.size()),
                          std::make_tuple(r.module, r.level, size_t{r.length}));
            }
        }
    }
}

// --- Trace -------------------------------------------------------------------------------------

int64_t monotonicUs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000000) + now.tv_nsec / 1000;
}

// Several threads at once: each line is whole and matches the pattern by which Perfetto and
// catapult read a systrace text line; it names its thread, process, CPU and monotonic time; and
// each thread's events come in its own order, every B closed by its E on the same thread.
TEST(PlatformTrace, ConcurrentWritersMakeASystraceTextTrace) {
    std::regex const viewerLine(R"(-(\d+)\s+\(?\s*(\d+|-+)?\)?\s?\[(\d+)\]\s*[a-zA-Z0-9.]{0,4})"
                                R"(\s+(\d+\.\d+):\s+(\S+):)");
    std::regex const line(R"((.+)-(\d+) \((\d+)\) \[(\d{3})\] \.{4} (\d+)\.(\d{6}): )"
                          R"(tracing_mark_write: ([BE])\|(\d+)(.*))");
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    std::string const pid = std::to_string(getpid());
    std::string const longName(5000, 'n');  // cut to 1022 bytes of marker
    korvtest::TraceCapture capture;
    int64_t const start = monotonicUs();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::string const name = "korvtest-w" + std::to_string(t);
            pthread_setname_np(pthread_self(), name.c_str());
            errno = EBADF;
            for (int i = 0; i < kRounds; ++i) {
                EXPECT_EQ(ATRACE_TAG_CAMERA, atrace_get_enabled_tags());
                atrace_begin_body(name.c_str());
                atrace_begin_body(i == 0 ? longName.c_str() : "inner");
                atrace_end_body();
                atrace_end_body();
            }
            EXPECT_EQ(EBADF, errno);
        });
    }
    for (int i = 0; i < 50; ++i) atrace_update_tags();  // the same tags and file, reread meanwhile
    for (auto& thread : threads) thread.join();

    Texts const lines = korvtest::readLines(capture.path());
    ASSERT_LT(2u, lines.size());
    EXPECT_EQ((Texts{"# tracer: nop", "#"}), Texts(lines.begin(), lines.begin() + 2));
    std::map<std::string, Texts> seen;
    std::map<std::string, int64_t> last;
    for (size_t i = 2; i < lines.size(); ++i) {
        std::smatch m;
        ASSERT_TRUE(std::regex_search(lines[i], viewerLine)) << lines[i];
        ASSERT_TRUE(std::regex_match(lines[i], m, line)) << lines[i];
        EXPECT_TRUE(m[3] == pid && m[8] == pid) << lines[i];  // the line's and the marker's
        EXPECT_LT(std::stol(m[4]), sysconf(_SC_NPROCESSORS_CONF));
        int64_t const us = std::stoll(m[5]) * 1000000 + std::stoll(m[6]);
        EXPECT_TRUE(start <= us && us <= monotonicUs() && last[m[2]] <= us) << lines[i];
        last[m[2]] = us;
        seen[m[2]].push_back(m.str(1) + " " + m.str(7) + m.str(9));
    }
    for (auto const& [tid, events] : seen) {
        std::string const name = events[0].substr(0, events[0].find(' '));  // "korvtest-w<t>"
        Texts expected;
        for (int i = 0; i < kRounds; ++i) {
            std::string const inner = i == 0 ? longName.substr(0, 1019 - pid.size()) : "inner";
            for (auto const& event :
                 {"B|" + name, "B|" + inner, std::string("E"), std::string("E")}) {
                expected.push_back(name + " " + event);
            }
        }
        EXPECT_EQ(expected, events) << "thread " << tid;
    }
}

// Tags and the marker file are read at the first trace call and again at atrace_update_tags().
// Switching files reopens on the same descriptor number; a file that holds a trace is appended to
// under its one header.
TEST(PlatformTrace, UpdateTagsRereadsTagsAndMarkerFile) {
    korvtest::TraceCapture first(ATRACE_TAG_CAMERA);
    ScopedProperty tags("debug.atrace.tags.enableflags", "0xffffffffffffffff");
    EXPECT_EQ(ATRACE_TAG_CAMERA, atrace_get_enabled_tags());  // until the update
    atrace_update_tags();
    EXPECT_EQ(UINT64_MAX, atrace_get_enabled_tags());
    property_set("debug.atrace.tags.enableflags", "18446744073709551616");
    atrace_update_tags();
    EXPECT_EQ(0u, atrace_get_enabled_tags());  // out of range

    atrace_begin_body("one");
    std::set<int> const tracing = korvtest::openFds();
    korvtest::TempDir dir;
    {
        ScopedProperty marker("debug.atrace.marker_file", dir.path() + "/second");
        atrace_update_tags();
        atrace_begin_body("two");
    }
    atrace_update_tags();
    atrace_begin_body("three");
    EXPECT_EQ(tracing, korvtest::openFds());
    EXPECT_EQ((Texts{"B|one", "B|three"}), first.events());
    EXPECT_EQ(4u, korvtest::readLines(first.path()).size());  // one header, two events
    EXPECT_EQ(Texts{"B|two"}, korvtest::traceEvents(dir.path() + "/second"));
}

}  // namespace
