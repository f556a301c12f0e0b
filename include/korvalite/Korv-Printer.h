// Printer to an open stdio stream.
#pragma once

#include <stdio.h>

#include <memory>

#include <qrvcam/IPrinter.h>

namespace NSCam {
namespace NSKorvalite {

// Returns a printer that writes each line as `prefix` (left-aligned in a column of at least
// `indent` characters; null prints as "") followed by the line and a newline. `file` and
// `prefix` are borrowed: the printer never closes or flushes the stream, and both must outlive
// it. A null `file` is fatal; the result is never empty. Lines have no length limit.
// A printer holds no lock: lines from several threads are serialised only by the stream's own
// locking.
[[gnu::visibility("default")]]
std::shared_ptr<NSCam::IPrinter> makeFilePrinter(FILE* file, unsigned int indent,
                                                 char const* prefix);

}  // namespace NSKorvalite
}  // namespace NSCam
