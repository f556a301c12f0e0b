// android::Printer and android::LogPrinter, with the layout and behaviour of Android's libutils.
#pragma once

#include <android/log.h>

namespace android {

// Interface for printing to an arbitrary data stream.
class Printer {
public:
    // Print a new line specified by 'string'. \n is appended automatically.
    virtual void printLine(const char* string = "") = 0;

    // Print a new line specified by the format string. \n is appended automatically.
    virtual void printFormatLine(const char* format, ...) __attribute__((format(printf, 2, 3)));

protected:
    Printer();
    virtual ~Printer();
};

// Print to logcat: prefix then line, one record per line.
class LogPrinter : public Printer {
public:
    // Create a printer using the specified logcat tag and priority. The tag and prefix are
    // borrowed and must outlive the printer. An empty line is written as a single blank unless
    // ignoreBlankLines is set, which writes it as it is.
    LogPrinter(const char* logtag, android_LogPriority priority = ANDROID_LOG_DEBUG,
               const char* prefix = nullptr, bool ignoreBlankLines = false);

    void printLine(const char* string) override;

private:
    void printRaw(const char* string);

    const char* mLogTag;
    android_LogPriority mPriority;
    const char* mPrefix;
    bool mIgnoreBlankLines;
};

}  // namespace android
