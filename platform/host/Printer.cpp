// android::Printer and android::LogPrinter, behaving as Android's libutils.
#include <android/log.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <utils/Printer.h>

#include "ErrnoRestorer.h"

namespace android {
namespace {
constexpr char kTag[] = "qrvcam-printer";
}  // namespace

Printer::Printer() = default;

Printer::~Printer() = default;

void Printer::printFormatLine(const char* format, ...) {
    char* line = nullptr;
    va_list args;
    va_start(args, format);
    int length = vasprintf(&line, format, args);
    va_end(args);
    if (length < 0) {
        qrvcam_host::ErrnoRestorer keepErrno;
        __android_log_print(ANDROID_LOG_ERROR, kTag, "printFormatLine: failed to format \"%s\"",
                            format);
        return;
    }
    printLine(line);
    free(line);
}

LogPrinter::LogPrinter(const char* logtag, android_LogPriority priority, const char* prefix,
                       bool ignoreBlankLines)
    : mLogTag(logtag),
      mPriority(priority),
      mPrefix(prefix != nullptr ? prefix : ""),
      mIgnoreBlankLines(ignoreBlankLines) {}

void LogPrinter::printLine(const char* string) {
    if (string == nullptr) {
        qrvcam_host::ErrnoRestorer keepErrno;
        __android_log_print(ANDROID_LOG_WARN, kTag, "printLine: NULL string passed in");
        return;
    }
    // logcat drops empty records; a single blank keeps the blank line visible.
    printRaw(mIgnoreBlankLines || string[0] != '\0' ? string : " ");
}

void LogPrinter::printRaw(const char* string) {
    qrvcam_host::ErrnoRestorer keepErrno;
    __android_log_print(mPriority, mLogTag, "%s%s", mPrefix, string);
}

}  // namespace android
