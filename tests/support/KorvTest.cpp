#include "support/KorvTest.h"

#include <android/log.h>
#include <cutils/trace.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <qrvcam/Properties.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

extern char** environ;

namespace korvtest {

using NSCam::Utils::Properties::property_get;
using NSCam::Utils::Properties::property_set;

namespace {

std::string getProperty(char const* key) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(key, value, "");
    return value;
}

}  // namespace

// --- Android log and ULog ------------------------------------------------------------------------

namespace {
// The one living capture; a record being added holds the lock, so the capture outlives it.
std::mutex gLogCaptureMutex;
AndroidLogCapture* gLogCapture = nullptr;
}  // namespace

// liblog holds its logger lock while a logger runs: this lock is never held while calling liblog.
AndroidLogCapture::AndroidLogCapture() {
    {
        std::lock_guard<std::mutex> lock(gLogCaptureMutex);
        gLogCapture = this;
    }
    __android_log_set_logger([](__android_logger_data const* data, char const* message) {
        std::lock_guard<std::mutex> lock(gLogCaptureMutex);
        if (gLogCapture == nullptr) return;
        gLogCapture->add({data->priority, data->tag ? data->tag : "", message ? message : ""});
    });
    mOldMinimum = __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

AndroidLogCapture::~AndroidLogCapture() {
    __android_log_set_logger(__android_log_stderr_logger);
    __android_log_set_minimum_priority(mOldMinimum);
    std::lock_guard<std::mutex> lock(gLogCaptureMutex);
    gLogCapture = nullptr;
}

// --- Trace ---------------------------------------------------------------------------------------

TraceCapture::TraceCapture(uint64_t tags)
    : mMarkerFile("debug.atrace.marker_file", mFile.path()),
      mTags("debug.atrace.tags.enableflags", std::to_string(tags)) {
    atrace_update_tags();
}

TraceCapture::Reread::~Reread() {
    atrace_update_tags();
}

std::vector<std::string> traceEvents(std::string const& path) {
    static std::regex const kLine(
            R"(.*\((\d+)\) \[\d+\] .{4} [\d.]+: tracing_mark_write: (.)\|(\d+)(.*))");
    std::vector<std::string> events;
    for (auto& line : readLines(path)) {
        std::smatch m;
        if (line[0] == '#') continue;
        if (!std::regex_match(line, m, kLine)) {
            events.push_back(line);  // kept whole, for the assertion to show
        } else {
            events.push_back(m.str(2) + (m[1] == m[3] ? "" : "|" + m.str(3)) + m.str(4));
        }
    }
    return events;
}

void TraceCapture::clear() {
    if (truncate(path().c_str(), 0) != 0) abort();
}

// --- Properties and files ------------------------------------------------------------------------

ScopedProperty::ScopedProperty(std::string key, std::string const& value)
    : mKey(std::move(key)), mOld(getProperty(mKey.c_str())) {
    property_set(mKey.c_str(), value.c_str());
}

ScopedProperty::~ScopedProperty() {
    property_set(mKey.c_str(), mOld.c_str());
}

TempFile::TempFile(std::string pattern) : mPath(std::move(pattern)) {
    int fd = mkstemp(mPath.data());
    if (fd < 0) abort();
    ::close(fd);
}

TempFile::~TempFile() {
    unlink(mPath.c_str());
}

// --- Child processes -----------------------------------------------------------------------------

namespace {

std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    ssize_t got;
    for (off_t at = 0; (got = pread(fd, buffer, sizeof(buffer), at)) > 0; at += got) {
        text.append(buffer, static_cast<size_t>(got));
    }
    ::close(fd);
    return text;
}

std::string selfPath() {
    char path[4096] = {};
    ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) abort();
    return std::string(path, static_cast<size_t>(n));
}

}  // namespace

// The child's standard output and error go to files, so that a child that writes much never
// blocks on a full pipe.
ChildResult runInChild(std::function<void()> const& body, std::chrono::milliseconds timeout) {
    int const out = memfd_create("korvtest-out", MFD_CLOEXEC);
    int const err = memfd_create("korvtest-err", MFD_CLOEXEC);
    if (out < 0 || err < 0) abort();
    fflush(stdout);
    fflush(stderr);
    pid_t const pid = fork();
    if (pid < 0) abort();
    if (pid == 0) {
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        body();
        fflush(stdout);
        fflush(stderr);
        _exit(0);
    }
    ChildResult result;
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    pid_t done;
    while ((done = waitpid(pid, &status, WNOHANG)) == 0 || (done < 0 && errno == EINTR)) {
        if (std::chrono::steady_clock::now() > deadline) kill(pid, SIGKILL);  // ends as SIGKILL
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    result.exited = done == pid && WIFEXITED(status);
    result.exitCode = result.exited ? WEXITSTATUS(status) : -1;
    result.signal = done == pid && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.out = readAll(out);
    result.err = readAll(err);
    return result;
}

ChildResult runSelfChild(std::string const& testName,
                         std::map<std::string, std::string> const& properties) {
    TempFile const file("/tmp/korvtest-props-XXXXXX");
    {
        std::ofstream out(file.path());
        for (auto& [key, value] : properties) out << key << '=' << value << '\n';
    }
    // Everything the child needs is built before fork(): the child only calls async-signal-safe
    // functions. The properties variable comes first, as getenv() takes the first.
    std::vector<std::string> args = {selfPath(), "--gtest_filter=" + testName,
                                     "--gtest_also_run_disabled_tests"};
    std::vector<std::string> environment = {"QRVCAM_PROPERTIES=" + file.path()};
    for (char** e = environ; *e != nullptr; ++e) environment.push_back(*e);
    std::vector<char*> argp, envp;
    for (auto& arg : args) argp.push_back(arg.data());
    for (auto& entry : environment) envp.push_back(entry.data());
    argp.push_back(nullptr);
    envp.push_back(nullptr);
    ChildResult child = runInChild([&] {
        execve(argp[0], argp.data(), envp.data());
        _exit(127);
    });
    EXPECT_TRUE(child.exited && child.exitCode == 0) << testName << "\n" << child.out << child.err;
    return child;
}

// --- Descriptors and waiting ---------------------------------------------------------------------

std::set<int> openFds() {
    std::set<int> fds;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        fds.insert(std::stoi(entry.path().filename().string()));
    }
    // The listing's own descriptor is closed by now.
    for (auto fd = fds.begin(); fd != fds.end();)
        fd = fcntl(*fd, F_GETFD) < 0 ? fds.erase(fd) : ++fd;
    return fds;
}

size_t threadCount() {
    [[maybe_unused]] static bool const warmedUp = (std::thread([] {}).join(), true);
    return static_cast<size_t>(
            std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

std::string addr(void const* pointer) {
    char text[32];
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
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

TempDir::TempDir() : mPath("/tmp/korvtest-dir-XXXXXX") {
    if (mkdtemp(mPath.data()) == nullptr) abort();
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

EventFdObserver::EventFdObserver() : fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (fd < 0) abort();
}

EventFdObserver::~EventFdObserver() {
    close(fd);
}

void EventFdObserver::onEvent(OnEvent const& event) {
    uint64_t value = 0;
    if (read(fd, &value, sizeof(value)) == sizeof(value)) received += value;
    calls++;
    if (hook) hook(event);  // last: it may destroy this observer
}

void EventFdObserver::signal(uint64_t value) {
    sent += value;
    if (write(fd, &value, sizeof(value)) != sizeof(value)) abort();
}

}  // namespace korvtest
