// State dump through its exported entry points: targets, prefixes, back-trace flags, failed
// flushes and the bounded wait. Concurrent dumps are in test_Reliability's stress tests.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvalite/Korv_Dumpstate.h>
#include <qrvcam/ulog/ULog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>

#include "support/KorvTest.h"

namespace {

namespace fs = std::filesystem;
using NSCam::IPrinter;
using NSCam::NSKorvalite::korv_dumpstate_callback_t;
using NSCam::NSKorvalite::korv_dumpstate_set_dumpstate_callback;
using Lines = std::vector<std::string>;

// The dump folder and the free-space settings are read once per process: every file dump of this
// executable goes into one folder, set before the first dump, and never reserves.
korvtest::TempDir gDir;
std::string const gParent = gDir.path() + "/d";
std::string const gFolder = gParent + "/dumps";
korvtest::ScopedProperty gFolderProperty("persist.vendor.camera.korvalite.dumpfile.folder",
                                         gFolder);
korvtest::ScopedProperty gFreeSpace("persist.vendor.camera.korvalite.dumpfile.freespace", "-1");

// Callbacks are plain function pointers: how the producer behaves lives here.
std::atomic<int> gCalls{0};     // producer calls since the last reset; each prints its number
std::atomic<bool> gGate{true};  // the producer prints once it is open

void producer(IPrinter* printer) {
    int const id = gCalls++;
    korvtest::waitFor([] { return gGate.load(); }, std::chrono::seconds(120));
    printer->printFormatLine("state %d", id);
}

void dump(char const* tag, char const* name, int32_t timeout, int32_t target, uint32_t flags = 0) {
    NSCam::NSKorvalite::korv_dumpstate_params params{tag, name, timeout, target, flags, {}};
    korv_dumpstate(&params);
}

// The lines of every dump file written so far, oldest name first; the files are removed.
std::vector<Lines> takeDumpFiles() {
    std::error_code none;  // no folder yet: no files
    std::set<fs::path> const paths(fs::directory_iterator(gFolder, none), fs::directory_iterator{});
    std::vector<Lines> files;
    for (fs::path const& path : paths) {
        files.push_back(korvtest::readLines(path));
        fs::remove(path);
    }
    return files;
}

long threadCount() {
    return std::distance(fs::directory_iterator("/proc/self/task"), {});
}

class DumpstateTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Runtimes that start a helper thread with the process's first thread (ThreadSanitizer)
        // must do so before the baseline is taken.
        std::thread([] {}).join();
        mThreads = threadCount();
        mSwitches.mode(1).details(3);
        korv_dumpstate_set_dumpstate_callback(producer);
        gCalls = 0;
    }
    void TearDown() override {
        gGate = true;
        // Detached workers have ended, not merely finished their dump. At most the baseline:
        // under qemu-user a joined thread can still be listed when the baseline is taken.
        EXPECT_TRUE(korvtest::waitFor([&] { return threadCount() <= mThreads; },
                                      std::chrono::seconds(120)));
        korv_dumpstate_set_dumpstate_callback(nullptr);
        EXPECT_TRUE(takeDumpFiles().empty()) << "dump files left unchecked";
    }

    korvtest::ScopedSwitches mSwitches;
    korvtest::AndroidLogCapture mLog;
    long mThreads = 0;
};

// The log is a fallback only where the file comes first or alone by default.
TEST_F(DumpstateTest, TargetsChooseLogAndFileInOrder) {
    enum Broken { kNothing, kFolder, kParent };  // a regular file there: no file opens / no path
    struct Case {
        int32_t target;
        char const* property;  // of the target, or unset
        Broken broken;
        char const* dumps;  // l: to the log, f: to a file, in order
    } const cases[] = {{-2, nullptr, kNothing, "lf"}, {-1, nullptr, kNothing, "fl"},
                       {1, nullptr, kNothing, "f"},   {2, nullptr, kNothing, "l"},
                       {0, nullptr, kNothing, "fl"},  {0, "0", kNothing, "f"},
                       {0, "2", kNothing, "l"},       {5, nullptr, kNothing, "f"},
                       {0, "0", kParent, "l"},        {5, nullptr, kFolder, "l"},
                       {1, nullptr, kParent, ""},     {-2, nullptr, kFolder, "l"}};
    for (Case const& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        std::optional<korvtest::ScopedProperty> property;
        if (c.property != nullptr) {
            property.emplace("persist.vendor.camera.korvalite.dumpKorvaliteMgr", c.property);
        }
        gCalls = 0;
        mLog.clear();
        std::string const broken = c.broken == kFolder ? gFolder : gParent;
        if (c.broken != kNothing) {
            fs::rename(broken, broken + ".away");
            std::ofstream{broken};
        }
        dump("t", "n", -1, c.target);
        if (c.broken != kNothing) {
            fs::remove(broken);
            fs::rename(broken + ".away", broken);
        }
        Lines log;
        std::vector<Lines> files;
        for (int i = 0; c.dumps[i] != '\0'; ++i) {
            std::string const state = "n state " + std::to_string(i);
            if (c.dumps[i] == 'l') log.push_back(state);
            if (c.dumps[i] == 'f') files.push_back({state});
        }
        EXPECT_EQ(mLog.texts("t"), log);
        EXPECT_EQ(takeDumpFiles(), files);
        EXPECT_EQ(mLog.count("korvalite-File", "Not a directory"), c.broken == kFolder ? 1u : 0u);
        EXPECT_EQ(mLog.texts("korvalite"), Lines{});
    }
}

// A null name prints as "[Unknown]" on the calling thread, but as nothing before the blank on the
// worker; a null tag is the library's own on either. The log keeps blank lines.
TEST_F(DumpstateTest, NamelessPrefixDependsOnWhereTheDumpRuns) {
    mSwitches.details(4);
    korv_dumpstate_callback_t const blank = [](IPrinter* printer) { printer->printLine(""); };
    korv_dumpstate_set_dumpstate_callback(blank);
    char registered[96];
    snprintf(registered, sizeof(registered), "[DECKEY][%s] %p",
             "korv_dumpstate_set_dumpstate_callback", reinterpret_cast<void*>(blank));
    dump(nullptr, nullptr, -1, -1);
    dump(nullptr, nullptr, 60000, -1);
    EXPECT_EQ(takeDumpFiles(), (std::vector<Lines>{{"[Unknown] "}, {" "}}));
    EXPECT_EQ(mLog.texts("korvalite"), (Lines{registered, "[Unknown]  ", "  "}));
}

// Bit 0 adds the process's back-trace to a file dump, framed, and bit 1 to a log dump; without a
// producer a dump holds only that.
TEST_F(DumpstateTest, FlagsAddTheBacktraceToFileOrLog) {
    for (uint32_t flags : {1u, 2u, 7u}) {  // bit 2 is not read
        SCOPED_TRACE(testing::Message() << "flags " << flags);
        if (flags == 7) korv_dumpstate_set_dumpstate_callback(nullptr);
        Lines const state = flags == 7 ? Lines{} : Lines{"n state 0"};  // the file comes first
        Lines const logState = flags == 7 ? Lines{} : Lines{"n state 1"};
        gCalls = 0;
        mLog.clear();
        dump("bt", "n", -1, -1, flags);
        std::vector<Lines> files = takeDumpFiles();
        ASSERT_EQ(files.size(), 1u);
        Lines file = files[0];
        if ((flags & 1) != 0) {
            ASSERT_GT(file.size(), state.size() + 2);  // a thread at least
            EXPECT_EQ(file[state.size()], "n dump process backtrace begin");
            EXPECT_EQ(file.back(), "n dump process backtrace end");
            file.resize(state.size());
        }
        EXPECT_EQ(file, state);
        Lines const log = mLog.texts("bt");
        EXPECT_EQ(Lines(log.begin(), log.begin() + std::min(log.size(), state.size())), logState);
        EXPECT_EQ(log.size() > state.size(), (flags & 2) != 0);
        EXPECT_EQ(mLog.texts("korvalite"), Lines{});
    }
}

// Points the dump file's descriptor at /dev/full: every later flush of the stream fails.
void fillUp(IPrinter* printer) {
    printer->printLine("lost");
    int const full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    for (auto const& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code notALink;
        if (fs::read_symlink(entry, notALink).parent_path() != gFolder) continue;
        EXPECT_GE(dup2(full, std::stoi(entry.path().filename().string())), 0);
    }
    close(full);
}

TEST_F(DumpstateTest, FailedFlushesAreReportedAndTheDumpGoesOn) {
    korv_dumpstate_set_dumpstate_callback(fillUp);
    dump("f", "n", -1, 1, 1);
    EXPECT_EQ(takeDumpFiles(), std::vector<Lines>{Lines{}});
    EXPECT_EQ(mLog.texts("korvalite"), (Lines{"[korv_dumpstate_to_file] fflush after dumpstate",
                                              "[korv_dumpstate_to_file] fflush after bt"}));
}

// The caller is back, with its warning, while its producer is held; the worker has its own copy
// of the record.
TEST_F(DumpstateTest, CallerWaitsNoLongerThanItsTimeout) {
    gGate = false;
    auto name = std::make_unique<char[]>(2);
    name[0] = 'c';
    dump("w", name.get(), 0, 2);
    name.reset();
    EXPECT_EQ(mLog.texts("korvalite"), Lines{"[korv_dumpstate] Not finished in 0 ms"});
    gGate = true;
    EXPECT_TRUE(
            korvtest::waitFor([&] { return threadCount() <= mThreads; }, std::chrono::seconds(60)));
    EXPECT_EQ(mLog.texts("w"), Lines{"c state 0"});
}

}  // namespace
