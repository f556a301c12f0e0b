// The file printer: prefix column, unlimited lines, borrowed stream, warnings and the fatal
// null stream.

#include <android/log.h>
#include <gtest/gtest.h>
#include <korvalite/Korv-Printer.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "support/KorvTest.h"

namespace {

using NSCam::IPrinter;
using NSCam::NSKorvalite::makeFilePrinter;

// Everything a printer wrote to a memory stream, read after the stream is closed.
std::string printed(unsigned int indent, char const* prefix,
                    std::function<void(IPrinter&)> const& body) {
    char* data = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&data, &size);
    if (stream == nullptr) {
        ADD_FAILURE() << "open_memstream: " << strerror(errno);
        return {};
    }
    {
        std::shared_ptr<IPrinter> printer = makeFilePrinter(stream, indent, prefix);
        body(*printer);
    }
    fclose(stream);
    std::string text(data, size);
    free(data);
    return text;
}

TEST(FilePrinterTest, PrefixColumnIsAMinimumWidth) {
    struct Case {
        unsigned int indent;
        char const* prefix;
        char const* line;
        char const* expected;
    };
    Case const cases[] = {
            {0, "ab", "cd", "abcd\n"},  // width 0 is a flag to printf: no padding, no separator
            {0, nullptr, "cd", "cd\n"},
            {4, nullptr, "cd", "    cd\n"},
            {5, "ab", "cd", "ab   cd\n"},
            {2, "abcdef", "cd", "abcdefcd\n"},  // a longer prefix is printed whole
            {3, "", "", "   \n"},
            {1, "%d", "100%s%n", "%d100%s%n\n"},  // neither prefix nor line is a format
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(testing::Message() << "indent " << c.indent << " prefix "
                                        << (c.prefix != nullptr ? c.prefix : "(null)"));
        EXPECT_EQ(printed(c.indent, c.prefix, [&](IPrinter& p) { p.printLine(c.line); }),
                  c.expected);
    }
}

TEST(FilePrinterTest, FormattedLinesHaveNoLengthLimit) {
    std::string const longText(6000, 'x');
    std::string const text = printed(2, "p", [&](IPrinter& p) {
        p.printFormatLine("%s|%d", longText.c_str(), 42);
        p.printFormatLine("next %s", "line");
    });
    EXPECT_EQ(text, "p " + longText + "|42\np next line\n");
}

TEST(FilePrinterTest, LeavesTheStreamOpenAndUnflushed) {
    korvtest::TempDir dir;
    std::string const path = dir.path() + "/out.txt";
    FILE* stream = fopen(path.c_str(), "w");
    ASSERT_NE(stream, nullptr) << strerror(errno);
    std::vector<char> buffer(1 << 16);
    ASSERT_EQ(setvbuf(stream, buffer.data(), _IOFBF, buffer.size()), 0);

    makeFilePrinter(stream, 0, "p:")->printLine("one");

    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0) << "the printer flushed";
    EXPECT_GE(fputs("two\n", stream), 0) << "the printer closed the stream";
    ASSERT_EQ(fclose(stream), 0);
    EXPECT_EQ(korvtest::readLines(path), (std::vector<std::string>{"p:one", "two"}));
}

TEST(FilePrinterTest, LostLinesAreWarnedAboutAtWarningLevel) {
    korvtest::AndroidLogCapture log;
    korvtest::ScopedSwitches switches;
    switches.mode(1).details(2);

    EXPECT_EQ(printed(0, "p", [](IPrinter& p) { p.printLine(nullptr); }), "");
    EXPECT_EQ(log.texts("korvalite-Printer"),
              std::vector<std::string>{"[printLine] NULL string passed in"});

    // A column wider than printf can count makes fprintf fail.
    log.clear();
    printed(4294967295u, "p", [](IPrinter& p) { p.printLine("x"); });
    EXPECT_EQ(log.texts("korvalite-Printer"),
              std::vector<std::string>{"[printLine] -1 returned from fprintf"});
}

// In the child: each Android-log record and ULog call, written straight to stdout as it happens,
// since the process aborts before anything buffered could be reported.
void echoAndroidRecord(__android_logger_data const* data, char const* message) {
    dprintf(STDOUT_FILENO, "LOG %d %s: %s\n", data->priority, data->tag, message);
}

class EchoSink : public NSCam::Utils::ULog::ULogger {
public:
    void logRecord(uint32_t moduleId, char const* tag, uint32_t level, char const* text,
                   uint32_t) override {
        dprintf(STDOUT_FILENO, "ULOG %#x %u %s: %s\n", moduleId, level, tag, text);
    }
    void flush(int reason) override { dprintf(STDOUT_FILENO, "FLUSH %d\n", reason); }
};

TEST(FilePrinterTest, NullStreamAbortsWithTheAssertionOnly) {
    std::string const assertion =
            "LOG 7 korvalite-Printer: [MyFilePrinter] Bad FILE "
            "(MyFilePrinter){#69:src/utils/sys/Korv-Printer}\n";
    struct Case {
        uint32_t mode;
        std::string expected;
    };
    Case const cases[] = {
            {1, assertion},
            {0xB,
             "ULOG 0x8002001 1 korvalite-Printer: [MyFilePrinter] Bad FILE\nFLUSH 1\n" + assertion},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(testing::Message() << "mode " << c.mode);
        korvtest::ChildResult result = korvtest::runInChild([&] {
            static EchoSink sink;
            NSCam::Utils::ULog::ULogger::sULogger = &sink;
            NSCam::Utils::ULog::ULogger::sMode = c.mode;
            __android_log_set_logger(echoAndroidRecord);
            makeFilePrinter(nullptr, 4, "p");
            dprintf(STDOUT_FILENO, "RETURNED\n");
        });
        EXPECT_FALSE(result.exited);
        EXPECT_EQ(result.signal, SIGABRT);
        EXPECT_EQ(result.out, c.expected) << result.err;
    }
}

}  // namespace
