// State dump: targets, prefixes, back-trace flags, the bounded wait and concurrent dumps.

#include <gtest/gtest.h>
#include <korvalite/Korv_Dumpstate.h>
#include <korvalite/Korv_File.h>
#include <qrvcam/ulog/ULog.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

namespace {

namespace fs = std::filesystem;
using NSCam::IPrinter;
using NSCam::NSKorvalite::korv_dumpstate_params;
using NSCam::NSKorvalite::korv_dumpstate_set_dumpstate_callback;
using Lines = std::vector<std::string>;

// The dump folder and the free-space settings are read once per process: every file dump of this
// executable goes into one temporary folder, set before the first dump, and never reserves.
korvtest::TempDir gDir;
std::string const gFolder = gDir.path();
korvtest::ScopedProperty gFolderProperty("persist.vendor.camera.korvalite.dumpfile.folder",
                                         gFolder);
korvtest::ScopedProperty gFreeSpace("persist.vendor.camera.korvalite.dumpfile.freespace", "-1");

// What the producer saw, and how it behaves. Callbacks are plain function pointers, hence a
// global, reset by each test.
struct Observed {
    std::mutex mutex;
    std::condition_variable changed;
    Lines kinds;  // "log" or "file" per call, in call order
    std::vector<std::thread::id> threads;
    bool gateOpen = true;
    int lines = 0;  // numbered lines each call prints after "state"
} gObserved;

// Prints "state", then, once the gate is open, its numbered lines.
void producer(IPrinter* printer) {
    bool const toLog = dynamic_cast<NSCam::Utils::ULog::ULogPrinter*>(printer) != nullptr;
    std::unique_lock<std::mutex> lock(gObserved.mutex);
    int const id = static_cast<int>(gObserved.kinds.size());
    gObserved.kinds.push_back(toLog ? "log" : "file");
    gObserved.threads.push_back(std::this_thread::get_id());
    gObserved.changed.notify_all();
    // Bounded, so that a broken test fails instead of hanging the run.
    gObserved.changed.wait_for(lock, std::chrono::seconds(120), [] { return gObserved.gateOpen; });
    int const lines = gObserved.lines;
    lock.unlock();
    printer->printLine("state");
    for (int line = 0; line < lines; ++line) printer->printFormatLine("id=%d line=%d", id, line);
}

void setGate(bool open) {
    std::lock_guard<std::mutex> lock(gObserved.mutex);
    gObserved.gateOpen = open;
    gObserved.changed.notify_all();
}

Lines kinds() {
    std::lock_guard<std::mutex> lock(gObserved.mutex);
    return gObserved.kinds;
}

void dump(char const* tag, char const* name, int32_t timeout, int32_t target, uint32_t flags = 0) {
    korv_dumpstate_params params{tag, name, timeout, target, flags, {}};
    korv_dumpstate(&params);
}

// The lines of every dump file written so far, oldest name first; the files are removed.
std::vector<Lines> takeDumpFiles() {
    std::vector<fs::path> paths(fs::directory_iterator(gFolder), fs::directory_iterator{});
    std::sort(paths.begin(), paths.end());
    std::vector<Lines> files;
    for (fs::path const& path : paths) {
        files.push_back(korvtest::readLines(path));
        fs::remove(path);
    }
    return files;
}

class DumpstateTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Tests wait for detached workers by counting threads; runtimes that start a helper
        // thread along with the first thread of the process (ThreadSanitizer) must do so now.
        std::thread([] {}).join();
        mThreads = std::distance(fs::directory_iterator("/proc/self/task"), {});
        mSwitches.mode(1).details(3);
        korv_dumpstate_set_dumpstate_callback(producer);
        std::lock_guard<std::mutex> lock(gObserved.mutex);
        gObserved.kinds.clear();
        gObserved.threads.clear();
        gObserved.lines = 0;
    }
    void TearDown() override {
        setGate(true);
        waitForWorkers();
        korv_dumpstate_set_dumpstate_callback(nullptr);
        EXPECT_TRUE(takeDumpFiles().empty()) << "dump files left unchecked";
    }
    // Detached workers have ended, not merely finished their dump. At most the baseline, not
    // exactly it: under qemu-user a joined thread can still be listed when the baseline is taken.
    void waitForWorkers() {
        auto threads = [] { return std::distance(fs::directory_iterator("/proc/self/task"), {}); };
        EXPECT_TRUE(korvtest::waitFor([&] { return threads() <= mThreads; },
                                      std::chrono::seconds(120)));
    }

    korvtest::ScopedSwitches mSwitches;
    korvtest::AndroidLogCapture mLog;
    long mThreads = 0;
};

TEST_F(DumpstateTest, TargetsChooseLogAndFileInOrder) {
    struct Case {
        int32_t target;
        char const* property;  // of the target, or unset
        bool noFiles;          // no file can be written
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
    for (Case const& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "target " << c.target << " property " << (c.property ? c.property : "-")
                     << " noFiles " << c.noFiles);
        std::optional<korvtest::ScopedProperty> property;
        if (c.property != nullptr) {
            property.emplace("persist.vendor.camera.korvalite.dumpKorvaliteMgr", c.property);
        }
        gObserved.kinds.clear();
        mLog.clear();
        if (c.noFiles) {  // a regular file in place of the dump folder
            fs::rename(gFolder, gFolder + ".away");
            std::ofstream{gFolder};
        }
        dump("t", "n", -1, c.target);
        if (c.noFiles) {
            fs::remove(gFolder);
            fs::rename(gFolder + ".away", gFolder);
        }

        EXPECT_EQ(kinds(), c.kinds);
        auto const times = [&](char const* kind) {
            return std::count(c.kinds.begin(), c.kinds.end(), kind);
        };
        EXPECT_EQ(mLog.texts("t"), Lines(times("log"), "n state"));
        EXPECT_EQ(takeDumpFiles(), std::vector<Lines>(times("file"), Lines{"n state"}));
        EXPECT_EQ(mLog.count("korvalite-File", "Not a directory"), c.noFiles ? 1u : 0u);
    }
}

// A null name prints as "[Unknown]" on the calling thread, but as nothing before the blank on
// the worker; a null tag is the library's own on either.
TEST_F(DumpstateTest, NamelessPrefixDependsOnWhereTheDumpRuns) {
    dump(nullptr, nullptr, -1, -1);
    dump(nullptr, nullptr, 60000, -1);
    EXPECT_EQ(takeDumpFiles(), (std::vector<Lines>{{"[Unknown] state"}, {" state"}}));
    EXPECT_EQ(mLog.texts("korvalite"), (Lines{"[Unknown] state", " state"}));
    ASSERT_EQ(gObserved.threads.size(), 4u);
    EXPECT_EQ(gObserved.threads[1], std::this_thread::get_id());
    EXPECT_NE(gObserved.threads[2], std::this_thread::get_id());
}

// Clearing the producer leaves dumps that hold only the optional back-trace.
TEST_F(DumpstateTest, FlagsAddTheBacktraceToFileLogOrBoth) {
    std::string const ownThread = " sysTid=" + std::to_string(gettid());
    auto holdsOwnThread = [&](Lines const& lines) {
        return std::any_of(lines.begin(), lines.end(), [&](std::string const& line) {
            return line.size() > ownThread.size() &&
                   line.compare(line.size() - ownThread.size(), ownThread.size(), ownThread) == 0;
        });
    };
    // Bit 2, which the library does not read, marks the dumps after clearing.
    for (uint32_t flags : {0u, 1u, 2u, 3u, 4u, 7u}) {
        SCOPED_TRACE(testing::Message() << "flags " << flags);
        if (flags == 4) korv_dumpstate_set_dumpstate_callback(nullptr);
        Lines const state = flags < 4 ? Lines{"n state"} : Lines{};
        mLog.clear();
        dump("bt", "n", -1, -1, flags);

        std::vector<Lines> files = takeDumpFiles();
        ASSERT_EQ(files.size(), 1u);
        Lines file = files[0];
        if ((flags & 1) != 0) {
            ASSERT_GE(file.size(), state.size() + 2);
            EXPECT_EQ(file[state.size()], "n dump process backtrace begin");
            EXPECT_EQ(file.back(), "n dump process backtrace end");
            EXPECT_TRUE(holdsOwnThread(file));
            file.resize(state.size());
        }
        EXPECT_EQ(file, state);
        Lines log = mLog.texts("bt");
        EXPECT_EQ(holdsOwnThread(log), (flags & 2) != 0);
        EXPECT_EQ(std::count(log.begin(), log.end(), "n dump process backtrace begin"), 0);
        if ((flags & 2) != 0) log.resize(std::min(log.size(), state.size()));
        EXPECT_EQ(log, state);
    }
}

TEST_F(DumpstateTest, CallerWaitsNoLongerThanItsTimeout) {
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
        EXPECT_EQ(mLog.texts("w"), Lines{"caller state"});
    }
}

TEST_F(DumpstateTest, ConcurrentDumpsKeepTheirOwnFilesAndPrinters) {
    constexpr size_t kDumps = 8;
    constexpr int kLines = 200;
    gObserved.lines = kLines;
    setGate(false);
    // Dumps start one at a time only so that no two share a name (names have microsecond
    // resolution); held at the gate, they all print at once when it opens.
    for (size_t started = 1; started <= kDumps; ++started) {
        dump("s", "c", 0, 1);
        ASSERT_TRUE(korvtest::waitFor([&] { return kinds().size() == started; },
                                      std::chrono::seconds(60)));
        std::this_thread::sleep_for(std::chrono::microseconds(2));
    }
    setGate(true);
    waitForWorkers();
    std::vector<Lines> files = takeDumpFiles();
    ASSERT_EQ(files.size(), kDumps);
    for (size_t id = 0; id < kDumps; ++id) {
        Lines expected{"c state"};
        for (int line = 0; line < kLines; ++line) {
            expected.push_back("c id=" + std::to_string(id) + " line=" + std::to_string(line));
        }
        EXPECT_EQ(files[id], expected) << "file " << id;
    }
}

}  // namespace
