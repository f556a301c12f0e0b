// Dump folder, dump file names and free-space reservation.
#pragma once

#include <stdio.h>

#include <memory>
#include <string>

namespace NSCam {
namespace NSKorvalite {

// Returns a path "<folder>/korvalite_<pid>_YYYY_MMDD_HHMMSS_uuuuuu.txt" for a new dump file,
// after deleting the oldest regular files of the folder when the file system has no more free
// space than required: at most (100 - keep policy) percent of them, and no more than it takes.
// A keep policy outside 0..100 is ignored (with a warning) in favour of 75. The folder and the
// settings are read once per process. Empty: write no file. The file itself is not created.
// May block on the file system; any thread.
[[gnu::visibility("default")]] std::string getDumpFilepathAndReserveSpace();

// Creates (truncating) `path` for writing with mode 0664 and group "system" where it exists,
// close-on-exec. A symbolic link under `path` is refused, not followed. The stream is closed by
// the holder. Empty on failure or for a null path. Any thread.
[[gnu::visibility("default")]] std::shared_ptr<FILE> openNewFile(char const* path);

}  // namespace NSKorvalite
}  // namespace NSCam
