// Unified logger (ULog) of the camera stack: global switches, the record sink and its printer.
#pragma once

#include <stdint.h>

#include <qrvcam/IPrinter.h>
#include <utils/Printer.h>

namespace NSCam {
namespace Utils {
namespace ULog {

// Severity of a record; also the verbosity that sDetailsLevel is compared with.
enum DetailsType {
    DETAILS_ERROR = 1,
    DETAILS_WARNING = 2,
    DETAILS_INFO = 3,
    DETAILS_DEBUG = 4,
    DETAILS_DETAILS = 5,
    DETAILS_VERBOSE = 6,
};

class ULogger {
public:
    // Routing: bit 0 sends records to the Android log, bits 1 and 3 (0xA) to the ULog sink.
    // Read from "debug.qrvcam.ulog.mode" (default 1) when libqrvcam_ulog.so loads.
    static uint32_t sMode;
    // Verbosity: a record of level L is emitted only if sDetailsLevel >= L (errors always).
    // Read from "debug.qrvcam.ulog.detailslevel" (default 3).
    static uint32_t sDetailsLevel;
    // Module filter for detail levels 5 and above. "debug.qrvcam.ulog.detailsmask" (default 0).
    static uint32_t sNormalDetailsMask;
    // The sink. The default one writes "ULOG <module hex> <level> <tag>: <text>" to stderr.
    // A test may point it at its own subclass and must restore it afterwards.
    static ULogger* sULogger;

    // Writes one record. `text` is NUL-terminated; `length` is what the formatter returned and
    // may exceed the text actually held.
    virtual void logRecord(uint32_t moduleId, char const* tag, uint32_t level, char const* text,
                           uint32_t length);
    // Called with 1 right before a fatal assertion.
    virtual void flush(int reason);
    virtual ~ULogger();
};

// Printer that gates, formats and routes each line by the ULogger switches, read at every call.
// The tag is copied (cut to 63 characters); the prefix is borrowed and must outlive the printer.
// A printer holds no lock: it may be used from any thread.
class ULogPrinter : public NSCam::IPrinter, public android::Printer {
public:
    ULogPrinter(unsigned int moduleId, char const* tag, DetailsType level, char const* prefix,
                bool ignoreBlankLines);
    ~ULogPrinter() override;

    void printLine(char const* line) override;
    __attribute__((format(printf, 2, 3))) void printFormatLine(char const* format, ...) override;

private:
    bool gate() const;
    void route(char const* text, uint32_t length);

    DetailsType mLevel;
    unsigned int mModuleId;
    char mTag[64];
    android::LogPrinter mLogPrinter;
};

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
