// A tour of libtovrix_cmt: the switches read at load, what system calls leave in the log, time
// stamps and printers, an event monitor with periodic timers, and a state dump to a file.
//
// `make demo` runs it with examples/demo.properties (QRVCAM_PROPERTIES), which sets the details
// level, the trace marker file and trace bits, and the dump folder.

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <korvalite/EpollMonitor.h>
#include <korvalite/Korv-Printer.h>
#include <korvalite/Korv_Dumpstate.h>
#include <korvalite/Korv_File.h>
#include <korvalite/Korv_Trace.h>
#include <korvalite/LogTool.h>
#include <korvalite/SystemCall.h>
#include <korvalite/ThreadLoop.h>
#include <korvalite/Timer.h>
#include <qrvcam/Properties.h>
#include <qrvcam/ulog/ULog.h>

using namespace NSCam::NSKorvalite;
using NSCam::Utils::ULog::ULogger;

namespace {

// Shows the library's log records inline with the demo's own output.
void printLogRecord(__android_logger_data const* data, char const* message) {
    static char const kLetters[] = "??VDIWEF";
    char letter = data->priority >= 0 && data->priority < 8 ? kLetters[data->priority] : '?';
    std::printf("    log %c %s: %s\n", letter, data->tag, message);
}

void heading(char const* title) {
    std::printf("\n== %s\n", title);
}

void showSwitches() {
    heading("Switches read when the library loaded");
    std::printf("ULog mode=%u detailsLevel=%u normalDetailsMask=%#x\n", ULogger::sMode,
                ULogger::sDetailsLevel, ULogger::sNormalDetailsMask);
    std::printf("trace mask korvalite_enabled_tracebits=%#llx\n",
                static_cast<unsigned long long>(get_korvalite_enabled_tracebits()));
}

void showSystemCalls() {
    heading("A failing and a succeeding system call");
    int fd = -1;
    auto const tag = reinterpret_cast<unsigned long>(&fd);
    std::printf("Open(\"/no/such/device\") = %d\n",
                fd = System::Open("/no/such/device", O_RDONLY, tag));
    fd = System::Open("/dev/null", O_RDONLY, tag);
    std::printf("Open(\"/dev/null\") = %d (no log line on success)\n", fd);
    std::printf("Close(%d) = %d\n", fd, System::Close(fd, tag));
}

void showTimeAndPrinters() {
    heading("Log time stamp and printers");
    timespec now{};
    getCurrentLogTime(now);
    std::printf("now: %s\n", convertToFormattedLogTime(now).c_str());
    std::fflush(stdout);
    auto file = makeFilePrinter(stdout, 10, "[file]");
    file->printLine("a line through the file printer");
    file->printFormatLine("formatted: %d timers, %.1f ms", 3, 2.5);
    std::fflush(stdout);
    NSCam::Utils::ULog::ULogPrinter log(0x8002001, "korv-demo",
                                        NSCam::Utils::ULog::DETAILS_INFO, "[log] ", false);
    log.printLine("a line through the log printer");
}

// A periodic timer that records how late each expiry was handled.
struct DemoTimer {
    std::string name;
    std::chrono::milliseconds period;
    std::shared_ptr<Timer> timer;
    timespec first{};
    std::mutex mutex;
    std::vector<double> latenessUs;  // guarded by mutex

    void onExpiry() {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        // Late relative to the most recent due time, so a coalesced expiry does not skew the rest.
        long long const sinceFirst = (now.tv_sec - first.tv_sec) * 1000000000LL +
                                     (now.tv_nsec - first.tv_nsec);
        long long const periodNs = period.count() * 1000000LL;
        std::lock_guard<std::mutex> lock(mutex);
        latenessUs.push_back(static_cast<double>(sinceFirst % periodNs) / 1000.0);
    }
};

std::shared_ptr<IEpollMonitor> gMonitor;
std::vector<std::unique_ptr<DemoTimer>> gTimers;

// The state callback of the dump: the monitor's and the timers' state.
void dumpDemoState(NSCam::IPrinter* printer) {
    printer->printLine("korv_demo state");
    if (gMonitor) gMonitor->dumpState(printer);
    for (auto& t : gTimers) t->timer->dumpState(printer);
}

void runMonitorWithTimers() {
    heading("Event monitor with periodic timers (2 s)");
    gMonitor = IEpollMonitor::make("demo");
    auto handler = ThreadLoopHandler::make();
    handler->setThreadName("korv_demo_loop");
    handler->run(std::dynamic_pointer_cast<EpollMonitor>(gMonitor));

    for (int ms : {2, 5, 20}) {
        auto t = std::make_unique<DemoTimer>();
        t->name = "every" + std::to_string(ms) + "ms";
        t->period = std::chrono::milliseconds(ms);
        DemoTimer* raw = t.get();
        t->timer = std::make_shared<Timer>(t->name.c_str(), CLOCK_MONOTONIC,
                                           [raw] { raw->onExpiry(); });
        gMonitor->attach(t->timer.get(), t->timer->getEventType());
        gTimers.push_back(std::move(t));
    }
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (auto& t : gTimers) {
        t->first = {start.tv_sec + 1, start.tv_nsec};  // a common start, 1 s from now
        timespec interval{0, static_cast<long>(t->period.count()) * 1000000};
        t->timer->startTimerAbsoluteTime(&t->first, &interval);
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));
    for (auto& t : gTimers) t->timer->stopTimer();

    // Each expiry re-arms the timer relative to its remaining time, so the phase moves on by the
    // few microseconds that the re-arm itself takes: "late" grows with the number of expiries.
    std::printf("lateness against the first schedule (drifts by each re-arm's own time):\n");
    for (auto& t : gTimers) {
        std::lock_guard<std::mutex> lock(t->mutex);
        auto sorted = t->latenessUs;
        std::sort(sorted.begin(), sorted.end());
        if (sorted.empty()) {
            std::printf("%-12s fired 0 times\n", t->name.c_str());
            continue;
        }
        std::printf("%-12s fired %4zu times, late by median %7.1f us, worst %8.1f us\n",
                    t->name.c_str(), sorted.size(), sorted[sorted.size() / 2], sorted.back());
    }
    auto printer = makeFilePrinter(stdout, 0, "  ");
    gMonitor->dumpState(printer.get());
    std::fflush(stdout);

    // The dump below prints the monitor while it still runs; the exit comes after it.
    korv_dumpstate_set_dumpstate_callback(dumpDemoState);
    heading("State dump to a file, with the process back-trace");
    korv_dumpstate_params params{"korv-demo", "[demo]", 5000, 1, 1, {}};
    korv_dumpstate(&params);
    korv_dumpstate_set_dumpstate_callback(nullptr);

    for (auto& t : gTimers) gMonitor->detach(t->timer.get());
    handler->requestExitAndWait();
    gTimers.clear();
    gMonitor.reset();
}

void showDumpFile() {
    char folder[PROPERTY_VALUE_MAX] = {};
    NSCam::Utils::Properties::property_get("persist.vendor.camera.korvalite.dumpfile.folder",
                                           folder, "/data/vendor/tovrix_dump");
    std::filesystem::path newest;
    std::error_code ec;
    for (auto& entry : std::filesystem::directory_iterator(folder, ec)) {
        if (newest.empty() || entry.last_write_time() > std::filesystem::last_write_time(newest))
            newest = entry.path();
    }
    if (newest.empty()) {
        std::printf("no dump file in %s\n", folder);
        return;
    }
    std::printf("dump file: %s\n", newest.c_str());
    std::ifstream in(newest);
    std::string line;
    for (int i = 0; i < 14 && std::getline(in, line); ++i) std::printf("  | %s\n", line.c_str());
    std::printf("  | ...\n");
}

// Where the trace went: the monitor thread's sections, the wrappers' sections on every thread,
// the observer count and the per-descriptor slices, for a trace viewer.
void showTrace() {
    heading("Trace");
    char marker[PROPERTY_VALUE_MAX] = {};
    NSCam::Utils::Properties::property_get("debug.atrace.marker_file", marker, "");
    if (marker[0] == '\0') {
        std::printf("no trace file: debug.atrace.marker_file is not set\n");
        return;
    }
    std::printf("systrace text trace: %s\n", marker);
    std::printf("open it at https://ui.perfetto.dev with \"Open trace file\"\n");
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    __android_log_set_logger(printLogRecord);
    showSwitches();
    showSystemCalls();
    showTimeAndPrinters();
    runMonitorWithTimers();
    showDumpFile();
    showTrace();
    return 0;
}
