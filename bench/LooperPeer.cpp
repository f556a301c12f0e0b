// android::Looper (Debian's libutils) as a loop under test.
//
// Built as its own shared object against /usr/include/android only, and loaded by the benchmark
// with RTLD_LOCAL | RTLD_DEEPBIND: libutils brings libcutils, which defines its own atrace_*
// functions, and its own android::Printer and LogPrinter. Linked into the benchmark, they could
// take the place of the host platform's in the library's symbol lookups; loaded this way they
// stay private to libutils.
#include <utils/Looper.h>

#include <atomic>
#include <thread>

#include "PeerLoop.h"

namespace korvbench {
namespace {

template <class Work>
class Callback : public android::LooperCallback {
public:
    explicit Callback(Work* work) : mWork(work) {}
    int handleEvent(int, int, void*) override {
        mWork->fire();
        return 1;  // keep the descriptor registered
    }

private:
    Work* mWork;
};

class LooperPeer : public PeerLoop {
public:
    LooperPeer() : mLooper(new android::Looper(false)) {}
    ~LooperPeer() override { stop(); }

    char const* name() const override { return "android::Looper"; }
    void addPingPong(PingPong* work) override { add(work); }
    void addGate(Gate* work) override { add(work); }
    void addDrain(Drain* work) override { add(work); }

    void start() override {
        mThread = std::thread([this] {
            pthread_setname_np(pthread_self(), "bench-looper");
            while (!mExit.load(std::memory_order_acquire)) mLooper->pollOnce(-1);
        });
    }

    void stop() override {
        if (!mThread.joinable()) return;
        mExit.store(true, std::memory_order_release);
        mLooper->wake();
        mThread.join();
    }

private:
    template <class Work>
    void add(Work* work) {
        android::sp<android::LooperCallback> callback = new Callback<Work>(work);
        mLooper->addFd(work->fd, 0, android::Looper::EVENT_INPUT, callback, nullptr);
    }

    android::sp<android::Looper> mLooper;
    std::atomic<bool> mExit{false};
    std::thread mThread;
};

}  // namespace
}  // namespace korvbench

extern "C" __attribute__((visibility("default"))) korvbench::PeerLoop*
korv_bench_make_looper_peer() {
    return new korvbench::LooperPeer();
}
