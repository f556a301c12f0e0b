// Line printer interface of the camera stack.
#pragma once

namespace NSCam {

class IPrinter {
public:
    // Prints one line; the printer adds the line end.
    virtual void printLine(char const* line) = 0;
    // Formats with printf rules, then prints the result as one line.
    virtual void printFormatLine(char const* format, ...) __attribute__((format(printf, 2, 3))) = 0;
    virtual ~IPrinter() = default;
};

}  // namespace NSCam
