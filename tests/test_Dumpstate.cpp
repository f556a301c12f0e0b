// State dump: targets, prefixes, back-trace flags, the bounded wait and concurrent dumps.

#include <dirent.h>
#include <gtest/gtest.h>
#include <korvalite/Korv_Dumpstate.h>
#include <korvalite/Korv_File.h>
#include <qrvcam/ulog/ULog.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

namespace {

using NSCam::IPrinter;
using NSCam::NSKorvalite::korv_dumpstate_params;
using NSCam::NSKorvalite::korv_dumpstate_set_dumpstate_callback;
using Lines = std::vector<std::string>;

constexpr char kTargetKey[] = "persist.vendor.camera.korvalite.dumpKorvaliteMgr";

std::string gFolder;  // the dump folder of this process, fixed by DumpFolderEnvironment

// The dump folder and the free-space settings are read once per process: every file dump of this
// executable goes into one temporary folder, chosen before the first test, and never reserves.
class DumpFolderEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        mDir.emplace();
        mFolder.emplace("persist.vendor.camera.korvalite.dumpfile.folder", mDir->path());
        mFreeSpace.emplace("persist.vendor.camera.korvalite.dumpfile.freespace", "-1");
        gFolder = mDir->path();
        NSCam::NSKorvalite::getDumpFilepathAndReserveSpace();
        // Tests wait for detached workers by counting threads; runtimes that start a helper
        // thread along with the first thread of the process (ThreadSanitizer) must do so now.
        std::thread([] {}).join();
    }
    void TearDown() override {
        mFreeSpace.reset();
        mFolder.reset();
        mDir.reset();
    }

private:
    std::optional<korvtest::TempDir> mDir;
    std::optional<korvtest::ScopedProperty> mFolder;
    std::optional<korvtest::ScopedProperty> mFreeSpace;
};

[[maybe_unused]] ::testing::Environment* const gEnvironment =
        ::testing::AddGlobalTestEnvironment(new DumpFolderEnvironment);

// What the dump callbacks saw. Callbacks are plain function pointers, hence a global; each test
// starts with a fresh one.
struct Observed {
    std::mutex mutex;
    std::condition_variable changed;
    // All guarded by mutex.
    Lines kinds;  // "log" or "file" per call, in call order
    std::vector<std::thread::id> threads;
    bool gateOpen = true;
    int lines = 0;  // lines each gatedProducer call prints
};
std::unique_ptr<Observed> gObserved;

// Returns the call's index.
int record(IPrinter* printer) {
    bool const toLog = dynamic_cast<NSCam::Utils::ULog::ULogPrinter*>(printer) != nullptr;
    std::lock_guard<std::mutex> lock(gObserved->mutex);
    gObserved->kinds.push_back(toLog ? "log" : "file");
    gObserved->threads.push_back(std::this_thread::get_id());
    gObserved->changed.notify_all();
    return static_cast<int>(gObserved->kinds.size()) - 1;
}

void printState(IPrinter* printer) {
    record(printer);
    printer->printLine("state");
    printer->printFormatLine("count=%d", 7);
}

void printOther(IPrinter* printer) {
    record(printer);
    printer->printLine("other");
}

// Held at the gate, then prints its lines.
void gatedProducer(IPrinter* printer) {
    int const id = record(printer);
    int lines = 0;
    {
        std::unique_lock<std::mutex> lock(gObserved->mutex);
        // Bounded, so that a broken test fails instead of hanging the run.
        gObserved->changed.wait_for(lock, std::chrono::seconds(120),
                                    [] { return gObserved->gateOpen; });
        lines = gObserved->lines;
    }
    for (int line = 0; line < lines; ++line) {
        printer->printFormatLine("id=%d line=%d", id, line);
    }
}

void setGate(bool open) {
    std::lock_guard<std::mutex> lock(gObserved->mutex);
    gObserved->gateOpen = open;
    gObserved->changed.notify_all();
}

Lines kinds() {
    std::lock_guard<std::mutex> lock(gObserved->mutex);
    return gObserved->kinds;
}

void dump(char const* tag, char const* name, int32_t timeout, int32_t target, uint32_t flags = 0) {
    korv_dumpstate_params params{};
    params.tag = tag;
    params.name = name;
    params.timeout = timeout;
    params.target = target;
    params.flags = flags;
    korv_dumpstate(&params);
}

size_t threadCount() {
    size_t count = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
        closedir(dir);
    }
    return count;
}

// The lines of every dump file written so far, oldest name first; the files are removed.
std::vector<Lines> takeDumpFiles() {
    Lines names;
    if (DIR* dir = opendir(gFolder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') names.push_back(entry->d_name);
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    std::vector<Lines> files;
    for (std::string const& name : names) {
        files.push_back(korvtest::readLines(gFolder + "/" + name));
        unlink((gFolder + "/" + name).c_str());
    }
    return files;
}

// Whether `lines` hold the back-trace header line ("... sysTid=<tid>") of the calling thread.
bool holdsOwnThread(Lines const& lines) {
    std::string const suffix = " sysTid=" + std::to_string(gettid());
    return std::any_of(lines.begin(), lines.end(), [&](std::string const& line) {
        return line.size() >= suffix.size() &&
               line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0;
    });
}

// While it lives no descriptor can be opened, so no dump file either.
class ScopedNoNewDescriptors {
public:
    ScopedNoNewDescriptors() {
        getrlimit(RLIMIT_NOFILE, &mOld);
        int const lowestFree = dup(STDERR_FILENO);
        close(lowestFree);
        rlimit limit = mOld;
        limit.rlim_cur = static_cast<rlim_t>(lowestFree);
        mActive = lowestFree >= 0 && setrlimit(RLIMIT_NOFILE, &limit) == 0;
    }
    ~ScopedNoNewDescriptors() {
        if (mActive) setrlimit(RLIMIT_NOFILE, &mOld);
    }
    bool active() const { return mActive; }

private:
    rlimit mOld{};
    bool mActive = false;
};

class DumpstateTest : public ::testing::Test {
protected:
    void SetUp() override {
        gObserved = std::make_unique<Observed>();
        mSwitches.mode(1).details(3);
        korv_dumpstate_set_dumpstate_callback(nullptr);
        mThreads = threadCount();
        takeDumpFiles();
    }
    void TearDown() override {
        setGate(true);
        waitForWorkers();
        korv_dumpstate_set_dumpstate_callback(nullptr);
        EXPECT_TRUE(takeDumpFiles().empty()) << "dump files left unchecked";
    }
    // Detached workers have ended, not merely finished their dump.
    void waitForWorkers() {
        EXPECT_TRUE(korvtest::waitFor([&] { return threadCount() == mThreads; },
                                      std::chrono::seconds(120)));
    }

    korvtest::ScopedSwitches mSwitches;
    korvtest::AndroidLogCapture mLog;
    size_t mThreads = 0;
};

TEST_F(DumpstateTest, TargetsChooseLogAndFileInOrder) {
    struct Case {
        int32_t target;
        char const* property;  // kTargetKey, or unset
        bool noFiles;          // no file can be opened
        Lines kinds;
    };
    Case const cases[] = {
            {-2, nullptr, false, {"log", "file"}},
            {-1, nullptr, false, {"file", "log"}},
            {1, nullptr, false, {"file"}},
            {2, nullptr, false, {"log"}},
            {0, nullptr, false, {"file", "log"}},
            {0, "0", false, {"file"}},
            {0, "2", false, {"log"}},
            {5, nullptr, false, {"file"}},
            // The log is a fallback only where the file comes first or alone by default.
            {0, "0", true, {"log"}},
            {5, nullptr, true, {"log"}},
            {1, nullptr, true, {}},
            {-2, nullptr, true, {"log"}},
    };
    korv_dumpstate_set_dumpstate_callback(printState);
    Lines const state{"n state", "n count=7"};
    for (Case const& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "target " << c.target << " property " << (c.property ? c.property : "-")
                     << " noFiles " << c.noFiles);
        std::optional<korvtest::ScopedProperty> property;
        if (c.property != nullptr) property.emplace(kTargetKey, c.property);
        gObserved->kinds.clear();
        mLog.clear();
        {
            std::optional<ScopedNoNewDescriptors> noFiles;
            if (c.noFiles) {
                ASSERT_TRUE(noFiles.emplace().active());
            }
            dump("t", "n", -1, c.target);
        }

        EXPECT_EQ(kinds(), c.kinds);
        bool const toLog = std::count(c.kinds.begin(), c.kinds.end(), "log") != 0;
        bool const toFile = std::count(c.kinds.begin(), c.kinds.end(), "file") != 0;
        EXPECT_EQ(mLog.texts("t"), toLog ? state : Lines{});
        EXPECT_EQ(takeDumpFiles(), toFile ? std::vector<Lines>{state} : std::vector<Lines>{});
        EXPECT_EQ(mLog.count("korvalite-File", "err:24(Too many open files)"), c.noFiles ? 1u : 0u);
    }
}

TEST_F(DumpstateTest, NamelessPrefixDependsOnWhereTheDumpRuns) {
    korv_dumpstate_set_dumpstate_callback(printState);

    // On the calling thread a null name prints as "[Unknown]", for both targets.
    dump("t", nullptr, -1, -1);
    Lines const unknown{"[Unknown] state", "[Unknown] count=7"};
    EXPECT_EQ(takeDumpFiles(), std::vector<Lines>{unknown});
    EXPECT_EQ(mLog.texts("t"), unknown);
    EXPECT_EQ(gObserved->threads.at(1), std::this_thread::get_id());

    // On the worker it prints as nothing before the blank.
    mLog.clear();
    dump("t", nullptr, 60000, -1);
    Lines const blank{" state", " count=7"};
    EXPECT_EQ(takeDumpFiles(), std::vector<Lines>{blank});
    EXPECT_EQ(mLog.texts("t"), blank);
    EXPECT_NE(gObserved->threads.at(2), std::this_thread::get_id());
    EXPECT_EQ(mLog.count("korvalite", "Not finished"), 0u);

    // A null tag is the library's own on either path.
    mLog.clear();
    dump(nullptr, "n", -1, 2);
    dump(nullptr, "w", 60000, 2);
    EXPECT_EQ(mLog.texts("korvalite"), (Lines{"n state", "n count=7", "w state", "w count=7"}));
}

TEST_F(DumpstateTest, FlagsAddTheBacktraceToFileLogOrBoth) {
    // No producer is registered: the back-trace is all a dump holds, and without it the file
    // stays empty.
    for (uint32_t flags = 0; flags < 4; ++flags) {
        SCOPED_TRACE(testing::Message() << "flags " << flags);
        mLog.clear();
        dump("bt", "n", -1, -1, flags);

        std::vector<Lines> files = takeDumpFiles();
        ASSERT_EQ(files.size(), 1u);
        if ((flags & 1) != 0) {
            ASSERT_GE(files[0].size(), 3u);
            EXPECT_EQ(files[0].front(), "n dump process backtrace begin");
            EXPECT_EQ(files[0].back(), "n dump process backtrace end");
            EXPECT_TRUE(holdsOwnThread(files[0]));
        } else {
            EXPECT_EQ(files[0], Lines{});
        }
        Lines const log = mLog.texts("bt");
        EXPECT_EQ(holdsOwnThread(log), (flags & 2) != 0);
        EXPECT_EQ(log.empty(), (flags & 2) == 0);
        EXPECT_EQ(std::count(log.begin(), log.end(), "n dump process backtrace begin"), 0);
    }

    korv_dumpstate_set_dumpstate_callback(printState);
    dump("bt", "n", -1, 1, 1);
    std::vector<Lines> files = takeDumpFiles();
    ASSERT_EQ(files.size(), 1u);
    ASSERT_GE(files[0].size(), 3u);
    EXPECT_EQ(Lines(files[0].begin(), files[0].begin() + 3),
              (Lines{"n state", "n count=7", "n dump process backtrace begin"}));
}

TEST_F(DumpstateTest, RegistrationReplacesAndClears) {
    korv_dumpstate_set_dumpstate_callback(printState);
    korv_dumpstate_set_dumpstate_callback(printOther);
    dump("r", "n", -1, 2);
    korv_dumpstate_set_dumpstate_callback(nullptr);
    dump("r", "n", -1, 2);
    EXPECT_EQ(mLog.texts("r"), Lines{"n other"});
    EXPECT_EQ(kinds().size(), 1u);
}

TEST_F(DumpstateTest, CallerWaitsNoLongerThanItsTimeout) {
    korv_dumpstate_set_dumpstate_callback(gatedProducer);
    gObserved->lines = 1;
    for (int32_t timeout : {0, 20}) {
        SCOPED_TRACE(testing::Message() << "timeout " << timeout);
        mLog.clear();
        setGate(false);
        {
            // The caller's record and strings go as soon as it returns: the worker has its own.
            auto name = std::make_unique<char[]>(8);
            strcpy(name.get(), "caller");
            dump("w", name.get(), timeout, 2);
            // Back here while the producer is still held at the gate.
            memset(name.get(), '#', 6);
        }
        EXPECT_EQ(mLog.texts("korvalite"),
                  Lines{"[korv_dumpstate] Not finished in " + std::to_string(timeout) + " ms"});
        setGate(true);
        waitForWorkers();
        EXPECT_EQ(mLog.texts("w"),
                  Lines{"caller id=" + std::to_string(kinds().size() - 1) + " line=0"});
    }
}

TEST_F(DumpstateTest, ConcurrentDumpsKeepTheirOwnFilesAndPrinters) {
    constexpr int kFileDumps = 8;
    constexpr int kLogDumps = 4;
    constexpr int kLines = 200;
    korv_dumpstate_set_dumpstate_callback(gatedProducer);
    gObserved->lines = kLines;
    setGate(false);

    // File dumps start one at a time only so that no two share a name (names have microsecond
    // resolution); held at the gate, they all print at once when it opens.
    for (size_t started = 1; started <= kFileDumps; ++started) {
        dump("s", "c", 0, 1);
        ASSERT_TRUE(korvtest::waitFor([&] { return kinds().size() == started; },
                                      std::chrono::seconds(60)));
        timespec then{};
        clock_gettime(CLOCK_REALTIME, &then);
        korvtest::waitFor([&] {
            timespec now{};
            clock_gettime(CLOCK_REALTIME, &now);
            return now.tv_sec != then.tv_sec || now.tv_nsec / 1000 != then.tv_nsec / 1000;
        });
    }
    std::vector<std::thread> clients;
    for (int i = 0; i < kLogDumps; ++i) {
        clients.emplace_back([] { dump("s-log", "c", 60000, 2); });
    }
    ASSERT_TRUE(korvtest::waitFor([&] { return kinds().size() == kFileDumps + kLogDumps; },
                                  std::chrono::seconds(60)));
    setGate(true);
    for (std::thread& client : clients) client.join();
    waitForWorkers();

    Lines const seen = kinds();
    auto expectedLines = [&](int id) {
        Lines lines;
        for (int line = 0; line < kLines; ++line) {
            lines.push_back("c id=" + std::to_string(id) + " line=" + std::to_string(line));
        }
        return lines;
    };
    std::vector<Lines> files = takeDumpFiles();
    ASSERT_EQ(files.size(), static_cast<size_t>(kFileDumps));
    for (int id = 0; id < kFileDumps; ++id) {
        EXPECT_EQ(seen[id], "file");
        EXPECT_EQ(files[id], expectedLines(id)) << "file " << id;
    }
    // Records of concurrent log dumps interleave; each dump's own stay whole and in order.
    std::map<int, Lines> logged;
    for (std::string const& text : mLog.texts("s-log")) {
        int id = -1;
        if (sscanf(text.c_str(), "c id=%d", &id) == 1) logged[id].push_back(text);
    }
    ASSERT_EQ(logged.size(), static_cast<size_t>(kLogDumps));
    for (auto const& [id, lines] : logged) {
        EXPECT_EQ(seen.at(id), "log");
        EXPECT_EQ(lines, expectedLines(id)) << "log dump " << id;
    }
}

}  // namespace
