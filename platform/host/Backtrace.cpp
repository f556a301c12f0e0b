// Back-traces of every thread through Android's libbacktrace. The calling thread is unwound in
// place; every other thread is interrupted by libbacktrace's own signal, which captures its
// registers, so a thread that blocks that signal yields no frames (its header line is still
// printed, followed by the unwinder's error).
#include <backtrace/Backtrace.h>
#include <dirent.h>
#include <qrvcam/Backtrace.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

namespace NSCam {
namespace Utils {
namespace Backtrace {
namespace {

std::vector<pid_t> listThreads() {
    std::vector<pid_t> threads;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return threads;
    while (dirent* entry = readdir(tasks)) {
        char* end = nullptr;
        long tid = strtol(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0' && tid > 0)
            threads.push_back(static_cast<pid_t>(tid));
    }
    closedir(tasks);
    return threads;
}

std::string threadName(pid_t tid) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/task/%d/comm", tid);
    std::string name;
    if (FILE* file = fopen(path, "re")) {
        char buffer[64] = {};
        if (fgets(buffer, sizeof(buffer), file) != nullptr) name = buffer;
        fclose(file);
    }
    while (!name.empty() && name.back() == '\n') name.pop_back();
    return name;
}

}  // namespace

bool unwindCurProcessBT_Vector(std::vector<std::string>* out) {
    if (out == nullptr) return false;
    pid_t const pid = getpid();
    for (pid_t tid : listThreads()) {
        // A thread that ended since the listing still gets its header, and no frames.
        out->push_back("\"" + threadName(tid) + "\" sysTid=" + std::to_string(tid));
        std::unique_ptr<::Backtrace> backtrace(::Backtrace::Create(pid, tid));
        if (backtrace != nullptr) {
            if (backtrace->Unwind(0)) {
                for (size_t i = 0; i < backtrace->NumFrames(); ++i) {
                    out->push_back(backtrace->FormatFrameData(i));
                }
            } else {
                out->push_back("(unwind failed: " +
                               backtrace->GetErrorString(backtrace->GetError()) + ")");
            }
        }
        out->push_back("");
    }
    return true;
}

}  // namespace Backtrace
}  // namespace Utils
}  // namespace NSCam
