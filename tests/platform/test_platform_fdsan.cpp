// Descriptor ownership: tags, refused closes, the interposed close() and the fatal mode.
#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <qrvcam/Properties.h>
#include <qrvcam/fdsan.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

namespace {

constexpr char kFdsanTag[] = "qrvcam-fdsan";
constexpr uint64_t kOwner = UINT64_C(0x0500007ffd1234a0);
constexpr uint64_t kOther = UINT64_C(0x0500007ffd1234b8);

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// A pipe whose ends are closed, whatever their tags, when the test ends.
class Pipe {
public:
    Pipe() { EXPECT_EQ(0, pipe2(mFds, O_CLOEXEC)); }
    ~Pipe() {
        for (int fd : mFds) {
            if (isOpen(fd)) qrvcam_fdsan_close_with_tag(fd, qrvcam_fdsan_get_owner_tag(fd), 0);
        }
    }
    int read() const { return mFds[0]; }
    int write() const { return mFds[1]; }

private:
    int mFds[2] = {-1, -1};
};

std::string refusal(char const* operation, int fd, uint64_t given, uint64_t owner) {
    char text[160];
    snprintf(text, sizeof(text), "%s(fd=%d) refused: tag 0x%llx given, owner tag 0x%llx", operation,
             fd, static_cast<unsigned long long>(given), static_cast<unsigned long long>(owner));
    return text;
}

TEST(PlatformFdsan, CreateTagPutsTheTypeInTheTopByte) {
    EXPECT_EQ(UINT64_C(0x0312345678901234),
              qrvcam_fdsan_create_tag(UINT64_C(0xab12345678901234), 3));
    EXPECT_EQ(UINT64_C(0x0000000000001000), qrvcam_fdsan_create_tag(0x1000, 0));
    EXPECT_EQ(UINT64_C(0xff00000000000001), qrvcam_fdsan_create_tag(1, 0xff));
}

TEST(PlatformFdsan, ExchangeAndCloseNeedTheOwnersTag) {
    korvtest::AndroidLogCapture log;
    Pipe pipe;
    int const fd = pipe.read();
    EXPECT_EQ(0u, qrvcam_fdsan_get_owner_tag(fd));
    ASSERT_EQ(0, qrvcam_fdsan_exchange_tag(fd, 0, kOwner, 0));
    EXPECT_EQ(kOwner, qrvcam_fdsan_get_owner_tag(fd));

    errno = 0;
    EXPECT_EQ(-1, qrvcam_fdsan_exchange_tag(fd, 0, kOther, 0));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(kOwner, qrvcam_fdsan_get_owner_tag(fd));

    errno = 0;
    EXPECT_EQ(-1, qrvcam_fdsan_close_with_tag(fd, kOther, 0));
    EXPECT_EQ(EBADF, errno);
    EXPECT_TRUE(isOpen(fd));
    EXPECT_EQ(kOwner, qrvcam_fdsan_get_owner_tag(fd));

    auto errors = log.withTag(kFdsanTag);
    ASSERT_EQ(2u, errors.size());
    EXPECT_EQ(ANDROID_LOG_ERROR, errors[0].priority);
    EXPECT_EQ(refusal("exchange_tag", fd, 0, kOwner), errors[0].text);
    EXPECT_EQ(refusal("close_with_tag", fd, kOther, kOwner), errors[1].text);

    // Handing over, then closing with the new owner's tag.
    ASSERT_EQ(0, qrvcam_fdsan_exchange_tag(fd, kOwner, kOther, 0));
    EXPECT_EQ(0, qrvcam_fdsan_close_with_tag(fd, kOther, 0));
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(0u, qrvcam_fdsan_get_owner_tag(fd));
    EXPECT_EQ(2u, log.withTag(kFdsanTag).size());
}

// The executable links the ownership library before the C library, so its close() is the
// checking one: an owned descriptor survives a plain close.
TEST(PlatformFdsan, PlainCloseOfAnOwnedDescriptorIsRefused) {
    korvtest::AndroidLogCapture log;
    Pipe pipe;
    int const fd = pipe.write();
    ASSERT_EQ(0, qrvcam_fdsan_exchange_tag(fd, 0, kOwner, 0));
    errno = 0;
    EXPECT_EQ(-1, close(fd));
    EXPECT_EQ(EBADF, errno);
    EXPECT_TRUE(isOpen(fd));
    EXPECT_EQ(std::vector<std::string>{refusal("close", fd, 0, kOwner)}, log.texts(kFdsanTag));

    // Unowned descriptors close as usual, and a closed number starts unowned when reused.
    ASSERT_EQ(0, qrvcam_fdsan_close_with_tag(fd, kOwner, 0));
    int const reused = dup(pipe.read());
    ASSERT_GE(reused, 0);
    EXPECT_EQ(0u, qrvcam_fdsan_get_owner_tag(reused));
    EXPECT_EQ(0, close(reused));
    EXPECT_FALSE(isOpen(reused));
    EXPECT_EQ(1u, log.withTag(kFdsanTag).size());
}

// Every library's call to close() binds to the first definition in the process's search order,
// which for the libraries loaded at start is their load order: ours must come before libc's, also
// for a program that never calls close() itself. (A sanitizer's interceptor may come first; it
// forwards to the next definition, ours.)
TEST(PlatformFdsan, OwnershipLibraryComesBeforeTheCLibrary) {
    std::vector<std::string> order;
    dl_iterate_phdr(
            [](dl_phdr_info* info, size_t, void* data) {
                static_cast<std::vector<std::string>*>(data)->push_back(info->dlpi_name);
                return 0;
            },
            &order);
    auto position = [&order](char const* name) {
        for (size_t i = 0; i < order.size(); ++i) {
            if (order[i].find(name) != std::string::npos) return i;
        }
        return order.size();
    };
    ASSERT_LT(position("libqrvcam_fdsan.so"), order.size());
    EXPECT_LT(position("libqrvcam_fdsan.so"), position("libc.so"));
}

TEST(PlatformFdsan, DescriptorsPastTheFirstThousandAreTracked) {
    Pipe pipe;
    int const high = fcntl(pipe.read(), F_DUPFD_CLOEXEC, 5000);
    if (high < 0) GTEST_SKIP() << "descriptor limit below 5000";
    korvtest::AndroidLogCapture log;
    ASSERT_EQ(0, qrvcam_fdsan_exchange_tag(high, 0, kOwner, 0));
    EXPECT_EQ(kOwner, qrvcam_fdsan_get_owner_tag(high));
    EXPECT_EQ(-1, close(high));
    EXPECT_EQ(0, qrvcam_fdsan_close_with_tag(high, kOwner, 0));
    EXPECT_FALSE(isOpen(high));
}

// Threads racing to take an unowned descriptor: exactly one becomes its owner.
TEST(PlatformFdsan, OneOfManyConcurrentClaimsWins) {
    korvtest::AndroidLogCapture log;
    Pipe pipe;
    int const fd = pipe.read();
    std::atomic<int> winners{0};
    std::atomic<uint64_t> winner{0};
    std::vector<std::thread> threads;
    for (uint64_t i = 1; i <= 4; ++i) {
        threads.emplace_back([&, i] {
            if (qrvcam_fdsan_exchange_tag(fd, 0, kOwner + i, 0) == 0) {
                ++winners;
                winner = kOwner + i;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(1, winners.load());
    EXPECT_EQ(winner.load(), qrvcam_fdsan_get_owner_tag(fd));
    EXPECT_EQ(3u, log.withTag(kFdsanTag).size());
}

TEST(PlatformFdsan, FatalModeAbortsAfterTheErrorLine) {
    korvtest::ChildResult child = korvtest::runInChild([] {
        NSCam::Utils::Properties::property_set("debug.qrvcam.fdsan", "fatal");
        int fds[2];
        if (pipe(fds) != 0) _exit(3);
        qrvcam_fdsan_exchange_tag(fds[0], 0, kOwner, 0);
        close(fds[0]);
        _exit(0);  // not reached when the close aborts
    });
    EXPECT_FALSE(child.exited) << child.err;
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_NE(std::string::npos,
              child.err.find("refused: tag 0x0 given, owner tag 0x500007ffd1234a0"))
            << child.err;
}

}  // namespace
