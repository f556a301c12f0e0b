// Exception and warning reports to the platform's exception-reporting service.
#pragma once

namespace NSCam {
namespace NSKorvalite {

// Formats the message once (at most 511 characters, empty when formatting fails), logs
// "[korvalite_xem_trigger_exception] + <message>" at info level, pauses the trace capture, hands
// the message to the service as an exception of `module`, and logs the "-" line. Never aborts.
// Any thread.
[[gnu::visibility("default")]]
void korvalite_xem_trigger_exception(char const* module, char const* format, ...)
        __attribute__((format(printf, 2, 3)));

// The same, reported as a warning.
[[gnu::visibility("default")]]
void korvalite_xem_trigger_warning(char const* module, char const* format, ...)
        __attribute__((format(printf, 2, 3)));

}  // namespace NSKorvalite
}  // namespace NSCam
