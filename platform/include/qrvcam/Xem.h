// Exception-reporting service of the camera stack.
#pragma once

namespace NSCam {
namespace Utils {
namespace Xem {

// Logs "exception module=<module> path=<path>: <message>" at error priority, tag "qrvcam-xem";
// a null path prints as "null".
void triggerXemException(char const* module, char const* path, char const* format, ...)
        __attribute__((format(printf, 3, 4)));
// The same at warning priority with "warning" in place of "exception".
void triggerXemWarning(char const* module, char const* path, char const* format, ...)
        __attribute__((format(printf, 3, 4)));
// Logs "trace pause" at info priority, tag "qrvcam-xem".
void triggerTracePause();

}  // namespace Xem
}  // namespace Utils
}  // namespace NSCam
