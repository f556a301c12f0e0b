// The file printer: prefix column, unlimited lines, borrowed stream, warnings and the fatal
// null stream.
//
// This executable defines vasprintf(); the library binds to it by symbol preemption. While a
// result is scripted it returns that result without formatting.

#include <android/log.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <korvalite/Korv-Printer.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <optional>

#include "support/KorvTest.h"

namespace {
std::optional<int> gResult;  // the scripted result; touched by the test's thread only
}  // namespace

extern "C" int vasprintf(char** text, char const* format, va_list args) {
    static auto* const real =
            reinterpret_cast<int (*)(char**, char const*, va_list)>(dlsym(RTLD_NEXT, "vasprintf"));
    return gResult ? *gResult : real(text, format, args);
}

namespace {

using NSCam::IPrinter;
using NSCam::NSKorvalite::makeFilePrinter;

// Everything a printer wrote to a memory stream, read after the printer is gone. The stream is
// borrowed: the printer neither flushes it nor closes it.
std::string printed(unsigned int indent, char const* prefix,
                    std::function<void(IPrinter&)> const& body) {
    char* data = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&data, &size);
    body(*makeFilePrinter(stream, indent, prefix));
    EXPECT_EQ(size, 0u) << "the printer flushed";
    EXPECT_GE(fputs("|", stream), 0) << "the printer closed the stream";
    fclose(stream);
    std::string text(data, size - 1);  // without the "|"
    free(data);
    return text;
}

TEST(FilePrinterTest, PrefixColumnIsAMinimumWidthAndLinesHaveNoLimitNorFlush) {
    auto line = [](unsigned int indent, char const* prefix, char const* text) {
        return printed(indent, prefix, [&](IPrinter& p) { p.printLine(text); });
    };
    EXPECT_EQ("abcd\n", line(0, "ab", "cd"));  // width 0 is a flag to printf: no padding
    EXPECT_EQ("cd\n", line(0, nullptr, "cd"));
    EXPECT_EQ("ab   cd\n", line(5, "ab", "cd"));
    EXPECT_EQ("abcdefcd\n", line(2, "abcdef", "cd"));    // a longer prefix is printed whole
    EXPECT_EQ("%d100%s%n\n", line(1, "%d", "100%s%n"));  // neither prefix nor line is a format
    std::string const longText(6000, 'x');
    EXPECT_EQ("p " + longText + "|42\np \n", printed(2, "p", [&](IPrinter& p) {
                  p.printFormatLine("%s|%d", longText.c_str(), 42);
                  p.printFormatLine("%s", "");
              }));
}

// Lost lines are warned about at warning level; a line that cannot be formatted is an error line
// with its fixed source line, and nothing is printed.
TEST(FilePrinterTest, LostLinesAreReported) {
    korvtest::AndroidLogCapture log;
    korvtest::ScopedSwitches switches(0x1, 2);
    EXPECT_EQ(printed(0, "p", [](IPrinter& p) { p.printLine(nullptr); }), "");
    // A column wider than printf can count makes fprintf fail.
    printed(4294967295u, "p", [](IPrinter& p) { p.printLine("x"); });
    gResult = -1;
    std::string const text = printed(0, "p", [](IPrinter& p) { p.printFormatLine("%d", 1); });
    gResult.reset();
    EXPECT_EQ(text, "");
    EXPECT_EQ(log.texts("korvalite-Printer"),
              (std::vector<std::string>{"[printLine] NULL string passed in",
                                        "[printLine] -1 returned from fprintf",
                                        "[printFormatLine] Failed to format string "
                                        "(printFormatLine){#91:src/utils/sys/Korv-Printer}"}));
    std::vector<int> priorities;
    for (auto& record : log.withTag("korvalite-Printer")) priorities.push_back(record.priority);
    EXPECT_EQ(priorities,
              (std::vector<int>{ANDROID_LOG_WARN, ANDROID_LOG_WARN, ANDROID_LOG_ERROR}));
}

// In the child: each Android-log record and ULog call, written straight to stdout as it happens,
// since the process aborts before anything buffered could be reported.
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
    std::string const ulog = "ULOG 0x8002001 1 korvalite-Printer: [MyFilePrinter] Bad FILE\n";
    korvtest::ChildResult result = korvtest::runInChild([&] {
        static EchoSink sink;
        NSCam::Utils::ULog::ULogger::sULogger = &sink;
        NSCam::Utils::ULog::ULogger::sMode = 0xB;
        __android_log_set_logger([](__android_logger_data const* data, char const* message) {
            dprintf(STDOUT_FILENO, "LOG %d %s: %s\n", data->priority, data->tag, message);
        });
        makeFilePrinter(nullptr, 4, "p");
        dprintf(STDOUT_FILENO, "RETURNED\n");
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.out, ulog + "FLUSH 1\n" + assertion) << result.err;
}

}  // namespace
