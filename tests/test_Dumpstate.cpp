// State dump through its exported entry points: targets, prefixes, back-trace flags, failed
// flushes and the bounded wait.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvalite/Korv_Dumpstate.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>

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

class DumpstateTest : public ::testing::Test {
protected:
    void SetUp() override {
        mThreads = korvtest::threadCount();
        korv_dumpstate_set_dumpstate_callback(producer);
        gCalls = 0;
    }
    void TearDown() override {
        gGate = true;
        // Detached workers have ended, not merely finished their dump. At most the baseline:
        // under qemu-user a joined thread can still be listed when the baseline is taken.
        EXPECT_TRUE(korvtest::waitFor([&] { return korvtest::threadCount() <= mThreads; },
                                      std::chrono::seconds(120)));
        korv_dumpstate_set_dumpstate_callback(nullptr);
        EXPECT_TRUE(takeDumpFiles().empty()) << "dump files left unchecked";
    }

    korvtest::ScopedSwitches mSwitches{1, 3};
    korvtest::AndroidLogCapture mLog;
    size_t mThreads = 0;
};

// The log is a fallback only where the file comes first or alone by default.
TEST_F(DumpstateTest, TargetsChooseLogAndFileInOrder) {
    // target, its property (or unset), a regular file in place of the folder ('f') or of its
    // parent ('p': no path at all), then what is dumped in order (l: to the log, f: to a file)
    std::tuple<int32_t, char const*, char, char const*> const cases[] = {
            {-2, nullptr, '-', "lf"}, {-1, nullptr, '-', "fl"}, {1, nullptr, '-', "f"},
            {2, nullptr, '-', "l"},   {0, nullptr, '-', "fl"},  {0, "0", '-', "f"},
            {0, "2", '-', "l"},       {5, nullptr, '-', "f"},   {0, "0", 'p', "l"},
            {5, nullptr, 'f', "l"},   {1, nullptr, 'p', ""},    {-2, nullptr, 'f', "l"}};
    for (auto const& [target, value, broken, dumps] : cases) {
        SCOPED_TRACE(testing::Message() << "target " << target << ", " << broken << dumps);
        std::optional<korvtest::ScopedProperty> property;
        if (value != nullptr) {
            property.emplace("persist.vendor.camera.korvalite.dumpKorvaliteMgr", value);
        }
        gCalls = 0;
        mLog.clear();
        std::string const away = broken == 'f' ? gFolder : gParent;
        if (broken != '-') {
            fs::rename(away, away + ".away");
            std::ofstream{away};
        }
        dump("t", "n", -1, target);
        if (broken != '-') {
            fs::remove(away);
            fs::rename(away + ".away", away);
        }
        Lines log;
        std::vector<Lines> files;
        for (int i = 0; dumps[i] != '\0'; ++i) {
            std::string const state = "n state " + std::to_string(i);
            if (dumps[i] == 'l') log.push_back(state);
            if (dumps[i] == 'f') files.push_back({state});
        }
        EXPECT_EQ(mLog.texts("t"), log);
        EXPECT_EQ(takeDumpFiles(), files);
        EXPECT_EQ(mLog.count("korvalite-File", "Not a directory"), broken == 'f' ? 1u : 0u);
        EXPECT_EQ(mLog.texts("korvalite"), Lines{});
    }
}

// A null name prints as "[Unknown]" on the calling thread, but as nothing before the blank on the
// worker; a null tag is the library's own on either. The log keeps blank lines.
TEST_F(DumpstateTest, NamelessPrefixDependsOnWhereTheDumpRuns) {
    mSwitches.details(4);
    korv_dumpstate_callback_t const blank = [](IPrinter* printer) { printer->printLine(""); };
    korv_dumpstate_set_dumpstate_callback(blank);
    std::string const registered = "[DECKEY][korv_dumpstate_set_dumpstate_callback] " +
                                   korvtest::addr(reinterpret_cast<void*>(blank));
    dump(nullptr, nullptr, -1, -1);
    dump(nullptr, nullptr, 60000, -1);
    EXPECT_EQ(takeDumpFiles(), (std::vector<Lines>{{"[Unknown] "}, {" "}}));
    EXPECT_EQ(mLog.texts("korvalite"), (Lines{registered, "[Unknown]  ", "  "}));
}

// Bit 0 adds the process's back-trace to a file dump, framed, and bit 1 to a log dump, each after
// the producer's state (the file comes first); bit 2 is not read.
TEST_F(DumpstateTest, FlagsAddTheBacktraceToFileOrLog) {
    for (uint32_t flags : {5u, 2u}) {
        gCalls = 0;
        mLog.clear();
        dump("bt", "n", -1, -1, flags);
        std::vector<Lines> files = takeDumpFiles();
        Lines log = mLog.texts("bt");
        ASSERT_EQ(files.size(), 1u);
        bool const inFile = (flags & 1) != 0;
        Lines& traced = inFile ? files[0] : log;
        ASSERT_GT(traced.size(), inFile ? 3u : 1u) << flags;  // a thread at least
        if (inFile) {                                         // only the file frames it
            EXPECT_EQ(traced[1], "n dump process backtrace begin");
            EXPECT_EQ(traced.back(), "n dump process backtrace end");
        }
        traced.resize(1);
        EXPECT_EQ(files, std::vector<Lines>{{"n state 0"}});
        EXPECT_EQ(log, Lines{"n state 1"});
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
    EXPECT_TRUE(korvtest::waitFor([&] { return mLog.texts("w") == Lines{"c state 0"}; },
                                  std::chrono::seconds(60)));
}

}  // namespace
