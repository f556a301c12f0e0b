// Benchmarks of the library against the loops and calls its users would use instead.
//
// Every figure is taken in one process run, side by side with its peers: the benchmarks are
// registered as rounds, and each round runs every variant of every case once, the variants in a
// rotated order, so that the machine's drift reaches all of them alike. The table at the end gives
// medians over the rounds (or over all samples, for latencies) and ratios to the floor of each
// case; per-round ratios are paired by round before their median is taken. CPU-bound figures are
// taken in CPU time of the thread doing the work, latencies in wall time.
//
// Usage: korv_bench [--korv_rounds=N] [--korv_verbose] [--korv_no_pin] [Google Benchmark flags]
// (bench/README.md says what each figure means).
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <korvalite/Korv_Dumpstate.h>
#include <korvalite/Korv_File.h>
#include <korvalite/Korv_Trace.h>
#include <korvalite/SystemCall.h>
#include <korvalite/Timer.h>
#include <limits.h>
#include <math.h>
#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "LogProbe.h"
#include "PeerLoop.h"
#include "Peers.h"

namespace korvbench {

// AllocCount.cpp
uint64_t threadAllocations();
bool countsAllocations();

namespace {

using NSCam::NSKorvalite::Timer;
namespace System = NSCam::NSKorvalite::System;
using NSCam::NSKorvalite::EpollMonitor;
using NSCam::NSKorvalite::IEpollMonitor;

constexpr uint64_t kDefaultTracebits = 0x10001131;
constexpr uint64_t kLifecycleTraceBit = 0x10;  // EpollMonitor's life, isInterruptEvent included

// --- Settings --------------------------------------------------------------------------------

// The terminal's stderr. The process's own stderr goes to work/korv_bench.log while the
// benchmarks run: the library logs at info level by default, and its monitor prints its whole
// descriptor table (a thousand entries here) when its loop starts and ends.
FILE* gConsole = stderr;
int gRounds = 20;  // rounds of the quick cases; the slow ones run fewer (see makeCases)
bool gVerbose = false;
bool gPin = true;

constexpr unsigned kMaxBurst = 1024;
constexpr int kRoundTripsPerRound = 1500;
constexpr int kTimerExpiriesPerRound = 400;  // at 1 ms
constexpr int kDumpLines = 10000;
constexpr int kReserveCallsPerChild = 3;
constexpr int64_t kTimerIntervalNs = 1000000;

char const kFolderProperty[] = "persist.vendor.camera.korvalite.dumpfile.folder";
char const kFreeSpaceProperty[] = "persist.vendor.camera.korvalite.dumpfile.freespace";
char const kFreePolicyProperty[] = "persist.vendor.camera.korvalite.dumpfile.freepolicy";
char const kPropertiesEnv[] = "QRVCAM_PROPERTIES";
char const kReexecEnv[] = "KORV_BENCH_PROPERTIES_SET";

[[noreturn]] void die(char const* format, ...) __attribute__((format(printf, 1, 2)));
void die(char const* format, ...) {
    va_list args;
    va_start(args, format);
    fprintf(gConsole, "korv_bench: ");
    vfprintf(gConsole, format, args);
    fprintf(gConsole, "\n");
    va_end(args);
    exit(2);
}

int makeEventFd(bool blocking) {
    int fd = eventfd(0, EFD_CLOEXEC | (blocking ? 0 : EFD_NONBLOCK));
    if (fd < 0) die("eventfd: %s", strerror(errno));
    return fd;
}

// --- Work folder and properties --------------------------------------------------------------

// Executed by its real path, not /proc/self/exe: the process keeps its name.
std::string exePath() {
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) die("readlink /proc/self/exe: %s", strerror(errno));
    path[n] = '\0';
    return path;
}

std::string exeDir() {
    std::string path = exePath();
    return path.substr(0, path.rfind('/'));
}

std::string workDir() {
    return exeDir() + "/work";
}

void makeDir(std::string const& path) {
    if (mkdir(path.c_str(), 0770) != 0 && errno != EEXIST) {
        die("mkdir %s: %s", path.c_str(), strerror(errno));
    }
}

void writeFile(std::string const& path, std::string const& text) {
    FILE* file = fopen(path.c_str(), "w");
    if (file == nullptr || fputs(text.c_str(), file) < 0 || fclose(file) != 0) {
        die("cannot write %s", path.c_str());
    }
}

// The dump folder and the free-space settings are read once per process: the main process gets a
// dump folder of its own, and each reservation case runs in a child with its own file.
std::string writeProperties(std::string const& name, std::string const& folder,
                            char const* freeSpace) {
    std::string text = "# written by korv_bench\n";
    text += std::string(kFolderProperty) + "=" + folder + "\n";
    text += std::string(kFreePolicyProperty) + "=100\n";
    if (freeSpace != nullptr) text += std::string(kFreeSpaceProperty) + "=" + freeSpace + "\n";
    std::string path = workDir() + "/" + name;
    writeFile(path, text);
    return path;
}

// Properties are read at the first property read, which happens while the library loads: the
// process starts again with its own file.
void reexecWithProperties(char** argv) {
    if (getenv(kReexecEnv) != nullptr) return;
    makeDir(workDir());
    makeDir(workDir() + "/dump-main");
    std::string file = writeProperties("main.properties", workDir() + "/dump-main", nullptr);
    setenv(kPropertiesEnv, file.c_str(), 1);
    setenv(kReexecEnv, "1", 1);
    execv(exePath().c_str(), argv);
    die("execv: %s", strerror(errno));
}

void redirectLog() {
    fflush(stderr);
    int console = dup(STDERR_FILENO);
    int log = open((workDir() + "/korv_bench.log").c_str(),
                   O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0664);
    if (console < 0 || log < 0 || dup2(log, STDERR_FILENO) < 0) return;
    close(log);
    fcntl(console, F_SETFD, FD_CLOEXEC);
    gConsole = fdopen(console, "w");
    setvbuf(gConsole, nullptr, _IONBF, 0);
}

// --- Keeping the peers out of the library's link ----------------------------------------------

std::string ownerOf(void* address) {
    Dl_info info;
    if (address == nullptr || dladdr(address, &info) == 0 || info.dli_fname == nullptr) return "";
    return info.dli_fname;
}

void expectOwner(char const* symbol, char const* library, bool required) {
    std::string owner = ownerOf(dlsym(RTLD_DEFAULT, symbol));
    if (owner.empty() && !required) return;
    if (owner.find(library) == std::string::npos) {
        die("%s resolves to '%s', not %s: a peer changed what the library calls", symbol,
            owner.c_str(), library);
    }
}

korvbench::Probes const* gProbes = nullptr;

// Loads the log frame's probes (LogProbe.cpp), privately: nothing else binds to the module.
korvbench::Probes const* loadProbes() {
    std::string path = exeDir() + "/libkorv_bench_probe.so";
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) die("dlopen %s: %s", path.c_str(), dlerror());
    auto probes =
            reinterpret_cast<korvbench::Probes const* (*)()>(dlsym(handle, "korv_bench_probes"));
    if (probes == nullptr) die("%s exports no korv_bench_probes", path.c_str());
    return probes();
}

// Loads android::Looper's adapter privately (see LooperPeer.cpp), then checks that the library
// still reaches the host platform's trace functions and printers.
std::unique_ptr<PeerLoop> loadLooperPeer() {
    std::string path = exeDir() + "/libkorv_bench_looper.so";
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
    if (handle == nullptr) die("dlopen %s: %s", path.c_str(), dlerror());
    for (char const* symbol : {"atrace_begin_body", "atrace_end_body", "atrace_setup",
                               "atrace_int_body", "atrace_async_begin_body"}) {
        expectOwner(symbol, "libqrvcam_atrace.so", true);
    }
    for (char const* symbol : {"_ZN7android10LogPrinter9printLineEPKc",
                               "_ZN7android10LogPrinterC1EPKc19android_LogPriorityS2_b"}) {
        expectOwner(symbol, "libqrvcam_ulog.so", false);
    }
    // And the other way round: inside the peer, libutils keeps its own libcutils.
    std::string peerTrace = ownerOf(dlsym(handle, "atrace_begin_body"));
    if (peerTrace.find("libcutils") == std::string::npos) {
        die("the Looper peer reaches atrace_begin_body in '%s'", peerTrace.c_str());
    }
    auto make = reinterpret_cast<korv_bench_make_looper_peer_t>(
            dlsym(handle, "korv_bench_make_looper_peer"));
    if (make == nullptr) die("korv_bench_make_looper_peer: %s", dlerror());
    // The handle stays open for the life of the process.
    return std::unique_ptr<PeerLoop>(make());
}

// --- The loops under test and their descriptors ---------------------------------------------

// A loop under test with its work. The eventfds live as long as the process: the peers keep them
// registered until they are destroyed.
struct LoopContext {
    explicit LoopContext(PeerLoop* loop) : peer(loop) {
        pingPong.fd = makeEventFd(false);
        pingPong.pong = makeEventFd(true);
        burst.gateFd = makeEventFd(false);
        burst.doneFd = makeEventFd(true);
        gate.fd = burst.gateFd;
        gate.burst = &burst;
        drains.resize(kMaxBurst);
        for (Drain& drain : drains) {
            drain.fd = makeEventFd(false);
            drain.burst = &burst;
        }
        peer->addPingPong(&pingPong);
        peer->addGate(&gate);
        for (Drain& drain : drains) peer->addDrain(&drain);
    }

    PeerLoop* peer;
    PingPong pingPong;
    Burst burst;
    Gate gate;
    std::vector<Drain> drains;
};

struct TimerContext {
    TimerContext(RawEpollPeer* raw, MonitorPeer* monitorPeer) : monitor(monitorPeer) {
        for (bool rearm : {false, true}) {
            LatenessLog& log = rearm ? rearmLog : rawLog;
            TimerTick& t = rearm ? rearmTick : tick;
            log.doneFd = makeEventFd(true);
            log.intervalNs = kTimerIntervalNs;
            t.fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
            if (t.fd < 0) die("timerfd_create: %s", strerror(errno));
            t.log = &log;
            t.rearm = rearm;
            raw->addTimerTick(&t);
        }
        timerLog.doneFd = makeEventFd(true);
        timerLog.intervalNs = kTimerIntervalNs;
        timer = std::make_shared<Timer>("bench", CLOCK_MONOTONIC,
                                        [this] { timerLog.record(timerFd); });
        timerFd = timer->getEventFD();
        monitor->monitor().attach(timer.get(), timer->getEventType());
    }
    void detach() { monitor->monitor().detach(timer.get()); }

    MonitorPeer* monitor;
    LatenessLog rawLog;
    LatenessLog rearmLog;
    LatenessLog timerLog;
    TimerTick tick;
    TimerTick rearmTick;
    std::shared_ptr<Timer> timer;
    int timerFd = -1;
};

struct World {
    std::unique_ptr<RawEpollPeer> raw;
    std::unique_ptr<RawEpollPeer> rawWide;  // up to 1024 events per wait, as libevent's grows
    std::unique_ptr<MonitorPeer> monitor;
    std::unique_ptr<PeerLoop> looper;
    std::unique_ptr<PeerLoop> libevent;
    // raw, EpollMonitor, Looper, libevent, and the wide raw loop (dispatch figures only)
    std::vector<std::unique_ptr<LoopContext>> loops;
    std::unique_ptr<TimerContext> timers;
    int zeroFd = -1;
    int nullFd = -1;
    int ctlEpollFd = -1;
    int ctlFd = -1;
    int pairFd = -1;

    void start() {
        raw = std::make_unique<RawEpollPeer>();
        monitor = std::make_unique<MonitorPeer>();
        looper = loadLooperPeer();
        libevent = makeLibeventPeer();
        rawWide = std::make_unique<RawEpollPeer>(static_cast<int>(kMaxBurst));
        for (PeerLoop* peer :
             {static_cast<PeerLoop*>(raw.get()), static_cast<PeerLoop*>(monitor.get()),
              looper.get(), libevent.get(), static_cast<PeerLoop*>(rawWide.get())}) {
            loops.push_back(std::make_unique<LoopContext>(peer));
        }
        timers = std::make_unique<TimerContext>(raw.get(), monitor.get());
        // Not the Looper's: its allocations are not counted (AllocCount.cpp).
        if (countsAllocations()) {
            for (size_t i : {0u, 1u, 3u, 4u}) loops[i]->burst.allocCount = &threadAllocations;
        }
        for (auto& loop : loops) loop->peer->start();
        // Each loop answers before the first figure: the monitor's thread, for one, starts by
        // logging its whole descriptor table (info level, on by default), which takes a few ms.
        for (auto& loop : loops) {
            for (int i = 0; i < 1000; ++i) {
                signalFd(loop->pingPong.fd);
                drainFd(loop->pingPong.pong);
            }
        }
        placeThreads();

        zeroFd = open("/dev/zero", O_RDONLY | O_CLOEXEC);
        nullFd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        ctlEpollFd = epoll_create1(EPOLL_CLOEXEC);
        ctlFd = makeEventFd(false);
        pairFd = makeEventFd(false);
        epoll_event event = {};
        event.events = EPOLLIN;
        if (zeroFd < 0 || nullFd < 0 || ctlEpollFd < 0 ||
            epoll_ctl(ctlEpollFd, EPOLL_CTL_ADD, ctlFd, &event) != 0) {
            die("wrapper descriptors: %s", strerror(errno));
        }
    }

    // Every loop thread on the last CPU, the client on the first. Left to the scheduler, a
    // thread keeps the CPU it happened to get: one loop would wake on a busy CPU by a context
    // switch and another on an idle one through the hypervisor, and run beside a different
    // neighbour; a placement difference, not a difference of the loops.
    void placeThreads() {
        long cpus = sysconf(_SC_NPROCESSORS_ONLN);
        if (!gPin || cpus < 2) return;
        cpu_set_t client;
        CPU_ZERO(&client);
        CPU_SET(0, &client);
        cpu_set_t loop;
        CPU_ZERO(&loop);
        CPU_SET(static_cast<int>(cpus - 1), &loop);
        bool placed = sched_setaffinity(0, sizeof(client), &client) == 0;
        for (auto& l : loops) {
            placed &= sched_setaffinity(l->pingPong.loopTid.load(), sizeof(loop), &loop) == 0;
        }
        if (!placed)
            fprintf(gConsole, "korv_bench: warning: threads not placed: %s\n", strerror(errno));
        for (auto& l : loops) {
            for (int i = 0; i < 200; ++i) {
                signalFd(l->pingPong.fd);
                drainFd(l->pingPong.pong);
            }
        }
    }

    // Ends every loop and releases everything, so that the library's closing log lines come
    // before the table.
    void stop() {
        for (auto& loop : loops) loop->peer->stop();
        timers->detach();
        timers.reset();
        loops.clear();
        rawWide.reset();
        libevent.reset();
        looper.reset();
        monitor.reset();
        raw.reset();
    }
};

World gWorld;

// --- Results ---------------------------------------------------------------------------------

struct Series {
    std::vector<double> rounds;       // one figure per round: CPU ns per operation
    std::vector<double> wallRounds;   // the same in wall-clock ns, where it was taken
    std::vector<double> floorRounds;  // a floor measured in the same round, where there is one
    std::vector<double> samples;      // every sample of every round (ns), for the latency cases
    double allocations = 0;           // counted heap allocations over `operations`
    double operations = 0;
    bool allocationsCounted = false;
    unsigned missed = 0;
};

struct Variant {
    std::string name;
    std::function<void(benchmark::State&, Series&)> run;
};

struct Case {
    std::string key;
    std::string title;
    int64_t iterations;
    bool manualTime;
    int rounds;
    std::vector<Variant> variants;
    std::vector<Series> series;
};

std::vector<std::unique_ptr<Case>> gCases;

Case& addCase(std::string key, std::string title, int64_t iterations, bool manualTime, int rounds) {
    auto c = std::make_unique<Case>();
    c->key = std::move(key);
    c->title = std::move(title);
    c->iterations = iterations;
    c->manualTime = manualTime;
    c->rounds = rounds;
    gCases.push_back(std::move(c));
    return *gCases.back();
}

double median(std::vector<double> values) {
    if (values.empty()) return NAN;
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return NAN;
    std::sort(values.begin(), values.end());
    size_t index = static_cast<size_t>(ceil(p * static_cast<double>(values.size()))) - 1;
    return values[std::min(index, values.size() - 1)];
}

// --- Bodies ----------------------------------------------------------------------------------

void roundTrip(benchmark::State& state, Series& series, LoopContext& loop) {
    series.samples.reserve(series.samples.size() + static_cast<size_t>(state.max_iterations));
    for (auto _ : state) {
        int64_t start = nowNs();
        signalFd(loop.pingPong.fd);
        drainFd(loop.pingPong.pong);
        series.samples.push_back(static_cast<double>(nowNs() - start));
    }
}

void burst(benchmark::State& state, Series& series, LoopContext& loop, unsigned count) {
    Burst& b = loop.burst;
    int64_t totalCpuNs = 0;
    int64_t totalNs = 0;
    uint64_t allocations = 0;
    for (auto _ : state) {
        b.dispatched.store(0, std::memory_order_relaxed);
        b.target.store(count, std::memory_order_relaxed);
        b.released.store(false, std::memory_order_relaxed);
        signalFd(b.gateFd);
        for (unsigned i = 0; i < count; ++i) signalFd(loop.drains[i].fd);
        b.released.store(true, std::memory_order_release);
        drainFd(b.doneFd);
        int64_t cpuNs = b.endCpuNs.load(std::memory_order_relaxed) -
                        b.startCpuNs.load(std::memory_order_relaxed);
        state.SetIterationTime(static_cast<double>(cpuNs) * 1e-9);
        totalCpuNs += cpuNs;
        totalNs +=
                b.endNs.load(std::memory_order_relaxed) - b.startNs.load(std::memory_order_relaxed);
        allocations += b.allocEnd.load(std::memory_order_relaxed) -
                       b.allocStart.load(std::memory_order_relaxed);
    }
    double events = static_cast<double>(count) * static_cast<double>(state.iterations());
    series.rounds.push_back(static_cast<double>(totalCpuNs) / events);
    series.wallRounds.push_back(static_cast<double>(totalNs) / events);
    if (b.allocCount != nullptr) {
        series.allocationsCounted = true;
        series.allocations += static_cast<double>(allocations);
        series.operations += events;
    }
    state.counters["events/s"] = benchmark::Counter(events, benchmark::Counter::kIsRate);
}

enum class TimerKind { kRaw, kRawRearm, kLibrary };

void timerLateness(benchmark::State& state, Series& series, TimerKind kind) {
    TimerContext& t = *gWorld.timers;
    LatenessLog& log = kind == TimerKind::kLibrary    ? t.timerLog
                       : kind == TimerKind::kRawRearm ? t.rearmLog
                                                      : t.rawLog;
    int rawFd = kind == TimerKind::kRawRearm ? t.rearmTick.fd : t.tick.fd;
    for (auto _ : state) {
        log.reset(kTimerExpiriesPerRound);
        int64_t first = nowNs() + kTimerIntervalNs;
        timespec value = {static_cast<time_t>(first / 1000000000), first % 1000000000};
        timespec interval = {0, kTimerIntervalNs};
        if (kind == TimerKind::kLibrary) {
            t.timer->startTimerAbsoluteTime(&value, &interval);
        } else {
            itimerspec setting = {interval, value};
            timerfd_settime(rawFd, TFD_TIMER_ABSTIME, &setting, nullptr);
        }
        drainFd(log.doneFd);
        if (kind == TimerKind::kLibrary) {
            t.timer->stopTimer();
        } else {
            itimerspec off = {};
            timerfd_settime(rawFd, 0, &off, nullptr);
        }
        int64_t sum = 0;
        for (int64_t sample : log.samples) {
            series.samples.push_back(static_cast<double>(sample));
            sum += sample;
        }
        state.SetIterationTime(static_cast<double>(sum) * 1e-9 /
                               static_cast<double>(log.samples.size()));
        series.missed += log.missed;
        log.missed = 0;
    }
}

// A per-round figure in ns per call of `call`, with the heap allocations of this thread.
// `units`: operations per call of `call`; the figures are per operation.
template <class Call>
void perCall(benchmark::State& state, Series& series, Call call, int units = 1) {
    uint64_t allocations = threadAllocations();
    int64_t start = nowNs();
    int64_t startCpu = threadCpuNs();
    for (auto _ : state) call();
    int64_t cpuNs = threadCpuNs() - startCpu;
    int64_t ns = nowNs() - start;
    allocations = threadAllocations() - allocations;
    double calls = static_cast<double>(state.iterations()) * units;
    series.rounds.push_back(static_cast<double>(cpuNs) / calls);
    series.wallRounds.push_back(static_cast<double>(ns) / calls);
    series.allocationsCounted = countsAllocations();
    series.allocations += static_cast<double>(allocations);
    series.operations += calls;
}

// --- State dump ------------------------------------------------------------------------------

void printBenchState(NSCam::IPrinter* printer) {
    for (int i = 0; i < kDumpLines; ++i) {
        printer->printFormatLine("observer[%d] fd=%d events=%#x dispatched=%u", i, 100 + i % 900,
                                 0x19, static_cast<unsigned>(i) * 7u);
    }
}

void removeFiles(std::string const& folder) {
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) return;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        unlink((folder + "/" + entry->d_name).c_str());
    }
    closedir(dir);
}

void dumpState(benchmark::State& state, Series& series, bool library) {
    std::string folder = workDir() + "/dump-main";
    NSCam::NSKorvalite::korv_dumpstate_params params = {};
    params.name = "bench";
    params.timeout = -1;  // on this thread
    params.target = 1;    // file only
    NSCam::NSKorvalite::korv_dumpstate_set_dumpstate_callback(&printBenchState);
    int64_t totalNs = 0;
    int64_t totalCpuNs = 0;
    for (auto _ : state) {
        int64_t start = nowNs();
        int64_t startCpu = threadCpuNs();
        if (library) {
            korv_dumpstate(&params);
        } else {
            // The floor: the same lines with stdio into a new file of the same folder.
            FILE* file = fopen((folder + "/floor.txt").c_str(), "w");
            if (file == nullptr) die("fopen: %s", strerror(errno));
            for (int i = 0; i < kDumpLines; ++i) {
                fprintf(file, "bench observer[%d] fd=%d events=%#x dispatched=%u\n", i,
                        100 + i % 900, 0x19, static_cast<unsigned>(i) * 7u);
            }
            fclose(file);
        }
        int64_t cpuNs = threadCpuNs() - startCpu;
        totalNs += nowNs() - start;
        totalCpuNs += cpuNs;
        state.SetIterationTime(static_cast<double>(cpuNs) * 1e-9);
        state.PauseTiming();
        removeFiles(folder);
        state.ResumeTiming();
    }
    double dumps = static_cast<double>(state.iterations());
    series.rounds.push_back(static_cast<double>(totalCpuNs) / dumps);
    series.wallRounds.push_back(static_cast<double>(totalNs) / dumps);
}

// --- Dump-folder reservation ----------------------------------------------------------------

std::string reserveFolder(unsigned count) {
    return workDir() + "/reserve-" + std::to_string(count);
}

// n empty regular files, kept between runs (making 100 000 takes a few seconds).
void prepareReserveFolder(unsigned count) {
    std::string folder = reserveFolder(count);
    makeDir(folder);
    unsigned present = 0;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) present += entry->d_type == DT_REG ? 1 : 0;
        closedir(dir);
    }
    if (present == count) return;
    removeFiles(folder);
    for (unsigned i = 0; i < count; ++i) {
        char name[32];
        snprintf(name, sizeof(name), "/old_%06u.txt", i);
        int fd = open((folder + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0664);
        if (fd < 0) die("create %s%s: %s", folder.c_str(), name, strerror(errno));
        close(fd);
    }
}

// The least any reservation must do, for comparison: list the folder, examine every entry (by
// name, relative to the open folder), keep the regular files' sizes and ages, sort by age.
size_t listFolderFloor(std::string const& folder) {
    struct Entry {
        std::string name;
        int64_t size;
        int64_t mtime;
    };
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) return 0;
    std::vector<Entry> files;
    while (dirent* entry = readdir(dir)) {
        struct stat st;
        if (fstatat(dirfd(dir), entry->d_name, &st, 0) != 0 || !S_ISREG(st.st_mode)) continue;
        files.push_back({entry->d_name, static_cast<int64_t>(st.st_size),
                         static_cast<int64_t>(st.st_mtim.tv_sec)});
    }
    closedir(dir);
    std::sort(files.begin(), files.end(),
              [](Entry const& a, Entry const& b) { return a.mtime < b.mtime; });
    return files.size();
}

// The child: the dump folder holds `count` files, the required free space exceeds what the file
// system has, and the keep policy is 100, so every call lists, examines and sorts the whole
// folder and deletes nothing. Each call is followed by the floor's listing of the same folder.
// Prints, per call, the CPU and wall ns of the reservation, then of the floor.
int reserveChild(int calls) {
    std::vector<int64_t> times;
    for (int i = 0; i < calls; ++i) {
        int64_t start = nowNs();
        int64_t startCpu = threadCpuNs();
        std::string path = NSCam::NSKorvalite::getDumpFilepathAndReserveSpace();
        times.push_back(threadCpuNs() - startCpu);
        times.push_back(nowNs() - start);
        if (path.empty()) {
            fprintf(stderr, "korv_bench: no dump path\n");
            return 1;
        }
        std::string folder = path.substr(0, path.rfind('/'));
        start = nowNs();
        startCpu = threadCpuNs();
        size_t files = listFolderFloor(folder);
        times.push_back(threadCpuNs() - startCpu);
        times.push_back(nowNs() - start);
        if (files == 0) {
            fprintf(stderr, "korv_bench: %s holds no files\n", folder.c_str());
            return 1;
        }
    }
    for (int64_t t : times) printf("%lld ", static_cast<long long>(t));
    printf("\n");
    return 0;
}

struct ReserveTimes {
    double cpuNs, wallNs, floorCpuNs, floorWallNs;  // medians over the child's calls
};

ReserveTimes runReserveChild(unsigned count) {
    std::string properties = writeProperties("reserve-" + std::to_string(count) + ".properties",
                                             reserveFolder(count), "9000000000000000000");
    // Everything the child needs is made before the fork: between fork and exec a child of a
    // threaded process should call nothing that may take a lock.
    std::string path = exePath();
    std::string logPath = workDir() + "/reserve-child.log";
    std::string callsArg = "--korv_reserve_child=" + std::to_string(kReserveCallsPerChild);
    char* argv[] = {const_cast<char*>("korv_bench"), callsArg.data(), nullptr};
    std::string const prefix = std::string(kPropertiesEnv) + "=";
    std::string propertiesEnv = prefix + properties;
    std::vector<char*> envp;
    for (char** e = environ; *e != nullptr; ++e) {
        if (strncmp(*e, prefix.c_str(), prefix.size()) != 0) envp.push_back(*e);
    }
    envp.push_back(propertiesEnv.data());
    envp.push_back(nullptr);

    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) die("pipe: %s", strerror(errno));
    pid_t pid = fork();
    if (pid < 0) die("fork: %s", strerror(errno));
    if (pid == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0664);
        if (log >= 0) dup2(log, STDERR_FILENO);
        execve(path.c_str(), argv, envp.data());
        _exit(127);
    }
    close(pipeFds[1]);
    std::string output;
    char buffer[256];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof(buffer))) > 0) output.append(buffer, n);
    close(pipeFds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        die("reservation child for %u files failed (see %s/reserve-child.log)", count,
            workDir().c_str());
    }
    std::vector<double> columns[4];
    char* cursor = output.data();
    for (size_t k = 0;; ++k) {
        char* end = nullptr;
        double t = strtod(cursor, &end);
        if (end == cursor) break;
        columns[k % 4].push_back(t);
        cursor = end;
    }
    if (columns[3].empty()) die("reservation child for %u files printed nothing", count);
    return {median(columns[0]), median(columns[1]), median(columns[2]), median(columns[3])};
}

void reserve(benchmark::State& state, Series& series, unsigned count) {
    for (auto _ : state) {
        ReserveTimes times = runReserveChild(count);
        state.SetIterationTime(times.cpuNs * 1e-9);
        series.rounds.push_back(times.cpuNs);
        series.wallRounds.push_back(times.wallNs);
        series.floorRounds.push_back(times.floorCpuNs);
    }
}

// --- The cases -------------------------------------------------------------------------------

void makeCases() {
    char const* loopNames[] = {"raw epoll", "EpollMonitor", "android::Looper", "libevent",
                               "raw epoll, 1024 per wait"};

    Case& rt = addCase("roundtrip", "wake-to-callback round trip", kRoundTripsPerRound, false,
                       gRounds);
    for (int i = 0; i < 4; ++i) {
        rt.variants.push_back({loopNames[i], [i](benchmark::State& s, Series& r) {
                                   roundTrip(s, r, *gWorld.loops[i]);
                               }});
    }
    for (unsigned count : {64u, 1024u}) {
        Case& c = addCase("burst" + std::to_string(count),
                          "dispatch, " + std::to_string(count) + " ready LT fds drained",
                          count == 64 ? 200 : 16, true, gRounds);
        for (int i = 0; i < 5; ++i) {
            c.variants.push_back({loopNames[i], [i, count](benchmark::State& s, Series& r) {
                                      burst(s, r, *gWorld.loops[i], count);
                                  }});
        }
    }

    // Many rounds of each variant in turn, so that the machine's slow moments fall on all alike.
    Case& timer = addCase("timer", "periodic 1 ms timer lateness", 1, true, gRounds);
    timer.variants.push_back({"raw timerfd", [](benchmark::State& s, Series& r) {
                                  timerLateness(s, r, TimerKind::kRaw);
                              }});
    timer.variants.push_back({"Timer", [](benchmark::State& s, Series& r) {
                                  timerLateness(s, r, TimerKind::kLibrary);
                              }});
    timer.variants.push_back({"raw, re-armed as Timer", [](benchmark::State& s, Series& r) {
                                  timerLateness(s, r, TimerKind::kRawRearm);
                              }});

    World& w = gWorld;
    static char buffer[8];
    static uint64_t const one = 1;
    static epoll_event modEvent = {EPOLLIN, {}};
    Case& rd = addCase("read", "read 8 bytes of /dev/zero", 20000, false, gRounds);
    rd.variants.push_back({"read()", [&w](benchmark::State& s, Series& r) {
                               perCall(s, r, [&] {
                                   benchmark::DoNotOptimize(read(w.zeroFd, buffer, sizeof(buffer)));
                               });
                           }});
    rd.variants.push_back({"System::Read", [&w](benchmark::State& s, Series& r) {
                               perCall(s, r, [&] {
                                   benchmark::DoNotOptimize(
                                           System::Read(w.zeroFd, buffer, sizeof(buffer)));
                               });
                           }});
    Case& wr = addCase("write", "write 8 bytes to /dev/null", 20000, false, gRounds);
    wr.variants.push_back({"write()", [&w](benchmark::State& s, Series& r) {
                               perCall(s, r, [&] {
                                   benchmark::DoNotOptimize(
                                           write(w.nullFd, buffer, sizeof(buffer)));
                               });
                           }});
    wr.variants.push_back({"System::Write", [&w](benchmark::State& s, Series& r) {
                               perCall(s, r, [&] {
                                   benchmark::DoNotOptimize(
                                           System::Write(w.nullFd, buffer, sizeof(buffer)));
                               });
                           }});
    Case& mod = addCase("ctlmod", "epoll_ctl(EPOLL_CTL_MOD) of an eventfd", 20000, false, gRounds);
    mod.variants.push_back({"epoll_ctl()", [&w](benchmark::State& s, Series& r) {
                                perCall(s, r, [&] {
                                    benchmark::DoNotOptimize(epoll_ctl(w.ctlEpollFd, EPOLL_CTL_MOD,
                                                                       w.ctlFd, &modEvent));
                                });
                            }});
    mod.variants.push_back({"System::EPollCtlMod", [&w](benchmark::State& s, Series& r) {
                                perCall(s, r, [&] {
                                    benchmark::DoNotOptimize(
                                            System::EPollCtlMod(w.ctlEpollFd, w.ctlFd, &modEvent));
                                });
                            }});
    Case& pair = addCase("pair", "eventfd write + read pair", 20000, false, gRounds);
    pair.variants.push_back({"write()+read()", [&w](benchmark::State& s, Series& r) {
                                 perCall(s, r, [&] {
                                     uint64_t value;
                                     benchmark::DoNotOptimize(write(w.pairFd, &one, sizeof(one)));
                                     benchmark::DoNotOptimize(
                                             read(w.pairFd, &value, sizeof(value)));
                                 });
                             }});
    pair.variants.push_back(
            {"System::Write+Read", [&w](benchmark::State& s, Series& r) {
                 perCall(s, r, [&] {
                     uint64_t value;
                     benchmark::DoNotOptimize(System::Write(w.pairFd, &one, sizeof(one)));
                     benchmark::DoNotOptimize(System::Read(w.pairFd, &value, sizeof(value)));
                 });
             }});

    // Every variant runs its call site kSites times per call of the probe (LogProbe.cpp); the
    // figures are per call site, the probe's own call spread over them.
    constexpr int kSites = 256;
    Case& log = addCase("disabled", "disabled log and trace call sites", 8000, false, gRounds);
    struct Probe {
        char const* name;
        void (*probe)(int);
    };
    for (Probe p : {Probe{"empty section", gProbes->nothing}, Probe{"KORV_LOGD off", gProbes->logD},
                    Probe{"trace, camera tag off", gProbes->traceCameraOff},
                    Probe{"trace, bit clear", gProbes->traceBitOff}}) {
        log.variants.push_back({p.name, [p](benchmark::State& s, Series& r) {
                                    perCall(
                                            s, r, [&] { p.probe(kSites); }, kSites);
                                }});
    }
    // The same in the library itself, called from here: isInterruptEvent(0) opens and closes a
    // section of the lifecycle bit (in the default mask) and returns at once; getEventFD() is the
    // floor of a call into the library. Each is called kSites times a turn, like the probes.
    std::shared_ptr<EpollMonitor> probe =
            std::static_pointer_cast<EpollMonitor>(IEpollMonitor::make("bench-probe"));
    auto perSite = [](benchmark::State& s, Series& r, auto call) {
        perCall(
                s, r,
                [&] {
                    for (int i = 0; i < kSites; ++i) benchmark::DoNotOptimize(call());
                },
                kSites);
    };
    log.variants.push_back(
            {"library: getEventFD", [probe, perSite](benchmark::State& s, Series& r) {
                 perSite(s, r, [&] { return probe->EpollMonitor::getEventFD(); });
             }});
    for (bool bitClear : {false, true}) {
        log.variants.push_back({bitClear ? "library: trace, bit clr" : "library: trace, tag off",
                                [probe, bitClear, perSite](benchmark::State& s, Series& r) {
                                    uint64_t mask = korvalite_enabled_tracebits;
                                    if (bitClear)
                                        korvalite_enabled_tracebits = mask & ~kLifecycleTraceBit;
                                    perSite(s, r, [&] { return probe->isInterruptEvent(0); });
                                    korvalite_enabled_tracebits = mask;
                                }});
    }

    Case& dump = addCase("dump", "state dump of 10 000 lines to a file", 4, true,
                         std::max(2, gRounds / 2));
    dump.variants.push_back(
            {"fprintf floor", [](benchmark::State& s, Series& r) { dumpState(s, r, false); }});
    dump.variants.push_back(
            {"korv_dumpstate", [](benchmark::State& s, Series& r) { dumpState(s, r, true); }});

    Case& reserveCase = addCase("reserve", "dump-folder reservation, per call", 1, true,
                                std::max(2, gRounds / 4));
    for (unsigned count : {1000u, 10000u, 100000u}) {
        reserveCase.variants.push_back(
                {std::to_string(count) + " files",
                 [count](benchmark::State& s, Series& r) { reserve(s, r, count); }});
    }

    for (auto& c : gCases) c->series.resize(c->variants.size());
}

// Round r runs every case that still has rounds left; the variants of a case start one further
// along each round.
void registerRounds() {
    int most = 0;
    for (auto& c : gCases) most = std::max(most, c->rounds);
    for (int round = 0; round < most; ++round) {
        for (auto& c : gCases) {
            if (round >= c->rounds) continue;
            size_t count = c->variants.size();
            for (size_t k = 0; k < count; ++k) {
                size_t index = (k + static_cast<size_t>(round)) % count;
                Case* cp = c.get();
                std::string name =
                        c->key + "/" + c->variants[index].name + "/round:" + std::to_string(round);
                auto* b = benchmark::RegisterBenchmark(
                        name.c_str(), [cp, index](benchmark::State& state) {
                            cp->variants[index].run(state, cp->series[index]);
                        });
                b->Iterations(c->iterations)->Unit(benchmark::kMicrosecond);
                if (c->manualTime) {
                    b->UseManualTime();
                } else {
                    b->UseRealTime();
                }
            }
        }
    }
}

// --- The table -------------------------------------------------------------------------------

// Median over the rounds of variant/floor, each pair from the same round.
double pairedRatio(Series const& variant, Series const& floor) {
    std::vector<double> ratios;
    for (size_t i = 0; i < std::min(variant.rounds.size(), floor.rounds.size()); ++i) {
        ratios.push_back(variant.rounds[i] / floor.rounds[i]);
    }
    return median(ratios);
}

std::string format(char const* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(char const* fmt, ...) {
    char text[256];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    return text;
}

std::string loadAverage() {
    double load[3];
    if (getloadavg(load, 3) != 3) return "?";
    return format("%.2f %.2f %.2f", load[0], load[1], load[2]);
}

struct Row {
    std::string figure, variant, value, spread, wall, ratio, allocs, verdict;
};

std::string allocsText(Series const& s) {
    if (!s.allocationsCounted || s.operations == 0) return "-";
    double perOp = s.allocations / s.operations;
    return perOp == 0 ? "0" : format("%.3g", perOp);
}

Case* findCase(char const* key) {
    for (auto& c : gCases) {
        if (c->key == key) return c.get();
    }
    return nullptr;
}

bool hasData(Series const& s) {
    return !s.rounds.empty() || !s.samples.empty();
}

void printTable(std::string const& loadBefore) {
    std::vector<Row> rows;
    auto verdict = [](bool met) { return std::string(met ? "met" : "MISSED"); };

    // Latency figures: median and p99 in us, ratios of the medians and of the p99s to the first
    // variant. `p99Target` marks the second variant's p99 ratio against it, when given.
    auto latencyRows = [&](char const* key, char const* digits, double p99Target) {
        Case* c = findCase(key);
        if (c == nullptr) return;
        Series const& floor = c->series[0];
        for (size_t i = 0; i < c->variants.size(); ++i) {
            Series const& s = c->series[i];
            if (!hasData(s)) continue;
            std::string const number = std::string("%.") + digits + "f";
            Row row{i == 0 ? c->title + " (us)" : "",
                    c->variants[i].name,
                    format(number.c_str(), median(s.samples) / 1000),
                    format(("p99 " + number).c_str(), percentile(s.samples, 0.99) / 1000),
                    "",
                    "",
                    "-",
                    ""};
            if (s.missed != 0) row.spread += format(" (%u missed)", s.missed);
            if (hasData(floor)) {
                double p99 = percentile(s.samples, 0.99) / percentile(floor.samples, 0.99);
                row.ratio =
                        format("%.3f / p99 %.3f", median(s.samples) / median(floor.samples), p99);
                if (i == 1 && p99Target > 0) {
                    row.verdict = verdict(p99 <= p99Target) + format(" p99 <=%.2f", p99Target);
                }
            }
            rows.push_back(row);
        }
    };
    latencyRows("roundtrip", "2", 0);
    for (char const* key : {"burst64", "burst1024"}) {
        Case* c = findCase(key);
        if (c == nullptr) continue;
        Series const& floor = c->series[0];
        size_t mineRow = rows.size() + 1;
        for (size_t i = 0; i < c->variants.size(); ++i) {
            Series const& s = c->series[i];
            if (!hasData(s)) continue;
            double ns = median(s.rounds);
            Row row{i == 0 ? c->title + " (ns/event)" : "",
                    c->variants[i].name,
                    format("%.1f", ns),
                    format("%.2f M/s", 1e3 / ns),
                    format("%.1f", median(s.wallRounds)),
                    "",
                    allocsText(s),
                    ""};
            if (hasData(floor)) row.ratio = format("%.3f", pairedRatio(s, floor));
            if (i == 2) row.allocs = "n/c";
            rows.push_back(row);
        }
        Series const& mine = c->series[1];
        if (hasData(floor) && hasData(mine)) {
            double ratio = pairedRatio(mine, floor);
            bool faster = true;
            for (size_t peer : {2u, 3u}) {
                if (hasData(c->series[peer])) faster &= pairedRatio(mine, c->series[peer]) < 1.0;
            }
            rows[mineRow].verdict =
                    verdict(ratio <= 1.10) + " <=1.10; " + verdict(faster) + " < peers";
        }
    }
    latencyRows("timer", "1", 1.10);
    for (char const* key : {"read", "write", "ctlmod", "pair"}) {
        Case* c = findCase(key);
        if (c == nullptr) continue;
        for (size_t i = 0; i < c->variants.size(); ++i) {
            Series const& s = c->series[i];
            if (!hasData(s)) continue;
            Row row{i == 0 ? c->title + " (ns)" : "",
                    c->variants[i].name,
                    format("%.1f", median(s.rounds)),
                    "",
                    format("%.1f", median(s.wallRounds)),
                    "",
                    allocsText(s),
                    ""};
            if (i == 1 && hasData(c->series[0])) {
                double ratio = pairedRatio(s, c->series[0]);
                row.ratio = format("%.3f", ratio);
                row.verdict = verdict(ratio <= 1.05) + " <=1.05";
            } else if (i == 0) {
                row.ratio = "1.000";
            }
            rows.push_back(row);
        }
    }
    if (Case* c = findCase("disabled")) {
        for (size_t i = 0; i < c->variants.size(); ++i) {
            Series const& s = c->series[i];
            if (!hasData(s)) continue;
            double ns = median(s.rounds);
            Row row{i == 0 ? c->title + " (ns)" : "",
                    c->variants[i].name,
                    format("%.2f", ns),
                    "",
                    format("%.2f", median(s.wallRounds)),
                    "",
                    allocsText(s),
                    ""};
            if (i > 0 && hasData(c->series[0])) {
                row.spread = format("%+.2f", ns - median(c->series[0].rounds));
                row.ratio = format("%.3f", pairedRatio(s, c->series[0]));
                // A disabled trace section, at its call site, is one load and a mask test in its
                // opening and in its closing; a disabled log one comparison. The library rows,
                // calls into the library from here, are diagnostics.
                std::string const& name = c->variants[i].name;
                double limit = name.rfind("trace", 0) == 0 ? 2.0 : 5.0;
                if (name.rfind("library", 0) != 0) {
                    row.verdict = verdict(ns <= limit && s.allocations == 0) +
                                  format(" <=%.0f ns, 0 allocs", limit);
                }
            }
            rows.push_back(row);
        }
    }
    if (Case* c = findCase("dump")) {
        for (size_t i = 0; i < c->variants.size(); ++i) {
            Series const& s = c->series[i];
            if (!hasData(s)) continue;
            Row row{i == 0 ? c->title + " (ms)" : "",
                    c->variants[i].name,
                    format("%.2f", median(s.rounds) / 1e6),
                    format("%.0f ns/line", median(s.rounds) / kDumpLines),
                    format("%.2f", median(s.wallRounds) / 1e6),
                    "",
                    "-",
                    ""};
            if (hasData(c->series[0])) row.ratio = format("%.3f", pairedRatio(s, c->series[0]));
            rows.push_back(row);
        }
    }
    if (Case* c = findCase("reserve")) {
        double counts[] = {1000, 10000, 100000};
        for (size_t i = 0; i < c->variants.size(); ++i) {
            Series const& s = c->series[i];
            if (!hasData(s)) continue;
            double ns = median(s.rounds);
            double floorNs = median(s.floorRounds);
            Row row{i == 0 ? c->title + " (ms)" : "",
                    c->variants[i].name,
                    format("%.2f", ns / 1e6),
                    format("%.0f ns/file; floor %.2f", ns / counts[i], floorNs / 1e6),
                    format("%.2f", median(s.wallRounds) / 1e6),
                    format("%.2f x floor", ns / floorNs),
                    "-",
                    ""};
            if (i > 0 && hasData(c->series[i - 1])) {
                Series const& previous = c->series[i - 1];
                double growth = ns / median(previous.rounds);
                double floorGrowth = floorNs / median(previous.floorRounds);
                double bound = counts[i] * log(counts[i]) / (counts[i - 1] * log(counts[i - 1]));
                row.ratio += format("; growth x%.1f, floor x%.1f, n log n x%.1f", growth,
                                    floorGrowth, bound);
                // The file system's own cost per entry grows with the folder (caches): what the
                // reservation adds must not grow faster than n log n.
                row.verdict = verdict(growth <= bound || growth <= floorGrowth * 1.10) +
                              " <= n log n or floor";
            }
            rows.push_back(row);
        }
    }

    std::vector<std::string> head = {"figure", "variant", "median", "detail",
                                     "wall",   "ratio",   "allocs", "target"};
    constexpr size_t kColumns = 8;
    size_t widths[kColumns] = {};
    auto fields = [](Row const& r) {
        return std::vector<std::string>{r.figure, r.variant, r.value,  r.spread,
                                        r.wall,   r.ratio,   r.allocs, r.verdict};
    };
    for (size_t k = 0; k < kColumns; ++k) widths[k] = head[k].size();
    for (Row const& r : rows) {
        auto f = fields(r);
        for (size_t k = 0; k < kColumns; ++k) widths[k] = std::max(widths[k], f[k].size());
    }
    utsname host = {};
    uname(&host);
    printf("\nkorv_bench: %d rounds, interleaved; %ld CPUs%s; %s %s; load average before %s, "
           "after %s\n",
           gRounds, sysconf(_SC_NPROCESSORS_ONLN),
           gPin ? " (loop threads on the last, the client on the first)" : "", host.sysname,
           host.release, loadBefore.c_str(), loadAverage().c_str());
    printf("median: latencies in wall time over all samples; every other figure in CPU time of "
           "the measuring thread (preemption and stolen time left out), median over the rounds\n"
           "wall: the same figure in wall time; ratio: to the first variant of the figure, the "
           "median of per-round ratios (latencies: ratio of the medians / of the p99s)\n"
           "allocs: heap allocations per operation on the measuring thread (n/c: not counted)\n\n");
    auto printRow = [&](std::vector<std::string> const& f) {
        for (size_t k = 0; k < kColumns; ++k) {
            printf(k == 0 ? "%-*s" : "  %-*s", static_cast<int>(widths[k]), f[k].c_str());
        }
        printf("\n");
    };
    printRow(head);
    std::vector<std::string> rule;
    for (size_t k = 0; k < kColumns; ++k) rule.push_back(std::string(widths[k], '-'));
    printRow(rule);
    for (Row const& r : rows) printRow(fields(r));
    fflush(stdout);
}

// Google Benchmark's per-run lines are only shown with --korv_verbose; otherwise a dot per run.
class ProgressReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(Context const& context) override {
        if (gVerbose) return mConsole.ReportContext(context);
        fprintf(gConsole, "korv_bench: running (library log in %s/korv_bench.log)",
                workDir().c_str());
        return true;
    }
    void ReportRuns(std::vector<Run> const& runs) override {
        for (Run const& run : runs) {
            if (run.error_occurred) {
                fprintf(gConsole, "\nkorv_bench: %s: %s\n", run.benchmark_name().c_str(),
                        run.error_message.c_str());
            }
        }
        if (gVerbose) {
            mConsole.ReportRuns(runs);
        } else {
            fputc('.', gConsole);
        }
    }
    void Finalize() override {
        if (!gVerbose) fputc('\n', gConsole);
    }

private:
    benchmark::ConsoleReporter mConsole;
};

}  // namespace
}  // namespace korvbench

int main(int argc, char** argv) {
    using namespace korvbench;
    // The reservation child.
    for (int i = 1; i < argc; ++i) {
        if (strncmp(argv[i], "--korv_reserve_child=", 21) == 0) {
            return reserveChild(atoi(argv[i] + 21));
        }
    }
    reexecWithProperties(argv);

    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (strncmp(argv[i], "--korv_rounds=", 14) == 0) {
            gRounds = std::max(1, atoi(argv[i] + 14));
        } else if (strcmp(argv[i], "--korv_verbose") == 0) {
            gVerbose = true;
        } else if (strcmp(argv[i], "--korv_no_pin") == 0) {
            gPin = false;
        } else {
            rest.push_back(argv[i]);
        }
    }
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());
    if (benchmark::ReportUnrecognizedArguments(restCount, rest.data())) return 1;

    std::string loadBefore = loadAverage();
    gProbes = loadProbes();
    if (gProbes->logDEnabled()) fprintf(gConsole, "korv_bench: warning: debug logging is on\n");
    if (gProbes->cameraTraceOn()) fprintf(gConsole, "korv_bench: warning: camera tracing is on\n");
    if (!gProbes->traceBitSet(true) || gProbes->traceBitSet(false) ||
        get_korvalite_enabled_tracebits() != kDefaultTracebits) {
        fprintf(gConsole, "korv_bench: warning: the trace mask is not the default one\n");
    }
    redirectLog();

    makeCases();
    unlink((workDir() + "/reserve-child.log").c_str());
    for (unsigned count : {1000u, 10000u, 100000u}) prepareReserveFolder(count);
    gWorld.start();
    registerRounds();

    ProgressReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    gWorld.stop();
    benchmark::Shutdown();
    printTable(loadBefore);
    return 0;
}
