// Back-traces of the current process.
#pragma once

#include <string>
#include <vector>

namespace NSCam {
namespace Utils {
namespace Backtrace {

// Appends, for every thread of the process: a line "\"<name>\" sysTid=<tid>", one line per
// frame, then an empty line. Returns false when `out` is null.
bool unwindCurProcessBT_Vector(std::vector<std::string>* out);

}  // namespace Backtrace
}  // namespace Utils
}  // namespace NSCam
