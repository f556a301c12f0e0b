// Log time stamps.
#pragma once

#include <time.h>

#include <string>

namespace NSCam {
namespace NSKorvalite {

// Reads CLOCK_REALTIME into `ts`. Returns clock_gettime's result (0 on success); on failure `ts`
// is zeroed. Any thread.
[[gnu::visibility("default")]] int getCurrentLogTime(timespec& ts);

// Formats `ts` in local time as "MM-DD hh:mm:ss.uuuuuu" (microseconds truncated). The result is
// always 21 characters long. Any thread.
[[gnu::visibility("default")]] std::string convertToFormattedLogTime(timespec const& ts);

}  // namespace NSKorvalite
}  // namespace NSCam
