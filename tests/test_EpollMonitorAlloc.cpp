// The dispatch path allocates nothing: the process's heap allocations are counted while thousands
// of events go through a running monitor. Counting means interposing the C library's allocator,
// hence a test program of its own; sanitizer builds bring their own allocator and skip it.

#include <gtest/gtest.h>

#include <thread>

#include "support/KorvTest.h"

// The compilers we build with define these under -fsanitize.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KORV_TEST_SANITIZED 1
#endif

static std::atomic<long> gAllocations{0};

#ifndef KORV_TEST_SANITIZED
// operator new comes here too; the dispatch path has no use for calloc or realloc.
extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
#endif

namespace NSCam::NSKorvalite {
namespace {

TEST(EpollMonitorAlloc, DispatchAllocatesNothing) {
#ifdef KORV_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizer owns the allocator";
#endif
    long const probe = gAllocations;
    int* escaped = new int(1);
    asm volatile("" : : "r"(escaped) : "memory");  // keeps the pair from being optimised away
    delete escaped;
    ASSERT_GT(gAllocations, probe) << "allocations are not being counted";

    auto monitor = IEpollMonitor::make("alloc");
    auto handler = ThreadLoopHandler::make();
    ASSERT_EQ(handler->run(std::static_pointer_cast<EpollMonitor>(monitor)), 0);
    korvtest::EventFdObserver level, edge;
    monitor->attach(&level, EPOLLIN);
    monitor->attach(&edge, EPOLLIN | EPOLLET);
    // Batches of one and of two events. Signals and waits by spinning: waitFor's std::function
    // and sleeps would blur the count.
    auto fire = [&](int round) {
        int const expected = level.calls + edge.calls + 1 + round % 2;
        (round % 3 ? level : edge).signal();
        if (round % 2) (round % 3 ? edge : level).signal();
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (level.calls + edge.calls != expected &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        ASSERT_EQ(level.calls + edge.calls, expected);
    };
    // The first rounds let the platform set up what it keeps (trace switches and so on).
    for (int round = 0; round < 6; ++round) fire(round);
    long const before = gAllocations;
    for (int round = 0; round < 3000; ++round) fire(round);
    EXPECT_EQ(gAllocations - before, 0) << "while 4500 events went through";

    // Stopped before the observers go; the worker lets go of the monitor last.
    EXPECT_EQ(handler->requestExitAndWait(), 0);
    monitor->detach(&level);
    monitor->detach(&edge);
    EXPECT_TRUE(korvtest::waitFor([&] { return monitor.use_count() == 1; }));
}

}  // namespace
}  // namespace NSCam::NSKorvalite
