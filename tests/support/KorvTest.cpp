#include "support/KorvTest.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android/log.h>
#include <cutils/trace.h>
#include <qrvcam/Properties.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace korvtest {

using NSCam::Utils::Properties::property_get;
using NSCam::Utils::Properties::property_set;
using NSCam::Utils::ULog::ULogger;

namespace {

std::mutex gLogMutex;
std::vector<LogRecord> gLogRecords;  // guarded by gLogMutex

void captureLogger(__android_logger_data const* data, char const* message) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    gLogRecords.push_back({data->priority, data->tag ? data->tag : "", message ? message : ""});
}

std::string getProperty(char const* key) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(key, value, "");
    return value;
}

}  // namespace

// --- Android log -------------------------------------------------------------------------------

AndroidLogCapture::AndroidLogCapture() {
    clear();
    __android_log_set_logger(captureLogger);
    mOldMinimum = __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

AndroidLogCapture::~AndroidLogCapture() {
    __android_log_set_logger(__android_log_stderr_logger);
    __android_log_set_minimum_priority(mOldMinimum);
}

std::vector<LogRecord> AndroidLogCapture::records() const {
    std::lock_guard<std::mutex> lock(gLogMutex);
    return gLogRecords;
}

std::vector<LogRecord> AndroidLogCapture::withTag(std::string_view tag) const {
    std::vector<LogRecord> result;
    for (auto& record : records()) {
        if (record.tag == tag) result.push_back(record);
    }
    return result;
}

std::vector<std::string> AndroidLogCapture::texts(std::string_view tag) const {
    std::vector<std::string> result;
    for (auto& record : withTag(tag)) result.push_back(record.text);
    return result;
}

size_t AndroidLogCapture::count(std::string_view tag, std::string_view needle) const {
    size_t n = 0;
    for (auto& record : withTag(tag)) {
        if (record.text.find(needle) != std::string::npos) ++n;
    }
    return n;
}

void AndroidLogCapture::clear() {
    std::lock_guard<std::mutex> lock(gLogMutex);
    gLogRecords.clear();
}

// --- ULog --------------------------------------------------------------------------------------

ULogCapture::ULogCapture() : mPrevious(__atomic_load_n(&ULogger::sULogger, __ATOMIC_ACQUIRE)) {
    __atomic_store_n(&ULogger::sULogger, static_cast<ULogger*>(this), __ATOMIC_RELEASE);
}

ULogCapture::~ULogCapture() {
    __atomic_store_n(&ULogger::sULogger, mPrevious, __ATOMIC_RELEASE);
}

void ULogCapture::logRecord(uint32_t moduleId, char const* tag, uint32_t level, char const* text,
                            uint32_t length) {
    std::lock_guard<std::mutex> lock(mMutex);
    mRecords.push_back({moduleId, tag ? tag : "", level, text ? text : "", length});
}

std::vector<ULogRecord> ULogCapture::records() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mRecords;
}

std::vector<std::string> ULogCapture::texts(std::string_view tag) const {
    std::vector<std::string> result;
    for (auto& record : records()) {
        if (record.tag == tag) result.push_back(record.text);
    }
    return result;
}

size_t ULogCapture::count(std::string_view tag, std::string_view needle) const {
    size_t n = 0;
    for (auto& text : texts(tag)) {
        if (text.find(needle) != std::string::npos) ++n;
    }
    return n;
}

void ULogCapture::clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mRecords.clear();
}

ScopedSwitches::ScopedSwitches()
    : mMode(__atomic_load_n(&ULogger::sMode, __ATOMIC_RELAXED)),
      mDetails(__atomic_load_n(&ULogger::sDetailsLevel, __ATOMIC_RELAXED)),
      mMask(__atomic_load_n(&ULogger::sNormalDetailsMask, __ATOMIC_RELAXED)) {}

ScopedSwitches::~ScopedSwitches() {
    __atomic_store_n(&ULogger::sMode, mMode, __ATOMIC_RELAXED);
    __atomic_store_n(&ULogger::sDetailsLevel, mDetails, __ATOMIC_RELAXED);
    __atomic_store_n(&ULogger::sNormalDetailsMask, mMask, __ATOMIC_RELAXED);
}

ScopedSwitches& ScopedSwitches::mode(uint32_t value) {
    __atomic_store_n(&ULogger::sMode, value, __ATOMIC_RELAXED);
    return *this;
}

ScopedSwitches& ScopedSwitches::details(uint32_t value) {
    __atomic_store_n(&ULogger::sDetailsLevel, value, __ATOMIC_RELAXED);
    return *this;
}

ScopedSwitches& ScopedSwitches::mask(uint32_t value) {
    __atomic_store_n(&ULogger::sNormalDetailsMask, value, __ATOMIC_RELAXED);
    return *this;
}

// --- Trace -------------------------------------------------------------------------------------

namespace {
constexpr char kMarkerFileProperty[] = "debug.atrace.marker_file";
constexpr char kTagsProperty[] = "debug.atrace.tags.enableflags";
}  // namespace

TraceCapture::TraceCapture(uint64_t tags)
    : mOldFile(getProperty(kMarkerFileProperty)), mOldTags(getProperty(kTagsProperty)) {
    char path[] = "/tmp/korvtest-trace-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) abort();
    ::close(fd);
    mPath = path;
    property_set(kMarkerFileProperty, mPath.c_str());
    property_set(kTagsProperty, std::to_string(tags).c_str());
    atrace_update_tags();
}

TraceCapture::~TraceCapture() {
    property_set(kMarkerFileProperty, mOldFile.c_str());
    property_set(kTagsProperty, mOldTags.c_str());
    atrace_update_tags();
    unlink(mPath.c_str());
}

std::vector<std::string> TraceCapture::lines() const {
    return readLines(mPath);
}

std::vector<std::string> TraceCapture::events() const {
    std::string const pid = "|" + std::to_string(getpid());
    std::vector<std::string> result;
    for (auto& line : lines()) {
        std::string event = line;
        if (event.size() >= 2 && event.compare(1, pid.size(), pid) == 0 &&
            (event.size() == 1 + pid.size() || event[1 + pid.size()] == '|')) {
            event.erase(1, pid.size());
        }
        result.push_back(event);
    }
    return result;
}

void TraceCapture::clear() {
    if (truncate(mPath.c_str(), 0) != 0) abort();
}

// --- Properties --------------------------------------------------------------------------------

ScopedProperty::ScopedProperty(std::string key, std::string const& value)
    : mKey(std::move(key)), mOld(getProperty(mKey.c_str())) {
    property_set(mKey.c_str(), value.c_str());
}

ScopedProperty::~ScopedProperty() {
    property_set(mKey.c_str(), mOld.c_str());
}

PropertiesFile::PropertiesFile(std::map<std::string, std::string> const& values) {
    char path[] = "/tmp/korvtest-props-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) abort();
    ::close(fd);
    mPath = path;
    std::ofstream out(mPath);
    for (auto& [key, value] : values) out << key << '=' << value << '\n';
}

PropertiesFile::~PropertiesFile() {
    unlink(mPath.c_str());
}

// --- Child processes ---------------------------------------------------------------------------

namespace {

// Reads both pipes to their end and reaps `pid`, killing it when `timeout` passes first.
ChildResult collect(pid_t pid, int outFd, int errFd, std::chrono::milliseconds timeout) {
    ChildResult result;
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    bool killed = false;
    while (open > 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            if (!killed) {
                kill(pid, SIGKILL);
                killed = true;
                result.timedOut = true;
            }
            left = std::chrono::milliseconds(100);
        }
        int n = poll(fds, 2, static_cast<int>(left.count()));
        if (n < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buffer[4096];
            ssize_t got = read(fds[i].fd, buffer, sizeof(buffer));
            if (got > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(got));
            } else if (got == 0 || errno != EINTR) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (auto& fd : fds) {
        if (fd.fd >= 0) ::close(fd.fd);
    }
    int status = 0;
    while (true) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) break;
        if (done < 0 && errno != EINTR) return result;
        if (!killed && std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            killed = true;
            result.timedOut = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (WIFEXITED(status)) {
        result.exited = true;
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

std::string selfPath() {
    char path[4096] = {};
    ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) abort();
    return std::string(path, static_cast<size_t>(n));
}

}  // namespace

ChildResult runChild(std::vector<std::string> const& argv,
                     std::vector<std::pair<std::string, std::string>> const& env,
                     std::chrono::milliseconds timeout) {
    // Everything the child needs is built before fork(): the child only calls async-signal-safe
    // functions.
    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry = *e;
        bool replaced = false;
        for (auto& [key, value] : env) {
            replaced = replaced || entry.compare(0, key.size() + 1, key + "=") == 0;
        }
        if (!replaced) environment.push_back(entry);
    }
    for (auto& [key, value] : env) environment.push_back(key + "=" + value);
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> argp;
    for (auto& arg : args) argp.push_back(arg.data());
    argp.push_back(nullptr);

    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0) abort();
    if (pipe2(err, O_CLOEXEC) != 0) abort();
    pid_t pid = fork();
    if (pid < 0) abort();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        execve(argp[0], argp.data(), envp.data());
        _exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    return collect(pid, out[0], err[0], timeout);
}

ChildResult runSelfChild(std::string const& testName,
                         std::map<std::string, std::string> const& properties,
                         std::vector<std::pair<std::string, std::string>> const& env,
                         std::chrono::milliseconds timeout) {
    // The child always gets a properties file of its own, so that it never sees the parent's.
    PropertiesFile file(properties);
    auto environment = env;
    environment.emplace_back("QRVCAM_PROPERTIES", file.path());
    return runChild({selfPath(), "--gtest_filter=" + testName, "--gtest_also_run_disabled_tests"},
                    environment, timeout);
}

ChildResult runInChild(std::function<void()> const& body, std::chrono::milliseconds timeout) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0) abort();
    if (pipe2(err, O_CLOEXEC) != 0) abort();
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) abort();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        body();
        fflush(stdout);
        fflush(stderr);
        _exit(0);
    }
    ::close(out[1]);
    ::close(err[1]);
    return collect(pid, out[0], err[0], timeout);
}

// --- Descriptors and waiting -------------------------------------------------------------------

std::set<int> openFds() {
    std::set<int> fds;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return fds;
    int const own = dirfd(dir);
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        int fd = atoi(entry->d_name);
        if (fd != own) fds.insert(fd);
    }
    closedir(dir);
    return fds;
}

bool waitFor(std::function<bool()> const& condition, std::chrono::milliseconds limit) {
    auto const deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::vector<std::string> readLines(std::string const& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TempDir::TempDir() {
    char path[] = "/tmp/korvtest-dir-XXXXXX";
    if (mkdtemp(path) == nullptr) abort();
    mPath = path;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

namespace {
struct EveryDigitGrouped : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\1"; }
};
}  // namespace

ScopedGroupingLocale::ScopedGroupingLocale()
    : mOld(std::locale::global(std::locale(std::locale::classic(), new EveryDigitGrouped))) {}

ScopedGroupingLocale::~ScopedGroupingLocale() {
    std::locale::global(mOld);
}

EventFdObserver::EventFdObserver() : fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (fd < 0) abort();
}

EventFdObserver::~EventFdObserver() {
    close(fd);
}

void EventFdObserver::onEvent(OnEvent const& event) {
    uint64_t value = 0;
    if (read(fd, &value, sizeof(value)) == sizeof(value)) received += value;
    last = event;
    calls++;
    if (hook) hook(event);  // last: it may destroy this observer
}

void EventFdObserver::signal(uint64_t value) {
    sent += value;
    if (write(fd, &value, sizeof(value)) != sizeof(value)) abort();
}

}  // namespace korvtest
