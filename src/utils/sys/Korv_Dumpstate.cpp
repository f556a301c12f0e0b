// State dump of the image-processing module.

#define LOG_TAG "korvalite"
#define KORV_SOURCE_PATH "src/utils/sys/Korv_Dumpstate"

#include <korvalite/Korv-Printer.h>
#include <korvalite/Korv_Dumpstate.h>
#include <korvalite/Korv_File.h>
#include <qrvcam/Backtrace.h>
#include <qrvcam/Properties.h>
#include <qrvcam/ulog/ULog.h>
#include <stdio.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "KorvDump.h"
#include "KorvLog.h"

namespace NSCam {
namespace NSKorvalite {

namespace {

constexpr char kDefaultTag[] = "korvalite";
constexpr char kUnknownName[] = "[Unknown]";
constexpr char kTargetProperty[] = "persist.vendor.camera.korvalite.dumpKorvaliteMgr";
constexpr int32_t kTargetUnset = -1;  // the property's default: file, then log

constexpr int32_t kTargetLogThenFile = -2;
constexpr int32_t kTargetFileThenLog = -1;
constexpr int32_t kTargetFromProperty = 0;
constexpr int32_t kTargetFileOnly = 1;
constexpr int32_t kTargetLogOnly = 2;

constexpr uint32_t kFlagBacktraceInFile = 1u << 0;
constexpr uint32_t kFlagBacktraceInLog = 1u << 1;

// The one registered producer. Sequentially consistent: a dump uses whichever callback it loads
// at its start, and registration may race with dumps on any thread.
std::atomic<korv_dumpstate_callback_t> gDumpstateCallback{nullptr};

// Line prefix of a dump: the caller's name and one blank.
std::string linePrefix(korv_dumpstate_params const& params) {
    return std::string(params.name != nullptr ? params.name : kUnknownName) + " ";
}

// What a worker needs of the caller's record, owned by the worker: the caller may free its
// record, tag and name as soon as it stops waiting.
class DumpTask {
public:
    explicit DumpTask(korv_dumpstate_params const& params)
        : mTag(params.tag != nullptr ? params.tag : kDefaultTag),
          // Null becomes "", not "[Unknown]": on the worker a nameless dump's prefix is a single
          // blank, unlike on the calling thread. Deliberate and relied on; keep the asymmetry.
          mName(params.name != nullptr ? params.name : ""),
          mParams(params) {}  // timeout to reserved, byte for byte

    void operator()() {
        korv_dumpstate_params params = mParams;
        params.tag = mTag.c_str();
        params.name = mName.c_str();
        korv_dumpstate_internal(params);
    }

private:
    std::string mTag;
    std::string mName;
    korv_dumpstate_params mParams;  // tag and name here point into the caller's memory: unused
};

}  // namespace

void korv_dumpstate_set_dumpstate_callback(korv_dumpstate_callback_t callback) {
    KORV_LOGD("[DECKEY][%s] %p", "korv_dumpstate_set_dumpstate_callback",
              reinterpret_cast<void*>(callback));
    gDumpstateCallback.store(callback);
}

void korv_dumpstate_internal(korv_dumpstate_params const& params) {
    int32_t target = params.target;
    if (target == kTargetFromProperty) {
        // Read on every dump, so that the target can be switched on a running device.
        target = NSCam::Utils::Properties::property_get_int32(kTargetProperty, kTargetUnset);
    }
    switch (target) {
        case kTargetLogThenFile:
            korv_dumpstate_to_log(params);
            korv_dumpstate_to_file(params);
            break;
        case kTargetFileThenLog:
            korv_dumpstate_to_file(params);
            korv_dumpstate_to_log(params);
            break;
        case kTargetFileOnly:
            korv_dumpstate_to_file(params);
            break;
        case kTargetLogOnly:
            korv_dumpstate_to_log(params);
            break;
        default:  // 0 from the property, and anything unknown: the log only as a fallback
            if (!korv_dumpstate_to_file(params)) korv_dumpstate_to_log(params);
            break;
    }
}

void korv_dumpstate_to_log(korv_dumpstate_params const& params) {
    char const* tag = params.tag != nullptr ? params.tag : kDefaultTag;
    // The printer keeps a pointer to the prefix: declared first, released last.
    std::string const prefix = linePrefix(params);
    NSCam::Utils::ULog::ULogPrinter printer(
            korvlog::kModuleId, tag, NSCam::Utils::ULog::DETAILS_INFO, prefix.c_str(), false);
    if (korv_dumpstate_callback_t callback = gDumpstateCallback.load()) {
        callback(&printer);
    }
    if ((params.flags & kFlagBacktraceInLog) != 0) {
        korv_dump_backtrace_of_process(&printer);
    }
}

bool korv_dumpstate_to_file(korv_dumpstate_params const& params) {
    std::string const path = getDumpFilepathAndReserveSpace();
    if (path.empty()) return false;
    // Declared before the prefix and the printer, which borrow from them: on return the printer
    // goes first, then the stream is closed.
    std::shared_ptr<FILE> const file = openNewFile(path.c_str());
    if (!file) return false;
    std::string const prefix = linePrefix(params);
    std::shared_ptr<NSCam::IPrinter> const printer = makeFilePrinter(file.get(), 0, prefix.c_str());

    if (korv_dumpstate_callback_t callback = gDumpstateCallback.load()) {
        callback(printer.get());
    }
    // Flushed before the back-trace, which may take long or bring the process down: the
    // producer's state is what matters and must be on disk first.
    if (fflush(file.get()) != 0) {
        KORV_LOGW("[%s] fflush after dumpstate", "korv_dumpstate_to_file");
    }
    if ((params.flags & kFlagBacktraceInFile) != 0) {
        printer->printLine("dump process backtrace begin");
        korv_dump_backtrace_of_process(printer.get());
        if (fflush(file.get()) != 0) {
            KORV_LOGW("[%s] fflush after bt", "korv_dumpstate_to_file");
        }
        // Reaches the file when the stream is closed below.
        printer->printLine("dump process backtrace end");
    }
    return true;
}

void korv_dump_backtrace_of_process(NSCam::IPrinter* printer) {
    if (printer == nullptr) return;
    std::vector<std::string> lines;
    NSCam::Utils::Backtrace::unwindCurProcessBT_Vector(&lines);
    for (std::string const& line : lines) {
        printer->printLine(line.c_str());
    }
}

}  // namespace NSKorvalite
}  // namespace NSCam

extern "C" void korv_dumpstate(NSCam::NSKorvalite::korv_dumpstate_params const* params) {
    using NSCam::NSKorvalite::DumpTask;
    if (params->timeout < 0) {
        NSCam::NSKorvalite::korv_dumpstate_internal(*params);
        return;
    }

    int32_t const timeout = params->timeout;
    std::packaged_task<void()> task{DumpTask(*params)};
    std::future<void> done = task.get_future();
    // Detached at once: a hung producer must not hold the caller, and nothing can cancel it.
    // On a time-out the worker runs on to its end and its shared state is dropped with it.
    std::thread(std::move(task)).detach();

    if (done.wait_for(std::chrono::milliseconds(timeout)) == std::future_status::timeout) {
        KORV_LOGW("[%s] Not finished in %d ms", "korv_dumpstate", timeout);
    }
}
