// The unified logger on the host: the global switches, the default sink (stderr) and ULogPrinter.
#include <android/log.h>
#include <qrvcam/Properties.h>
#include <qrvcam/ulog/ULog.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <new>

#include "ErrnoRestorer.h"

namespace NSCam {
namespace Utils {
namespace ULog {
namespace {

// Read as 64-bit so that hexadecimal masks with bit 31 set (0x80000000 and up) parse.
uint32_t switchFromProperty(char const* key, uint32_t defaultValue) {
    return static_cast<uint32_t>(Properties::property_get_int64(key, defaultValue));
}

// The default sink lives in static storage and is never destroyed: threads still running during
// exit may log after static destructors have run.
alignas(ULogger) unsigned char gDefaultSinkStorage[sizeof(ULogger)];

void writeAll(int fd, char const* data, size_t size) {
    while (size > 0) {
        ssize_t written = write(fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        data += written;
        size -= static_cast<size_t>(written);
    }
}

uint32_t loadSwitch(uint32_t const& value) {
    return __atomic_load_n(&value, __ATOMIC_RELAXED);
}

android_LogPriority priorityOfLevel(DetailsType level) {
    switch (level) {
        case DETAILS_ERROR:
            return ANDROID_LOG_ERROR;
        case DETAILS_WARNING:
            return ANDROID_LOG_WARN;
        case DETAILS_INFO:
            return ANDROID_LOG_INFO;
        case DETAILS_DEBUG:
        case DETAILS_DETAILS:
            return ANDROID_LOG_DEBUG;
        case DETAILS_VERBOSE:
            return ANDROID_LOG_VERBOSE;
    }
    return ANDROID_LOG_DEBUG;
}

}  // namespace

// These four run, in this order, while libqrvcam_ulog.so loads, which is before the load-time
// code of any library linked against it.
uint32_t ULogger::sMode = switchFromProperty("debug.qrvcam.ulog.mode", 1);
uint32_t ULogger::sDetailsLevel = switchFromProperty("debug.qrvcam.ulog.detailslevel", 3);
uint32_t ULogger::sNormalDetailsMask = switchFromProperty("debug.qrvcam.ulog.detailsmask", 0);
ULogger* ULogger::sULogger = new (gDefaultSinkStorage) ULogger();

namespace {

// liblog prints only from INFO on the host by default; debug and verbose records that the
// switches let through would otherwise vanish. It is only ever lowered, never raised, so that a
// minimum set by the program before this library was loaded keeps working.
int lowerLogMinimumPriority() {
    int wanted;
    switch (ULogger::sDetailsLevel) {
        case DETAILS_DEBUG:
        case DETAILS_DETAILS:
            wanted = ANDROID_LOG_DEBUG;
            break;
        case DETAILS_VERBOSE:
            wanted = ANDROID_LOG_VERBOSE;
            break;
        default:
            return __android_log_get_minimum_priority();
    }
    int current = __android_log_get_minimum_priority();
    if (current == ANDROID_LOG_DEFAULT || current > wanted) {
        __android_log_set_minimum_priority(wanted);
        return wanted;
    }
    return current;
}

[[maybe_unused]] int const gLogMinimumPriority = lowerLogMinimumPriority();

}  // namespace

void ULogger::logRecord(uint32_t moduleId, char const* tag, uint32_t level, char const* text,
                        uint32_t /*length*/) {
    qrvcam_host::ErrnoRestorer keepErrno;
    // The text is NUL-terminated; the length may exceed what the buffer held, so it is not used.
    char const* const safeTag = tag != nullptr ? tag : "";
    char const* const safeText = text != nullptr ? text : "";
    char stackLine[1280];
    int size = snprintf(stackLine, sizeof(stackLine), "ULOG %x %u %s: %s\n", moduleId, level,
                        safeTag, safeText);
    if (size < 0) return;
    // One write per record keeps records of concurrent threads from interleaving.
    if (static_cast<size_t>(size) < sizeof(stackLine)) {
        writeAll(STDERR_FILENO, stackLine, static_cast<size_t>(size));
        return;
    }
    char* line = static_cast<char*>(malloc(static_cast<size_t>(size) + 1));
    if (line == nullptr) return;
    snprintf(line, static_cast<size_t>(size) + 1, "ULOG %x %u %s: %s\n", moduleId, level, safeTag,
             safeText);
    writeAll(STDERR_FILENO, line, static_cast<size_t>(size));
    free(line);
}

void ULogger::flush(int /*reason*/) {
    qrvcam_host::ErrnoRestorer keepErrno;
    fflush(stderr);
}

ULogger::~ULogger() = default;

// --- ULogPrinter -------------------------------------------------------------------------------

// The LogPrinter borrows mTag, which is filled in the body below: the LogPrinter keeps only the
// pointer and reads it when it prints.
ULogPrinter::ULogPrinter(unsigned int moduleId, char const* tag, DetailsType level,
                         char const* prefix, bool ignoreBlankLines)
    : mLevel(level),
      mModuleId(moduleId),
      mTag(),
      mLogPrinter(mTag, priorityOfLevel(level), prefix, ignoreBlankLines) {
    // The last byte is forced to NUL either way; copying one byte less says so to the compiler.
    if (tag != nullptr) strncpy(mTag, tag, sizeof(mTag) - 1);
    mTag[sizeof(mTag) - 1] = '\0';
}

ULogPrinter::~ULogPrinter() = default;

bool ULogPrinter::gate() const {
    uint32_t const level = static_cast<uint32_t>(mLevel);
    if (loadSwitch(ULogger::sDetailsLevel) < level) return false;
    if (level >= DETAILS_DETAILS) {
        uint32_t const selected = loadSwitch(ULogger::sNormalDetailsMask) & mModuleId;
        if (selected < 0x100000 || (selected & 0xff000) == 0) return false;
    }
    return true;
}

void ULogPrinter::route(char const* text, uint32_t length) {
    if ((loadSwitch(ULogger::sMode) & 0x1) != 0) mLogPrinter.printLine(text);
    if ((loadSwitch(ULogger::sMode) & 0xA) != 0) {
        ULogger* sink = __atomic_load_n(&ULogger::sULogger, __ATOMIC_ACQUIRE);
        if (sink != nullptr) {
            sink->logRecord(mModuleId, mTag, static_cast<uint32_t>(mLevel), text, length);
        }
    }
}

void ULogPrinter::printLine(char const* line) {
    if (line == nullptr || !gate()) return;
    route(line, static_cast<uint32_t>(strlen(line)));
}

void ULogPrinter::printFormatLine(char const* format, ...) {
    if (format == nullptr || !gate()) return;
    char buffer[1024] = {};
    va_list args;
    va_start(args, format);
    int length = vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    if (length < 0) {
        buffer[0] = '\0';
        length = 0;
    }
    buffer[sizeof(buffer) - 1] = '\0';
    // The sink gets the length the text would have had, not what the buffer holds.
    route(buffer, static_cast<uint32_t>(length));
}

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
