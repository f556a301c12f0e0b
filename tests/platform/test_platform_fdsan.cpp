// Descriptor ownership: tags, refused closes, the interposed close() and the fatal mode.
#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <qrvcam/Properties.h>
#include <qrvcam/fdsan.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/KorvTest.h"

namespace {

constexpr uint64_t kOwner = UINT64_C(0x0500007ffd1234a0);
constexpr uint64_t kOther = UINT64_C(0x0500007ffd1234b8);

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// -1 with EBADF.
bool refused(int result) {
    int const error = errno;
    errno = 0;
    return result == -1 && error == EBADF;
}

std::string refusal(char const* operation, int fd, uint64_t given) {
    char text[160];
    snprintf(text, sizeof(text), "%s(fd=%d) refused: tag 0x%llx given, owner tag 0x%llx", operation,
             fd, static_cast<unsigned long long>(given), static_cast<unsigned long long>(kOwner));
    return text;
}

// On a low descriptor and on one past the first thousand; the plain close() is the interposed,
// checking one.
TEST(PlatformFdsan, OnlyTheOwnersTagExchangesOrCloses) {
    EXPECT_EQ(UINT64_C(0xff12345678901234),
              qrvcam_fdsan_create_tag(UINT64_C(0xab12345678901234), 0xff));
    int fds[2];
    ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
    for (int fd : {fds[0], fcntl(fds[1], F_DUPFD_CLOEXEC, 5000)}) {
        if (fd < 0) continue;  // descriptor limit below 5000
        korvtest::AndroidLogCapture log;
        ASSERT_EQ(0, qrvcam_fdsan_exchange_tag(fd, 0, kOwner, 0));
        errno = 0;
        EXPECT_TRUE(refused(qrvcam_fdsan_exchange_tag(fd, 0, kOther, 0)));
        EXPECT_TRUE(refused(qrvcam_fdsan_close_with_tag(fd, kOther, 0)));
        EXPECT_TRUE(refused(close(fd)));
        EXPECT_TRUE(isOpen(fd));
        EXPECT_EQ(kOwner, qrvcam_fdsan_get_owner_tag(fd));
        EXPECT_EQ((std::vector<std::string>{refusal("exchange_tag", fd, 0),
                                            refusal("close_with_tag", fd, kOther),
                                            refusal("close", fd, 0)}),
                  log.texts("qrvcam-fdsan"));
        EXPECT_EQ(ANDROID_LOG_ERROR, log.withTag("qrvcam-fdsan").at(0).priority);

        ASSERT_EQ(0, qrvcam_fdsan_exchange_tag(fd, kOwner, kOther, 0));  // handed over
        EXPECT_EQ(0, qrvcam_fdsan_close_with_tag(fd, kOther, 0));
        EXPECT_FALSE(isOpen(fd));
        // The number starts unowned when reused, and unowned descriptors close as usual.
        EXPECT_EQ(fd, fcntl(fds[1], F_DUPFD_CLOEXEC, fd));
        EXPECT_EQ(0u, qrvcam_fdsan_get_owner_tag(fd));
        EXPECT_EQ(0, close(fd));
        EXPECT_EQ(3u, log.records().size());
    }
    EXPECT_EQ(0, close(fds[1]));
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
    EXPECT_EQ(SIGABRT, child.signal) << child.err;
    EXPECT_NE(std::string::npos,
              child.err.find("refused: tag 0x0 given, owner tag 0x500007ffd1234a0"))
            << child.err;
}

}  // namespace
