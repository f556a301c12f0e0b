// Dump folder, dump file names and free-space reservation.

#define LOG_TAG "korvalite-File"
#define KORV_SOURCE_PATH "src/utils/sys/Korv_File"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <korvalite/Korv_File.h>
#include <qrvcam/Properties.h>
#include <qrvcam/Utils.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "KorvDump.h"
#include "KorvLog.h"

namespace NSCam {
namespace NSKorvalite {

namespace {

using NSCam::Utils::Properties::property_get;
using NSCam::Utils::Properties::property_get_int32;
using NSCam::Utils::Properties::property_get_int64;

constexpr char kFolderProperty[] = "persist.vendor.camera.korvalite.dumpfile.folder";
constexpr char kFreeSpaceProperty[] = "persist.vendor.camera.korvalite.dumpfile.freespace";
constexpr char kFreePolicyProperty[] = "persist.vendor.camera.korvalite.dumpfile.freepolicy";

constexpr unsigned int kFolderMode = 0770;
constexpr mode_t kFileMode = 0664;
constexpr char kFileGroup[] = "system";
constexpr int64_t kDefaultFreeSpace = 0x6400000;  // 100 MiB
constexpr int32_t kDefaultKeepPercent = 75;

// The default folders, tried in order when the property names none that can be made. Constant
// data, never destroyed: a detached dump worker may still look here while the process exits.
constexpr char const* kCandidateFolders[] = {"/data/vendor/tovrix_dump"};

struct FreeSpaceSettings {
    int64_t required;      // bytes that must be free, strictly exceeded
    uint32_t keepPercent;  // share of the folder's files a reservation leaves in place, 0..100
};

FreeSpaceSettings readFreeSpaceSettings() {
    FreeSpaceSettings settings{};
    settings.required = property_get_int64(kFreeSpaceProperty, kDefaultFreeSpace);
    int32_t policy = property_get_int32(kFreePolicyProperty, kDefaultKeepPercent);
    // Outside 0..100 the share to delete, (100 - policy), would wrap in the unsigned arithmetic
    // below and could clear the whole folder; such a value is a typo, not a wish.
    if (policy < 0 || policy > 100) {
        KORV_LOGW("[%s] %s=%d is outside 0..100, using %d", "getDumpFilepathAndReserveSpace",
                  kFreePolicyProperty, policy, kDefaultKeepPercent);
        policy = kDefaultKeepPercent;
    }
    settings.keepPercent = static_cast<uint32_t>(policy);
    return settings;
}

// Read once per process, on the first reservation check; property changes need a restart.
FreeSpaceSettings const& freeSpaceSettings() {
    static FreeSpaceSettings const settings = readFreeSpaceSettings();
    return settings;
}

struct FileInfo {
    std::string path;
    int64_t size;   // st_size in bytes
    int64_t mtime;  // whole seconds of st_mtim
};

// "<folder>/korvalite_<pid>_YYYY_MMDD_HHMMSS_uuuuuu.txt", or empty when the clock or its
// formatting fails.
std::string makeDumpFileName(std::string const& folder) {
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) return {};
    tm local{};
    if (localtime_r(&now.tv_sec, &local) == nullptr) return {};
    char stamp[32] = {};
    if (strftime(stamp, sizeof(stamp), "%Y_%m%d_%H%M%S", &local) == 0) return {};
    // The microseconds go straight behind the 16 characters of a four-digit year's stamp.
    constexpr size_t kTimeLength = 16;
    if (snprintf(stamp + kTimeLength, sizeof(stamp) - kTimeLength, "_%06lu",
                 static_cast<unsigned long>(now.tv_nsec / 1000)) < 1) {
        return {};
    }
    return folder + "/korvalite_" + std::to_string(getpid()) + "_" + stamp + ".txt";
}

// Deletes the oldest regular files of `folder`, at most (100 - keep policy) percent of them, until
// the free space exceeds the requirement. Takes no lock: two dumps may reserve at once, and an
// entry the other one already removed just fails to unlink.
void reserveSpace(std::string const& folder, int64_t freeSpace, FreeSpaceSettings const& settings) {
    KORV_LOGD("[DECKEY][%s] freespace(%ld) <= %ld", "reserveSpace", static_cast<long>(freeSpace),
              static_cast<long>(settings.required));

    DIR* dir = opendir((folder + "/").c_str());
    if (dir == nullptr) return;

    std::vector<std::unique_ptr<FileInfo>> files;
    while (dirent* entry = readdir(dir)) {
        std::string path = folder + "/" + entry->d_name;
        struct stat st {};
        // lstat: a link is no file of the folder. Deleting it would free nothing, and what it
        // points to is not ours to delete. Only regular files qualify, so subfolders (and
        // everything in them), "." and ".." are never touched either.
        if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        files.push_back(std::make_unique<FileInfo>(
                FileInfo{std::move(path), static_cast<int64_t>(st.st_size),
                         static_cast<int64_t>(st.st_mtim.tv_sec)}));
    }
    std::sort(files.begin(), files.end(),
              [](auto const& a, auto const& b) { return a->mtime < b->mtime; });

    uint64_t const total = files.size();
    uint64_t const count = std::min<uint64_t>(total, total * (100 - settings.keepPercent) / 100);
    for (uint64_t i = 0; i < count; ++i) {
        FileInfo const& file = *files[i];
        if (unlink(file.path.c_str()) != 0) continue;  // still uses up one of the count
        KORV_LOGD("[DECKEY][%s] Unlinked(%s): %s Bytes", "reserveSpace", file.path.c_str(),
                  std::to_string(file.size).c_str());
        freeSpace += file.size;
        if (freeSpace > settings.required) break;
    }
    closedir(dir);
}

// A shared holder always runs its deleter, even for a null stream, and glibc's fclose(NULL)
// crashes; the null check keeps "wrap first, test afterwards" safe.
void closeStream(FILE* stream) {
    if (stream != nullptr) fclose(stream);
}

}  // namespace

std::string getAndMakeFolderPath() {
    // The name "operator()" in the message is the one log scanners know this step by.
    auto tryMakePath = [](char const* folder) {
        if (!NSCam::Utils::makePath(folder, kFolderMode)) return false;
        KORV_LOGD("[DECKEY][%s] Success: tryMakePath(%s)", "operator()", folder);
        return true;
    };

    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kFolderProperty, value, "");
    if (value[0] != '\0' && tryMakePath(value)) return value;

    for (char const* candidate : kCandidateFolders) {
        if (tryMakePath(candidate)) return candidate;
    }
    return {};
}

namespace {

// The process's dump folder, chosen on first use, then kept even when empty: a dump must not go
// looking for folders while the system is already in trouble. Never destroyed: a detached dump
// worker (one whose caller stopped waiting) may still be reading it while exit runs the static
// destructors.
std::string const& dumpFolder() {
    alignas(std::string) static unsigned char storage[sizeof(std::string)];
    static std::string const* const folder = new (storage) std::string(getAndMakeFolderPath());
    return *folder;
}

}  // namespace

std::string getDumpFilepathAndReserveSpace() {
    std::string const& folder = dumpFolder();
    if (folder.empty()) return {};

    // A folder deleted since it was chosen is made again.
    struct statvfs fs {};
    if (statvfs(folder.c_str(), &fs) != 0) {
        if (!NSCam::Utils::makePath(folder.c_str(), kFolderMode) ||
            statvfs(folder.c_str(), &fs) != 0) {
            return {};
        }
        KORV_LOGD("[DECKEY][%s] Success: tryMakePath(%s)", "getDumpFilepathAndReserveSpace",
                  folder.c_str());
    }

    // An empty name still goes through the reservation below, deliberately: the space is
    // wanted by the next dump either way.
    std::string const name = makeDumpFileName(folder);

    // f_bfree, which includes the superuser's reserve, is what the requirement is set against.
    uint64_t const blockSize = fs.f_bsize;
    uint64_t const freeBlocks = fs.f_bfree;
    uint64_t const freeBytes = blockSize * freeBlocks;
    KORV_LOGD("[DECKEY][%s] Try to dump file(%s). freespace=%s*%s(%s)",
              "getDumpFilepathAndReserveSpace", name.c_str(), std::to_string(blockSize).c_str(),
              std::to_string(freeBlocks).c_str(), std::to_string(freeBytes).c_str());

    FreeSpaceSettings const& settings = freeSpaceSettings();
    auto const freeSpace = static_cast<int64_t>(freeBytes);
    if (freeSpace > settings.required) return name;

    reserveSpace(folder, freeSpace, settings);
    return name;
}

std::shared_ptr<FILE> openNewFile(char const* path) {
    if (path == nullptr) return nullptr;

    // The folder is group-writable and names are predictable: a link planted under the next name
    // must not make us truncate, re-mode or re-own what it points to, so links are refused and
    // mode and group are set on the descriptor, never by path. Close-on-exec: a concurrent fork
    // and exec must not inherit the file.
    int const fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kFileMode);
    FILE* raw = fd < 0 ? nullptr : fdopen(fd, "w");
    int const openErrno = errno;
    if (raw == nullptr && fd >= 0) close(fd);
    std::shared_ptr<FILE> file(raw, closeStream);
    if (!file) {
        KORV_LOGW("[%s] Failed: fopen(%s), err:%d(%s)", "openNewFile", path, openErrno,
                  strerror(openErrno));
        return nullptr;
    }

    // Explicit mode: the one given to open is masked by the caller's umask, and readers of dump
    // files (the system group's tools) need group read.
    int const result = fchmod(fd, kFileMode);
    if (result < 0) {
        int const chmodErrno = errno;
        KORV_LOGW("[%s] chmod returns %d err:%d(%s)", "openNewFile", result, chmodErrno,
                  strerror(chmodErrno));
    }

    // Best effort: without the group the file is still the owner's, so nothing is reported.
    long bufferSize = sysconf(_SC_GETGR_R_SIZE_MAX);
    if (bufferSize < 1) bufferSize = 1024;
    std::vector<char> buffer(static_cast<size_t>(bufferSize), '\0');
    group entry{};
    group* found = nullptr;
    if (getgrnam_r(kFileGroup, &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr) {
        int const ignored = fchown(fd, static_cast<uid_t>(-1), found->gr_gid);
        (void)ignored;
    }
    return file;
}

}  // namespace NSKorvalite
}  // namespace NSCam
