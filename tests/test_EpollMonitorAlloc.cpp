// The dispatch path allocates nothing: the process's heap allocations are counted while thousands
// of events go through a running monitor. Counting means interposing the C library's allocator,
// hence a test program of its own; sanitizer builds bring their own allocator and skip it.

#include <gtest/gtest.h>
#include <korvalite/EpollMonitor.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <memory>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KORV_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KORV_TEST_SANITIZED 1
#endif
#endif

namespace {
std::atomic<long> gAllocations{0};
}  // namespace

#ifndef KORV_TEST_SANITIZED
// operator new comes here too.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* malloc(size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(pointer, size);
}
}
#endif

namespace NSCam {
namespace NSKorvalite {
namespace {

struct CountingObserver : IEventObserver {
    ~CountingObserver() override { close(mFd); }
    int getEventFD() const override { return mFd; }
    void onEvent(OnEvent const&) override {
        uint64_t value;
        if (read(mFd, &value, sizeof(value)) == sizeof(value)) calls.fetch_add(1);
    }
    int const mFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    std::atomic<int> calls{0};
};

TEST(EpollMonitorAlloc, DispatchAllocatesNothing) {
#ifdef KORV_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizer owns the allocator";
#endif
    auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    auto const threadsBefore = threads();
    long const probe = gAllocations;
    int* escaped = new int(1);
    asm volatile("" : : "r"(escaped) : "memory");  // keeps the pair from being optimised away
    delete escaped;
    ASSERT_GT(gAllocations, probe) << "allocations are not being counted";

    auto monitor = std::static_pointer_cast<EpollMonitor>(IEpollMonitor::make("alloc"));
    auto handler = ThreadLoopHandler::make();
    ASSERT_EQ(handler->run(monitor), 0);
    std::vector<std::unique_ptr<CountingObserver>> observers;
    for (int i = 0; i < 4; ++i) {
        observers.push_back(std::make_unique<CountingObserver>());
        monitor->attach(observers.back().get(), i % 2 ? EPOLLIN | EPOLLET : EPOLLIN);
    }
    int expected = 0;
    // Signals and waits by spinning: waitFor's std::function and sleeps would blur the count.
    auto fire = [&](std::vector<int> const& which) {
        uint64_t one = 1;
        for (int i : which) ASSERT_EQ(write(observers[i]->mFd, &one, sizeof(one)), 8);
        expected += static_cast<int>(which.size());
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        auto total = [&] {
            int sum = 0;
            for (auto& observer : observers) sum += observer->calls;
            return sum;
        };
        while (total() != expected && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        ASSERT_EQ(total(), expected);
    };
    // The first round lets the platform set up what it keeps (trace switches and so on).
    fire({0, 1, 2, 3});

    std::vector<std::vector<int>> const rounds = {{0}, {1, 2}, {3}, {2, 0}};  // batches of 1 and 2
    long const before = gAllocations;
    for (int round = 0; round < 2000; ++round) fire(rounds[round % rounds.size()]);
    EXPECT_EQ(gAllocations - before, 0) << "while " << expected - 4 << " events went through";

    for (auto& observer : observers) monitor->detach(observer.get());
    EXPECT_EQ(handler->requestExitAndWait(), 0);
    EXPECT_TRUE(korvtest::waitFor([&] { return threads() == threadsBefore; }));
}

}  // namespace
}  // namespace NSKorvalite
}  // namespace NSCam
