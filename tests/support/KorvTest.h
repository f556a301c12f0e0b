// Test helpers shared by every test of the library and of the host platform.
//
// - AndroidLogCapture: every liblog record (priority, tag, text) of this process.
// - ULogCapture: every ULog sink record.
// - ScopedSwitches: sets the ULog switches and restores them.
// - TraceCapture / traceEvents: trace events written to a (temporary) marker file.
// - ScopedProperty / TempFile: a property in this process; a temporary file.
// - runSelfChild / runInChild: a child process that must end in a given way.
// - openFds / threadCount: the descriptors and threads this process has.
// - tagOf / addr: a holder's owner tag; a pointer as the library prints it.
//
// Each helper restores what it changed when it goes out of scope. Captures are process-wide: use
// one of a kind at a time.
#pragma once

#include <korvalite/EpollMonitor.h>
#include <qrvcam/ulog/ULog.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <locale>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvtest {

using ULogger = NSCam::Utils::ULog::ULogger;

// The helpers restore what they changed: a copy would restore it twice.
struct NoCopy {
    NoCopy() = default;
    NoCopy(NoCopy const&) = delete;
    NoCopy& operator=(NoCopy const&) = delete;
};

// --- Android log and ULog --------------------------------------------------------------------

struct LogRecord {
    int priority;
    std::string tag;
    std::string text;
};

struct ULogRecord {
    uint32_t module;
    std::string tag;
    uint32_t level;
    std::string text;  // the text as received (up to its NUL)
    uint32_t length;   // the length argument as received
};

// The records one route received, in order. Any thread.
template <class Record>
class Records {
public:
    std::vector<Record> records() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mRecords;
    }
    // Records with this tag.
    std::vector<Record> withTag(std::string_view tag) const {
        std::vector<Record> result;
        for (auto& record : records()) {
            if (record.tag == tag) result.push_back(record);
        }
        return result;
    }
    // Texts of the records with this tag, in order.
    std::vector<std::string> texts(std::string_view tag) const {
        std::vector<std::string> result;
        for (auto& record : withTag(tag)) result.push_back(record.text);
        return result;
    }
    // Number of records whose tag equals `tag` and whose text contains `needle`.
    size_t count(std::string_view tag, std::string_view needle) const {
        size_t n = 0;
        for (auto& text : texts(tag)) n += text.find(needle) != std::string::npos;
        return n;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mMutex);
        mRecords.clear();
    }

protected:
    void add(Record record) {
        std::lock_guard<std::mutex> lock(mMutex);
        mRecords.push_back(std::move(record));
    }

private:
    mutable std::mutex mMutex;
    std::vector<Record> mRecords;
};

// Captures every liblog record of this process (minimum priority lowered to verbose while it
// lives). Restores liblog's stderr logger and the previous minimum priority afterwards.
class AndroidLogCapture : public Records<LogRecord>, NoCopy {
public:
    AndroidLogCapture();
    ~AndroidLogCapture();

private:
    int mOldMinimum;
};

// A ULog sink that records; installed as ULogger::sULogger while it lives.
class ULogCapture : public ULogger, public Records<ULogRecord> {
public:
    ULogCapture() : mPrevious(__atomic_load_n(&ULogger::sULogger, __ATOMIC_ACQUIRE)) {
        __atomic_store_n(&ULogger::sULogger, static_cast<ULogger*>(this), __ATOMIC_RELEASE);
    }
    ~ULogCapture() override { __atomic_store_n(&ULogger::sULogger, mPrevious, __ATOMIC_RELEASE); }
    void logRecord(uint32_t moduleId, char const* tag, uint32_t level, char const* text,
                   uint32_t length) override {
        add({moduleId, tag ? tag : "", level, text ? text : "", length});
    }
    // The pre-assertion call: nothing to flush in memory.
    void flush(int) override {}

private:
    ULogger* mPrevious;
};

// Saves the three ULog switches and restores them. The setters store atomically, so a library
// thread reading them concurrently is not a data race.
class ScopedSwitches : NoCopy {
public:
    ScopedSwitches() = default;
    ScopedSwitches(uint32_t modeValue, uint32_t detailsValue) {
        mode(modeValue).details(detailsValue);
    }
    ~ScopedSwitches() {
        for (auto [target, old] : mSaved) __atomic_store_n(target, old, __ATOMIC_RELAXED);
    }
    ScopedSwitches& mode(uint32_t value) { return set(ULogger::sMode, value); }
    ScopedSwitches& details(uint32_t value) { return set(ULogger::sDetailsLevel, value); }
    ScopedSwitches& mask(uint32_t value) { return set(ULogger::sNormalDetailsMask, value); }

private:
    static std::pair<uint32_t*, uint32_t> saved(uint32_t& target) {
        return {&target, __atomic_load_n(&target, __ATOMIC_RELAXED)};
    }
    ScopedSwitches& set(uint32_t& target, uint32_t value) {
        __atomic_store_n(&target, value, __ATOMIC_RELAXED);
        return *this;
    }
    std::pair<uint32_t*, uint32_t> const mSaved[3] = {saved(ULogger::sMode),
                                                      saved(ULogger::sDetailsLevel),
                                                      saved(ULogger::sNormalDetailsMask)};
};

// --- Properties and files --------------------------------------------------------------------

// Sets a property in this process and restores its former in-process value (empty: unset).
class ScopedProperty : NoCopy {
public:
    ScopedProperty(std::string key, std::string const& value);
    ~ScopedProperty();

private:
    std::string mKey;
    std::string mOld;
};

// A temporary file, empty when made (`pattern` as for mkstemp()), removed when destroyed.
class TempFile : NoCopy {
public:
    explicit TempFile(std::string pattern);
    ~TempFile();
    std::string const& path() const { return mPath; }

private:
    std::string mPath;
};

// --- Trace -----------------------------------------------------------------------------------

// The events of a systrace text trace that the trace writer wrote to a marker file: the marker
// text of each event line, with "|<pid>" removed where it is the line's own process id, e.g.
// "B|EventFD", "E", "C|name|3". Header lines are skipped.
std::vector<std::string> traceEvents(std::string const& path);

// Points the trace writer at a temporary marker file and enables `tags` (the camera tag by
// default). Restores the properties and re-reads them afterwards.
class TraceCapture : NoCopy {
public:
    explicit TraceCapture(uint64_t tags = UINT64_C(1) << 10);

    // traceEvents() of everything written so far.
    std::vector<std::string> events() const { return traceEvents(path()); }
    // Empties the file.
    void clear();
    std::string const& path() const { return mFile.path(); }

private:
    // Undone in reverse: the properties restored, then re-read, then the file removed.
    TempFile mFile{"/tmp/korvtest-trace-XXXXXX"};
    struct Reread {
        ~Reread();
    } mReread;
    ScopedProperty mMarkerFile;
    ScopedProperty mTags;
};

// --- Child processes -------------------------------------------------------------------------

struct ChildResult {
    bool exited = false;  // ended through exit()
    int exitCode = -1;    // when exited
    int signal = 0;       // the signal that ended it, when not exited
    std::string out;      // its standard output
    std::string err;      // its standard error
};

// Runs this test executable again with only the (normally disabled) test `testName`
// ("Suite.DISABLED_Name"), with QRVCAM_PROPERTIES naming a file of `properties` only, and expects
// it to pass. This is how load-time behaviour is checked: the child loads the library with those
// properties.
ChildResult runSelfChild(std::string const& testName,
                         std::map<std::string, std::string> const& properties = {});

// Runs `body` in a forked child (no exec) and reports how the child ended; its standard output
// and error are captured. For code that must end the process in a particular way.
ChildResult runInChild(std::function<void()> const& body,
                       std::chrono::milliseconds timeout = std::chrono::seconds(60));

// --- Descriptors and waiting -----------------------------------------------------------------

// The descriptor numbers this process has open.
std::set<int> openFds();

// The threads this process has now. The first call starts and joins a thread, so that a runtime
// that starts a helper thread with the process's first other thread (ThreadSanitizer) has it
// before any baseline; under qemu-user a thread just joined can still be listed a moment, so
// compare with "at most" a baseline.
size_t threadCount();

// The owner tag the library gives a descriptor that `holder` holds: the holder's address.
inline unsigned long tagOf(int const& holder) {
    return reinterpret_cast<unsigned long>(&holder);
}

// A pointer as the library prints it ("%p").
std::string addr(void const* pointer);

// Polls `condition` until it holds or `limit` passes; returns its last value. For conditions that
// another thread makes true: never sleep for a guess.
bool waitFor(std::function<bool()> const& condition,
             std::chrono::milliseconds limit = std::chrono::seconds(10));

// Lines of a text file.
std::vector<std::string> readLines(std::string const& path);

// A fresh temporary directory, removed with its contents when destroyed.
class TempDir : NoCopy {
public:
    TempDir();
    ~TempDir();
    std::string const& path() const { return mPath; }

private:
    std::string mPath;
};

// --- Locale ----------------------------------------------------------------------------------

// Makes the global C++ locale one that groups every digit ("14" prints as "1,4"), as a client's
// locale might, and restores the previous one.
class ScopedGroupingLocale {
public:
    ScopedGroupingLocale();
    ~ScopedGroupingLocale() { std::locale::global(mOld); }

private:
    std::locale mOld;
};

// --- Event observers -------------------------------------------------------------------------

// An eventfd of its own (non-blocking, closed with the observer). onEvent() reads the count, adds
// it to `received`, counts the call and then runs `hook`, which may detach,
// attach or even destroy the observer. Allocates nothing per event.
struct EventFdObserver : NSCam::NSKorvalite::IEventObserver {
    EventFdObserver();
    ~EventFdObserver() override;
    int getEventFD() const override { return fd; }
    void onEvent(OnEvent const& event) override;
    // Adds `value` to the descriptor's count, as a client's event would.
    void signal(uint64_t value = 1);
    bool drained() const { return received == sent; }

    int const fd;
    std::function<void(OnEvent const&)> hook;
    std::atomic<int> calls{0};
    std::atomic<uint64_t> sent{0}, received{0};
};

}  // namespace korvtest
