// Private to the host platform libraries.
#pragma once

#include <errno.h>

namespace qrvcam_host {

// Logging and tracing run between a failing call and its caller's look at errno (the library's
// call wrappers trace and log around every system call), so they must leave errno as it was.
class ErrnoRestorer {
public:
    ErrnoRestorer() : mErrno(errno) {}
    ~ErrnoRestorer() { errno = mErrno; }
    ErrnoRestorer(ErrnoRestorer const&) = delete;
    ErrnoRestorer& operator=(ErrnoRestorer const&) = delete;

private:
    int mErrno;
};

}  // namespace qrvcam_host
