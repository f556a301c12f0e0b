// Dump folder, dump file names, free-space reservation and new dump files.
//
// The folder and the free-space settings are read once per process, so each case runs
// DumpFileChild.DISABLED_PrintPath in a child with its own properties and checks from here.

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <korvalite/Korv_File.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/KorvTest.h"

namespace {

using NSCam::NSKorvalite::openNewFile;

constexpr char kFolderKey[] = "persist.vendor.camera.korvalite.dumpfile.folder";
constexpr char kFreeSpaceKey[] = "persist.vendor.camera.korvalite.dumpfile.freespace";
constexpr char kPolicyKey[] = "persist.vendor.camera.korvalite.dumpfile.freepolicy";
constexpr char kDefaultFolder[] = "/data/vendor/tovrix_dump";
constexpr char kNeverReserve[] = "-1";
constexpr char kAlwaysReserve[] = "9223372036854775807";

TEST(DumpFileChild, DISABLED_PrintPath) {
    std::string const path = NSCam::NSKorvalite::getDumpFilepathAndReserveSpace();
    printf("PID=%d\nPATH=%s\n", getpid(), path.c_str());
    fflush(stdout);
}

struct ChildPath {
    std::string pid;
    std::string path;
    std::string log;  // the child's standard error, where its log records go
};

ChildPath dumpPathInChild(std::map<std::string, std::string> const& properties) {
    korvtest::ChildResult result =
            korvtest::runSelfChild("DumpFileChild.DISABLED_PrintPath", properties);
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.out << result.err;
    std::string const out = "\n" + result.out;
    auto valueOf = [&](std::string const& key) {
        size_t start = out.find("\n" + key + "=");
        if (start == std::string::npos) return std::string();
        start += key.size() + 2;
        return out.substr(start, out.find('\n', start) - start);
    };
    return {valueOf("PID"), valueOf("PATH"), result.err};
}

// Whether `child` named "<folder>/korvalite_<its pid>_YYYY_MMDD_HHMMSS_uuuuuu.txt".
bool isDumpName(ChildPath const& child, std::string const& folder) {
    std::string const head = folder + "/korvalite_" + child.pid + "_";
    std::string const shape = "9999_9999_999999_999999.txt";  // 9: any digit
    std::string const& path = child.path;
    if (child.pid.empty() || path.size() != head.size() + shape.size() ||
        path.compare(0, head.size(), head) != 0) {
        return false;
    }
    for (size_t i = 0; i < shape.size(); ++i) {
        char const c = path[head.size() + i];
        if (shape[i] == '9' ? !isdigit(static_cast<unsigned char>(c)) : c != shape[i]) {
            return false;
        }
    }
    return true;
}

bool exists(std::string const& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

// Sets the times of `path` to `age` steps after a fixed past time.
void setAge(std::string const& path, int age) {
    timespec const times[2] = {{1000000 + age * 100, 0}, {1000000 + age * 100, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << strerror(errno);
}

// A regular file of `size` bytes (sparse) of the given age.
void makeFile(std::string const& path, int age, off_t size = 1) {
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
    int const truncated = ftruncate(fd, size);
    int const truncateErrno = errno;
    ASSERT_EQ(close(fd), 0);
    ASSERT_EQ(truncated, 0) << strerror(truncateErrno);
    setAge(path, age);
}

// Entries of `folder`, and "sub/old" while that exists.
std::set<std::string> entries(std::string const& folder) {
    std::set<std::string> names;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') names.insert(entry->d_name);
        }
        closedir(dir);
    }
    if (exists(folder + "/sub/old")) names.insert("sub/old");
    return names;
}

// Whatever a test created of "/data", "/data/vendor" and the default folder goes again,
// innermost first.
class DefaultFolderGuard {
public:
    DefaultFolderGuard() {
        for (char const* path : kChain) mExisted.push_back(exists(path));
    }
    ~DefaultFolderGuard() {
        for (size_t i = 3; i-- > 0;) {
            if (!mExisted[i]) remove(kChain[i]);
        }
    }
    bool defaultFolderExisted() const { return mExisted.back(); }

private:
    static constexpr char const* kChain[3] = {"/data", "/data/vendor", kDefaultFolder};
    std::vector<bool> mExisted;
};

TEST(DumpFolderTest, NamesFilesInTheConfiguredFolderElseTheDefault) {
    DefaultFolderGuard guard;
    korvtest::TempDir dir;
    std::string const folder = dir.path() + "/a/b";
    ChildPath child = dumpPathInChild({{kFolderKey, folder}, {kFreeSpaceKey, kNeverReserve}});
    EXPECT_TRUE(isDumpName(child, folder)) << child.path;
    EXPECT_TRUE(exists(folder)) << "folder not made with its parents";
    EXPECT_FALSE(exists(child.path)) << "only the name is handed out";

    makeFile(dir.path() + "/file", 0);
    for (std::string const& configured : {std::string(), dir.path() + "/file/sub"}) {
        SCOPED_TRACE(configured);
        child = dumpPathInChild({{kFolderKey, configured}, {kFreeSpaceKey, kNeverReserve}});
        EXPECT_TRUE(isDumpName(child, kDefaultFolder)) << child.path;
    }
}

TEST(DumpFolderTest, NoPathWithoutAUsableFolder) {
    DefaultFolderGuard guard;
    if (guard.defaultFolderExisted()) GTEST_SKIP() << kDefaultFolder << " exists; left alone";
    // Regular files where the folders would go make them unusable.
    mkdir("/data", 0770);
    mkdir("/data/vendor", 0770);
    makeFile(kDefaultFolder, 0);
    korvtest::TempDir dir;
    makeFile(dir.path() + "/file", 0);

    EXPECT_EQ(dumpPathInChild({{kFolderKey, dir.path() + "/file/sub"}}).path, "");
}

std::string nameOfAge(int age) {
    return std::string("f") + "hcaegdbf"[age];
}

// Files "f<letter>" of ages 0 (oldest) to count - 1, named out of age order so that only the
// times can give it, beside a subfolder older than all of them with an old file inside.
std::set<std::string> makeFolder(std::string const& folder, int count) {
    EXPECT_EQ(mkdir((folder + "/sub").c_str(), 0770), 0);
    makeFile(folder + "/sub/old", -10);
    setAge(folder + "/sub", -10);
    std::set<std::string> names;
    for (int age = 0; age < count; ++age) {
        makeFile(folder + "/" + nameOfAge(age), age);
        names.insert(nameOfAge(age));
    }
    return names;
}

TEST(ReservationTest, DeletesAtMostTheOldestShareOfRegularFiles) {
    struct Case {
        int files;
        char const* policy;
        int deleted;
    };
    Case const cases[] = {
            {8, "75", 2},  {3, "75", 0},  // 3 * 25 / 100 rounds down to 0
            {8, "100", 0}, {8, "0", 8},
            {8, "150", 2}, {8, "-5", 2},  // out of range: the default 75
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(testing::Message() << c.files << " files, policy " << c.policy);
        korvtest::TempDir dir;
        std::set<std::string> expected = makeFolder(dir.path(), c.files);
        for (int age = 0; age < c.deleted; ++age) expected.erase(nameOfAge(age));
        expected.insert({"sub", "sub/old"});

        ChildPath child = dumpPathInChild({{kFolderKey, dir.path()},
                                           {kFreeSpaceKey, kAlwaysReserve},
                                           {kPolicyKey, c.policy}});
        EXPECT_TRUE(isDumpName(child, dir.path())) << child.path;
        EXPECT_EQ(entries(dir.path()), expected);
        int const policy = atoi(c.policy);
        std::string const warning = "[getDumpFilepathAndReserveSpace] " + std::string(kPolicyKey) +
                                    "=" + c.policy + " is outside 0..100, using 75";
        EXPECT_EQ(child.log.find(warning) != std::string::npos, policy < 0 || policy > 100)
                << child.log;
    }
}

TEST(ReservationTest, StopsAsSoonAsTheRequirementIsPassed) {
    korvtest::TempDir dir;
    struct statvfs fs {};
    ASSERT_EQ(statvfs(dir.path().c_str(), &fs), 0);
    // Required: 1 GiB more than is free now, so the reservation runs whatever others write
    // meanwhile; a sparse file of 1 TiB passes it on paper without using any disk.
    uint64_t const required = static_cast<uint64_t>(fs.f_bsize) * fs.f_bfree + (UINT64_C(1) << 30);
    makeFile(dir.path() + "/small", 0);
    makeFile(dir.path() + "/sparse", 1, static_cast<off_t>(UINT64_C(1) << 40));
    makeFile(dir.path() + "/newer", 2);
    makeFile(dir.path() + "/newest", 3);

    dumpPathInChild({{kFolderKey, dir.path()},
                     {kFreeSpaceKey, std::to_string(required)},
                     {kPolicyKey, "0"}});
    EXPECT_EQ(entries(dir.path()), (std::set<std::string>{"newer", "newest"}));
}

TEST(OpenNewFileTest, TruncatesAndSetsModeAndGroup) {
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
    if (group const* system = getgrnam("system")) {
        EXPECT_EQ(st.st_gid, system->gr_gid);
    }
}

TEST(OpenNewFileTest, FailureWarnsAndGivesNoStream) {
    korvtest::AndroidLogCapture log;
    korvtest::ScopedSwitches switches;
    switches.mode(1).details(2);
    korvtest::TempDir dir;
    std::string const path = dir.path() + "/missing/dump.txt";

    EXPECT_FALSE(openNewFile(nullptr));
    EXPECT_FALSE(openNewFile(path.c_str()));
    EXPECT_EQ(log.texts("korvalite-File"),
              std::vector<std::string>{"[openNewFile] Failed: fopen(" + path +
                                       "), err:2(No such file or directory)"});
}

}  // namespace
