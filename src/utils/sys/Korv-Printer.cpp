// Printer to an open stdio stream.

#define LOG_TAG "korvalite-Printer"
#define KORV_SOURCE_PATH "src/utils/sys/Korv-Printer"

#include <korvalite/Korv-Printer.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "KorvLog.h"

namespace NSCam {
namespace NSKorvalite {
namespace {

// Line numbers that the fatal and error texts carry; log scanners key on them, so they stay
// fixed when this file is edited.
constexpr int kBadFileLine = 69;
constexpr int kFormatFailedLine = 91;

class MyFilePrinter : public NSCam::IPrinter {
public:
    MyFilePrinter(FILE* file, unsigned int indent, char const* prefix);

    void printLine(char const* line) override;
    void printFormatLine(char const* format, ...) override __attribute__((format(printf, 2, 3)));

private:
    FILE* const mFile;          // borrowed: never closed or flushed here; immutable
    uint32_t const mIndent;     // minimum width of the prefix column; immutable
    char const* const mPrefix;  // borrowed, must outlive the printer; immutable
    char mFormat[24] = {};      // the per-line format, written once by the constructor
};

MyFilePrinter::MyFilePrinter(FILE* file, unsigned int indent, char const* prefix)
    : mFile(file), mIndent(indent), mPrefix(prefix != nullptr ? prefix : "") {
    if (mFile == nullptr) {
        KORV_FATAL_AT(kBadFileLine, "[%s] Bad FILE", "MyFilePrinter");
    }
    // The limit of 20 is deliberately below the array size; the longest possible format
    // ("%-4294967295s%s\n") needs 17 bytes, so it never truncates.
    int length = snprintf(mFormat, 20, "%%-%us%%s\n", mIndent);
    if (length <= 0) {
        KORV_LOGW("[%s] %d returned from snprintf", "MyFilePrinter", length);
    }
}

void MyFilePrinter::printLine(char const* line) {
    if (line == nullptr) {
        KORV_LOGW("[%s] NULL string passed in", "printLine");
        return;
    }
    // No flush: a dump prints many lines and its caller flushes once at the end.
    int result = fprintf(mFile, mFormat, mPrefix, line);
    if (result < 0) {
        KORV_LOGW("[%s] %d returned from fprintf", "printLine", result);
    }
}

void MyFilePrinter::printFormatLine(char const* format, ...) {
    // vasprintf rather than a fixed buffer: a file line has no length limit.
    char* text = nullptr;
    va_list args;
    va_start(args, format);
    int length = vasprintf(&text, format, args);
    va_end(args);
    if (length < 0) {
        KORV_LOGE_AT(kFormatFailedLine, "[%s] Failed to format string", "printFormatLine");
        return;
    }
    // Through the virtual interface, so that a subclass's printLine is honoured.
    this->printLine(text);
    free(text);
}

}  // namespace

std::shared_ptr<NSCam::IPrinter> makeFilePrinter(FILE* file, unsigned int indent,
                                                 char const* prefix) {
    return std::make_shared<MyFilePrinter>(file, indent, prefix);
}

}  // namespace NSKorvalite
}  // namespace NSCam
