// Dump folder, dump file names, free-space reservation and new dump files.
//
// The folder and the free-space settings are read once per process, so each case runs a child
// test below with its own properties and checks from here.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <korvalite/Korv_File.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>

#include "support/KorvTest.h"

namespace {

namespace fs = std::filesystem;
using NSCam::NSKorvalite::openNewFile;
using testing::HasSubstr;
using testing::ContainsRegex;
using Lines = std::vector<std::string>;

constexpr char kFolderKey[] = "persist.vendor.camera.korvalite.dumpfile.folder";
constexpr char kFreeSpaceKey[] = "persist.vendor.camera.korvalite.dumpfile.freespace";
constexpr char kPolicyKey[] = "persist.vendor.camera.korvalite.dumpfile.freepolicy";
constexpr char kDetailsKey[] = "debug.qrvcam.ulog.detailslevel";  // "4": debug lines too
constexpr char kDefaultFolder[] = "/data/vendor/tovrix_dump";

// Prints the next dump path, marked when the call left a descriptor open.
std::string printPath() {
    size_t const fds = korvtest::openFds().size();
    std::string const path = NSCam::NSKorvalite::getDumpFilepathAndReserveSpace();
    printf("PATH=%s%s\n", path.c_str(), korvtest::openFds().size() == fds ? "" : " (leak)");
    return path;
}

TEST(DumpFileChild, DISABLED_PrintPath) {
    printPath();
}

// Asks again at exit, after the static destructors registered since then have run (a detached
// dump worker may still be asking then), with the folder removed in between.
TEST(DumpFileChild, DISABLED_PrintPathAgainAtExit) {
    atexit([] { printPath(); });
    fs::remove(fs::path(printPath()).parent_path());
}

// Its standard output, then its standard error, where its log records go.
std::string runChild(std::map<std::string, std::string> const& properties,
                     std::string const& test = "PrintPath") {
    korvtest::ChildResult child =
            korvtest::runSelfChild("DumpFileChild.DISABLED_" + test, properties);
    return child.out + child.err;
}

// A printed dump file name in `folder`: process id, local date and time, microseconds.
std::string dumpName(std::string const& folder) {
    return "PATH=" + folder + "/korvalite_[0-9]+_20[0-9]{2}_[0-9]{4}_[0-9]{6}_[0-9]{6}\\.txt\n";
}

// A regular file of `size` bytes (sparse) whose times are `age` steps after a fixed past time.
void makeFile(std::string const& path, int age, off_t size = 1) {
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0644);
    EXPECT_EQ(0, ftruncate(fd, size)) << path;
    close(fd);
    timespec const times[2] = {{1000000 + age * 100, 0}, {1000000 + age * 100, 0}};
    EXPECT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0)) << path;
}

// Entries of `folder` and of its subfolders.
std::set<std::string> entries(std::string const& folder) {
    std::set<std::string> names;
    for (auto const& entry : fs::recursive_directory_iterator(folder)) {
        names.insert(entry.path().lexically_relative(folder).string());
    }
    return names;
}

TEST(DumpFolderTest, ConfiguredFolderElseTheDefaultElseNone) {
    // Whatever the test creates of the default folder and its parents goes again.
    char const* const chain[] = {"/data", "/data/vendor", kDefaultFolder};
    bool const existed[] = {fs::exists(chain[0]), fs::exists(chain[1]), fs::exists(chain[2])};
    korvtest::TempDir dir;
    std::string const folder = dir.path() + "/a/b";
    std::string const child = runChild(
            {{kFolderKey, folder}, {kFreeSpaceKey, "-1"}, {kDetailsKey, "4"}}, "PrintPathAgainAtExit");
    EXPECT_THAT(child, ContainsRegex("(" + dumpName(folder) + "(.|\n)*){2}"));
    for (char const* step : {"operator()", "getDumpFilepathAndReserveSpace"}) {
        EXPECT_THAT(child, HasSubstr(std::string("[DECKEY][") + step +
                                         "] Success: tryMakePath(" + folder + ")"));
    }
    mode_t const mask = umask(0);
    umask(mask);
    EXPECT_EQ(fs::status(folder).permissions(), fs::perms(0770 & ~mask));
    EXPECT_EQ(entries(folder), std::set<std::string>{}) << "only the name is handed out";

    makeFile(dir.path() + "/file", 0);
    for (std::string const& configured : {std::string(), dir.path() + "/file/sub"}) {
        EXPECT_THAT(runChild({{kFolderKey, configured}, {kFreeSpaceKey, "-1"}}),
                    ContainsRegex(dumpName(kDefaultFolder)));
    }
    for (int i = 3; i-- > 0;) {
        if (!existed[i]) remove(chain[i]);
    }
}

std::string nameOfAge(int age) {
    return std::string("f") + "hcaegdbf"[age];
}

TEST(ReservationTest, DeletesAtMostTheOldestShareOfRegularFiles) {
    std::tuple<int, char const*, int> const cases[] = {
            // files, keep policy, deleted
            {8, "75", 2}, {8, "88", 0}, {8, "100", 0}, {8, "0", 8}, {8, "101", 2}, {3, "-5", 0}};
    for (auto const& [files, policy, deleted] : cases) {
        SCOPED_TRACE(testing::Message() << files << " files, policy " << policy);
        // Files named out of age order, so that only the times can give it.
        korvtest::TempDir dir;
        std::set<std::string> expected;
        for (int age = 0; age < files; ++age) {
            makeFile(dir.path() + "/" + nameOfAge(age), age);
            if (age >= deleted) expected.insert(nameOfAge(age));
        }
        std::string const child = runChild({{kFolderKey, dir.path()},
                                {kFreeSpaceKey, "9223372036854775807"},
                                {kPolicyKey, policy},
                                {kDetailsKey, "4"}});
        EXPECT_EQ(expected, entries(dir.path()));
        for (int age = 0; age < deleted; ++age) {
            EXPECT_THAT(child, HasSubstr("[DECKEY][reserveSpace] Unlinked(" + dir.path() + "/" +
                                             nameOfAge(age) + "): 1 Bytes"));
        }
        std::string const warning = "[getDumpFilepathAndReserveSpace] " + std::string(kPolicyKey) +
                                    "=" + policy + " is outside 0..100, using 75";
        bool const outside = atoi(policy) < 0 || atoi(policy) > 100;
        EXPECT_EQ(outside, child.find(warning) != std::string::npos) << child;
    }
}

TEST(ReservationTest, StopsOnceEnoughIsFreeAndNeverCountsLinks) {
    // Required: 1 GiB more than is free now, so the reservation runs whatever others write
    // meanwhile; a sparse file of 1 TiB passes it on paper without using any disk. A link to
    // another one, older than all, is no file of the folder: it frees nothing and stays.
    korvtest::TempDir dir;
    korvtest::TempDir elsewhere;
    struct statvfs vfs {};
    ASSERT_EQ(statvfs(dir.path().c_str(), &vfs), 0);
    uint64_t const required = uint64_t{vfs.f_bsize} * vfs.f_bfree + (UINT64_C(1) << 30);
    makeFile(elsewhere.path() + "/huge", -1, static_cast<off_t>(UINT64_C(1) << 40));
    ASSERT_EQ(0, symlink((elsewhere.path() + "/huge").c_str(), (dir.path() + "/link").c_str()));
    makeFile(dir.path() + "/small", 0);
    makeFile(dir.path() + "/sparse", 1, static_cast<off_t>(UINT64_C(1) << 40));
    makeFile(dir.path() + "/newer", 2);
    runChild({{kFolderKey, dir.path()},
              {kFreeSpaceKey, std::to_string(required)},
              {kPolicyKey, "0"}});
    EXPECT_EQ(entries(dir.path()), (std::set<std::string>{"link", "newer"}));
    EXPECT_EQ(entries(elsewhere.path()), std::set<std::string>{"huge"});
}

// /proc has no free block at all: its free space is exactly 0.
TEST(ReservationTest, RunsUnlessMoreThanRequiredIsFree) {
    struct statvfs vfs {};
    ASSERT_EQ(statvfs("/proc/self", &vfs), 0);
    for (auto const& [required, reserve] : std::map<std::string, std::string>{
                 {"-1", ""},
                 {"0", "[DECKEY][reserveSpace] freespace(0) <= 0"},
                 {"", "[DECKEY][reserveSpace] freespace(0) <= 104857600"}}) {
        std::string const child = runChild({{kFolderKey, "/proc/self"},
                                {kFreeSpaceKey, required},
                                {kPolicyKey, "100"},
                                {kDetailsKey, "4"}});
        EXPECT_THAT(child, ContainsRegex(dumpName("/proc/self")));
        EXPECT_THAT(child, HasSubstr("[DECKEY][getDumpFilepathAndReserveSpace] Try to dump "
                                     "file(/proc/self/korvalite_"));
        EXPECT_THAT(child, HasSubstr("). freespace=" + std::to_string(vfs.f_bsize) + "*0(0)"));
        EXPECT_EQ(child.find("[reserveSpace]") != std::string::npos, !reserve.empty());
        EXPECT_THAT(child, HasSubstr(reserve + "\n"));
    }
}

TEST(OpenNewFileTest, CreatesWithModeAndGroupRefusesLinksAndWarns) {
    korvtest::TempDir dir;
    std::string const path = dir.path() + "/dump.txt";
    makeFile(path, 0, 100);
    korvtest::AndroidLogCapture log;
    korvtest::ScopedSwitches switches(1, 2);
    mode_t const oldMask = umask(077);  // the mode must not depend on the caller's umask
    std::shared_ptr<FILE> file = openNewFile(path.c_str());
    umask(oldMask);
    ASSERT_TRUE(file);
    EXPECT_EQ(fcntl(fileno(file.get()), F_GETFD), FD_CLOEXEC);
    fputs("new\n", file.get());
    file.reset();
    EXPECT_EQ(korvtest::readLines(path), Lines{"new"});
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0664u);
    group const* system = getgrnam("system");
    EXPECT_EQ(st.st_gid, system != nullptr ? system->gr_gid : getgid());

    // A link planted under the name is refused: what it points to keeps its content and mode.
    ASSERT_EQ(0, chmod(path.c_str(), 0600));
    std::string const link = dir.path() + "/link";
    ASSERT_EQ(0, symlink(path.c_str(), link.c_str()));
    EXPECT_FALSE(openNewFile(link.c_str()));
    EXPECT_TRUE(openNewFile("/proc/self/comm"));  // procfs refuses any change of mode, also to root
    EXPECT_EQ(log.texts("korvalite-File"),
              (Lines{"[openNewFile] Failed: fopen(" + link +
                             "), err:40(Too many levels of symbolic links)",
                     "[openNewFile] chmod returns -1 err:1(Operation not permitted)"}));
    EXPECT_EQ(korvtest::readLines(path), Lines{"new"});
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_FALSE(openNewFile(nullptr));
}

}  // namespace
