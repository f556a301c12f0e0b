// Dump folder, dump file names, free-space reservation and new dump files.
//
// The folder and the free-space settings are read once per process, so each case runs
// DumpFileChild.DISABLED_PrintPath in a child with its own properties and checks from here.

#include <ctype.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <korvalite/Korv_File.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support/KorvTest.h"

namespace {

namespace fs = std::filesystem;
using NSCam::NSKorvalite::openNewFile;

constexpr char kFolderKey[] = "persist.vendor.camera.korvalite.dumpfile.folder";
constexpr char kFreeSpaceKey[] = "persist.vendor.camera.korvalite.dumpfile.freespace";
constexpr char kPolicyKey[] = "persist.vendor.camera.korvalite.dumpfile.freepolicy";
constexpr char kDefaultFolder[] = "/data/vendor/tovrix_dump";
constexpr char kAlwaysReserve[] = "9223372036854775807";

// Prints the path it is given, with its own pid as "<pid>" and every other digit of the name as 9.
TEST(DumpFileChild, DISABLED_PrintPath) {
    std::string path = NSCam::NSKorvalite::getDumpFilepathAndReserveSpace();
    std::string const pid = std::to_string(getpid());
    size_t const name = path.rfind('/') + 1;
    if (path.find("_" + pid + "_", name) != std::string::npos) {
        path.replace(path.find("_" + pid + "_", name) + 1, pid.size(), "<pid>");
    }
    std::replace_if(
            path.begin() + name, path.end(), [](char c) { return isdigit(c) != 0; }, '9');
    printf("PATH=%s\n", path.c_str());
}

struct ChildPath {
    std::string path;
    std::string log;  // the child's standard error, where its log records go
};

ChildPath dumpPathInChild(std::map<std::string, std::string> const& properties) {
    korvtest::ChildResult child =
            korvtest::runSelfChild("DumpFileChild.DISABLED_PrintPath", properties);
    size_t const at = child.out.find("PATH=");
    EXPECT_NE(std::string::npos, at) << child.out << child.err;
    if (at == std::string::npos) return {};
    return {child.out.substr(at + 5, child.out.find('\n', at) - at - 5), child.err};
}

std::string dumpName(std::string const& folder) {
    return folder + "/korvalite_<pid>_9999_9999_999999_999999.txt";
}

void setAge(std::string const& path, int age) {
    timespec const times[2] = {{1000000 + age * 100, 0}, {1000000 + age * 100, 0}};
    EXPECT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0)) << path;
}

// A regular file of `size` bytes (sparse) whose times are `age` steps after a fixed past time.
void makeFile(std::string const& path, int age, off_t size = 1) {
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0644);
    EXPECT_EQ(0, ftruncate(fd, size)) << path;
    close(fd);
    setAge(path, age);
}

// Entries of `folder` and of its subfolder "sub".
std::set<std::string> entries(std::string const& folder) {
    std::set<std::string> names;
    for (auto const& entry : fs::recursive_directory_iterator(folder)) {
        names.insert(entry.path().lexically_relative(folder).string());
    }
    return names;
}

TEST(DumpFolderTest, NamesFilesInTheConfiguredFolderElseTheDefaultElseNone) {
    // Whatever the test creates of the default folder and its parents goes again.
    char const* const chain[] = {"/data", "/data/vendor", kDefaultFolder};
    bool const existed[] = {fs::exists(chain[0]), fs::exists(chain[1]), fs::exists(chain[2])};
    korvtest::TempDir dir;
    std::string const folder = dir.path() + "/a/b";
    EXPECT_EQ(dumpName(folder),
              dumpPathInChild({{kFolderKey, folder}, {kFreeSpaceKey, "-1"}}).path);
    EXPECT_EQ(std::set<std::string>{}, entries(folder)) << "only the name is handed out";

    makeFile(dir.path() + "/file", 0);
    for (std::string const& configured : {std::string(), dir.path() + "/file/sub"}) {
        EXPECT_EQ(dumpName(kDefaultFolder),
                  dumpPathInChild({{kFolderKey, configured}, {kFreeSpaceKey, "-1"}}).path);
    }
    if (!existed[2]) {  // an existing default folder is left alone
        // A regular file where the default folder would go makes it unusable.
        remove(kDefaultFolder);
        makeFile(kDefaultFolder, 0);
        EXPECT_EQ("", dumpPathInChild({{kFolderKey, dir.path() + "/file/sub"}}).path);
    }
    for (int i = 3; i-- > 0;) {
        if (!existed[i]) remove(chain[i]);
    }
}

std::string nameOfAge(int age) {
    return std::string("f") + "hcaegdbf"[age];
}

TEST(ReservationTest, DeletesAtMostTheOldestShareOfRegularFilesUntilEnoughIsFree) {
    std::tuple<int, char const*, int> const cases[] = {
            // files, keep policy, deleted
            {8, "75", 2}, {3, "75", 0},  {8, "100", 0},
            {8, "0", 8},  {8, "150", 2}, {8, "-5", 2}};  // out of range: the default 75
    for (auto const& [files, policy, deleted] : cases) {
        SCOPED_TRACE(testing::Message() << files << " files, policy " << policy);
        // Files named out of age order, so that only the times can give it, beside a
        // subfolder older than all of them with an old file inside.
        korvtest::TempDir dir;
        fs::create_directory(dir.path() + "/sub");
        makeFile(dir.path() + "/sub/old", -10);
        setAge(dir.path() + "/sub", -10);
        std::set<std::string> expected = {"sub", "sub/old"};
        for (int age = 0; age < files; ++age) {
            makeFile(dir.path() + "/" + nameOfAge(age), age);
            if (age >= deleted) expected.insert(nameOfAge(age));
        }
        ChildPath child = dumpPathInChild(
                {{kFolderKey, dir.path()}, {kFreeSpaceKey, kAlwaysReserve}, {kPolicyKey, policy}});
        EXPECT_EQ(dumpName(dir.path()), child.path);
        EXPECT_EQ(expected, entries(dir.path()));
        std::string const warning = "[getDumpFilepathAndReserveSpace] " + std::string(kPolicyKey) +
                                    "=" + policy + " is outside 0..100, using 75";
        bool const outside = atoi(policy) < 0 || atoi(policy) > 100;
        EXPECT_EQ(outside, child.log.find(warning) != std::string::npos) << child.log;
    }

    // Required: 1 GiB more than is free now, so the reservation runs whatever others write
    // meanwhile; a sparse file of 1 TiB passes it on paper without using any disk.
    korvtest::TempDir dir;
    struct statvfs vfs {};
    ASSERT_EQ(statvfs(dir.path().c_str(), &vfs), 0);
    uint64_t const required = uint64_t{vfs.f_bsize} * vfs.f_bfree + (UINT64_C(1) << 30);
    makeFile(dir.path() + "/small", 0);
    makeFile(dir.path() + "/sparse", 1, static_cast<off_t>(UINT64_C(1) << 40));
    makeFile(dir.path() + "/newer", 2);
    dumpPathInChild({{kFolderKey, dir.path()},
                     {kFreeSpaceKey, std::to_string(required)},
                     {kPolicyKey, "0"}});
    EXPECT_EQ(entries(dir.path()), std::set<std::string>{"newer"});
}

TEST(OpenNewFileTest, TruncatesAndSetsModeAndGroupOrWarns) {
    korvtest::TempDir dir;
    std::string const path = dir.path() + "/dump.txt";
    makeFile(path, 0, 100);
    mode_t const oldMask = umask(077);  // the mode must not depend on the caller's umask
    std::shared_ptr<FILE> file = openNewFile(path.c_str());
    umask(oldMask);
    ASSERT_TRUE(file);
    fputs("new\n", file.get());
    file.reset();
    EXPECT_EQ(korvtest::readLines(path), std::vector<std::string>{"new"});
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0664u);
    group const* system = getgrnam("system");
    EXPECT_EQ(st.st_gid, system != nullptr ? system->gr_gid : getgid());

    korvtest::AndroidLogCapture log;
    korvtest::ScopedSwitches switches;
    switches.mode(1).details(2);
    EXPECT_FALSE(openNewFile(nullptr));
    EXPECT_FALSE(openNewFile((dir.path() + "/missing/dump.txt").c_str()));
    EXPECT_EQ(log.texts("korvalite-File"),
              std::vector<std::string>{"[openNewFile] Failed: fopen(" + dir.path() +
                                       "/missing/dump.txt), err:2(No such file or directory)"});
}

}  // namespace
