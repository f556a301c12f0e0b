// The device wrappers against a real V4L2 driver: vivid, the kernel's virtual video test driver,
// loaded with one instance, a video capture node (/dev/video0), its media device (/dev/media0) and
// the request API (`make test-vivid` boots a VM that has them). Skipped where /dev/video0 is not
// vivid's.
//
// What the scripted doubles of test_SystemCall.cpp cannot show: that the buffers and
// requests the wrappers hand over really travel through the driver, and which errno a real
// driver answers in each situation, since that decides whether a wrapper stays quiet or ends the
// process.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvalite/SystemCall.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/KorvTest.h"

namespace {

namespace System = NSCam::NSKorvalite::System;

constexpr char kTag[] = "korvalite-syscall";
constexpr char kVideoNode[] = "/dev/video0";
constexpr char kMediaNode[] = "/dev/media0";
constexpr int kPollMs = 20000;  // vivid makes a frame every 33 ms; TCG and a busy host are slow
constexpr unsigned kBufferCount = 4;

unsigned long tagOf(int const& holder) {
    return reinterpret_cast<unsigned long>(&holder);
}

bool isCharDevice(char const* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISCHR(st.st_mode);
}

v4l2_buffer captureBuffer(unsigned index) {
    v4l2_buffer buffer = {};
    buffer.index = index;
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    return buffer;
}

bool pollFor(int fd, short events) {
    pollfd p = {fd, events, 0};
    return poll(&p, 1, kPollMs) == 1 && (p.revents & events) != 0;
}

// The library's own fatal sequence, as the child's stderr shows it: the error line, the report
// with the trace pause, and nothing after the end of the report.
void expectFatalSequence(korvtest::ChildResult const& child, std::string const& line,
                         std::string const& exception) {
    EXPECT_FALSE(child.exited) << child.err;
    EXPECT_EQ(child.signal, SIGTERM) << child.err;
    std::vector<std::string> const pieces = {
            line,
            "trace pause",
            "exception module=tovrix path=null: " + exception,
            "[korvalite_xem_trigger_exception] - " + exception,
    };
    size_t at = 0;
    for (auto const& piece : pieces) {
        size_t found = child.err.find(piece, at);
        ASSERT_NE(found, std::string::npos) << "missing, or out of order: " << piece << "\n"
                                            << child.err;
        at = found + piece.size();
    }
}

std::string exceptionText(std::string const& request, int err) {
    return request + " err=" + std::to_string(-err) + "(" + strerror(err) +
           ") Please check TovrixKernel.";
}

class VividTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!isCharDevice(kVideoNode) || !isCharDevice(kMediaNode)) {
            GTEST_SKIP() << "no " << kVideoNode << " and " << kMediaNode;
        }
        mVideo = System::Open(kVideoNode, O_RDWR | O_NONBLOCK | O_CLOEXEC, tagOf(mVideo));
        ASSERT_GE(mVideo, 0);
        v4l2_capability capability = {};
        if (ioctl(mVideo, VIDIOC_QUERYCAP, &capability) != 0 ||
            strcmp(reinterpret_cast<char const*>(capability.driver), "vivid") != 0) {
            GTEST_SKIP() << kVideoNode << " is not vivid's";
        }
        mMedia = System::Open(kMediaNode, O_RDWR | O_CLOEXEC, tagOf(mMedia));
        ASSERT_GE(mMedia, 0);
        v4l2_format format = {};
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ASSERT_EQ(ioctl(mVideo, VIDIOC_G_FMT, &format), 0) << strerror(errno);
        mFrameSize = format.fmt.pix.sizeimage;
        ASSERT_GT(mFrameSize, 0u);
        mSwitches.mode(0x3).details(3);
    }

    void TearDown() override {
        if (mVideo >= 0) {
            int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            ioctl(mVideo, VIDIOC_STREAMOFF, &type);
            for (void* map : mMaps) munmap(map, mFrameSize);
            v4l2_requestbuffers none = {};
            none.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            none.memory = V4L2_MEMORY_MMAP;
            ioctl(mVideo, VIDIOC_REQBUFS, &none);
            EXPECT_EQ(System::Close(mVideo, tagOf(mVideo)), 0);
        }
        if (mMedia >= 0) {
            EXPECT_EQ(System::Close(mMedia, tagOf(mMedia)), 0);
        }
    }

    // `count` driver buffers, each mapped so that its contents can be looked at.
    void allocate(unsigned count) {
        v4l2_requestbuffers request = {};
        request.count = count;
        request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        request.memory = V4L2_MEMORY_MMAP;
        ASSERT_EQ(System::Ioctl(mVideo, static_cast<int>(VIDIOC_REQBUFS), &request, 1), 0);
        ASSERT_EQ(request.count, count);
        for (unsigned i = 0; i < count; ++i) {
            v4l2_buffer buffer = captureBuffer(i);
            ASSERT_EQ(System::Ioctl(mVideo, static_cast<int>(VIDIOC_QUERYBUF), &buffer, 1), 0);
            void* map =
                    mmap(nullptr, buffer.length, PROT_READ, MAP_SHARED, mVideo, buffer.m.offset);
            ASSERT_NE(map, MAP_FAILED) << strerror(errno);
            mMaps.push_back(map);
        }
    }

    void streamOn() {
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ASSERT_EQ(System::Ioctl(mVideo, static_cast<int>(VIDIOC_STREAMON), &type, 1), 0);
    }

    // A dequeued buffer is the caller's again (neither queued nor done: the driver reports it in
    // its dequeued state), has no error, a monotonic time stamp, and a whole frame of vivid's
    // test pattern in the buffer the driver names.
    void expectFrame(v4l2_buffer const& buffer) {
        EXPECT_EQ(buffer.bytesused, mFrameSize);
        EXPECT_EQ(buffer.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_ERROR),
                  0u)
                << std::hex << buffer.flags;
        EXPECT_EQ(buffer.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK, V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC);
        EXPECT_TRUE(buffer.timestamp.tv_sec != 0 || buffer.timestamp.tv_usec != 0);
        ASSERT_LT(buffer.index, mMaps.size());
        auto const* bytes = static_cast<unsigned char const*>(mMaps[buffer.index]);
        EXPECT_TRUE(std::any_of(bytes, bytes + mFrameSize, [](unsigned char b) { return b != 0; }))
                << "buffer " << buffer.index << " holds no frame";
    }

    int mVideo = -1;
    int mMedia = -1;
    unsigned mFrameSize = 0;
    std::vector<void*> mMaps;
    // Both routes on, at the error level: the children's fatal lines reach their stderr.
    korvtest::ScopedSwitches mSwitches;
};

// Buffers go round through the wrappers: every queued buffer comes back with a frame, in order,
// with rising sequence numbers; once all are back, the non-blocking dequeue answers -EAGAIN and
// nothing is logged on the way.
TEST_F(VividTest, BuffersQueuedThroughTheWrappersComeBackWithFrames) {
    korvtest::AndroidLogCapture log;
    allocate(kBufferCount);
    for (unsigned i = 0; i < kBufferCount; ++i) {
        v4l2_buffer buffer = captureBuffer(i);
        ASSERT_EQ(System::QueueVideoNodeBuf(mVideo, &buffer), 0);
        EXPECT_TRUE(buffer.flags & V4L2_BUF_FLAG_QUEUED);
    }
    streamOn();

    // Two rounds: each buffer dequeued, the first round's requeued.
    std::vector<unsigned> order;
    std::vector<unsigned> sequences;
    for (unsigned n = 0; n < 2 * kBufferCount; ++n) {
        ASSERT_TRUE(pollFor(mVideo, POLLIN)) << "no frame after " << n;
        v4l2_buffer buffer = captureBuffer(0);
        ASSERT_EQ(System::DQueueVideoNodeBuf(mVideo, &buffer), 0);
        expectFrame(buffer);
        order.push_back(buffer.index);
        sequences.push_back(buffer.sequence);
        if (n < kBufferCount) {
            v4l2_buffer again = captureBuffer(buffer.index);
            ASSERT_EQ(System::QueueVideoNodeBuf(mVideo, &again), 0);
        }
    }
    EXPECT_EQ(order, (std::vector<unsigned>{0, 1, 2, 3, 0, 1, 2, 3}));
    EXPECT_TRUE(std::is_sorted(sequences.begin(), sequences.end()));
    EXPECT_EQ(std::adjacent_find(sequences.begin(), sequences.end()), sequences.end());

    v4l2_buffer buffer = captureBuffer(0);
    EXPECT_EQ(System::DQueueVideoNodeBuf(mVideo, &buffer), -EAGAIN);
    EXPECT_TRUE(log.withTag(kTag).empty());
}

// Each buffer travels in a media request of its own: allocated, filled, queued, completed, and a
// re-initialised request carries the next buffer.
TEST_F(VividTest, RequestsCarryBuffersAndCanBeReused) {
    korvtest::AndroidLogCapture log;
    allocate(2);  // vivid starts streaming with two buffers queued
    int requests[2] = {-1, -1};
    for (unsigned i = 0; i < 2; ++i) {
        requests[i] = System::AllocMediaRequest(mMedia, tagOf(requests[i]));
        ASSERT_GE(requests[i], 0);
        v4l2_buffer buffer = captureBuffer(i);
        buffer.flags = V4L2_BUF_FLAG_REQUEST_FD;
        buffer.request_fd = requests[i];
        ASSERT_EQ(System::QueueVideoNodeBuf(mVideo, &buffer), 0);
        // Held by the request until the request itself is queued.
        EXPECT_TRUE(buffer.flags & V4L2_BUF_FLAG_IN_REQUEST);
        EXPECT_EQ(System::QueueMediaRequest(requests[i]), 0);
    }
    streamOn();

    auto complete = [&](unsigned i) {
        ASSERT_TRUE(pollFor(requests[i], POLLPRI)) << "request " << i << " never completed";
        ASSERT_TRUE(pollFor(mVideo, POLLIN));
        v4l2_buffer buffer = captureBuffer(0);
        ASSERT_EQ(System::DQueueVideoNodeBuf(mVideo, &buffer), 0);
        EXPECT_EQ(buffer.index, i);
        EXPECT_TRUE(buffer.flags & V4L2_BUF_FLAG_REQUEST_FD);
        EXPECT_EQ(buffer.request_fd, requests[i]);
        expectFrame(buffer);
    };
    complete(0);
    complete(1);

    EXPECT_EQ(System::ReinitMediaRequest(requests[0]), 0);
    v4l2_buffer buffer = captureBuffer(0);
    buffer.flags = V4L2_BUF_FLAG_REQUEST_FD;
    buffer.request_fd = requests[0];
    ASSERT_EQ(System::QueueVideoNodeBuf(mVideo, &buffer), 0);
    ASSERT_EQ(System::QueueMediaRequest(requests[0]), 0);
    complete(0);

    EXPECT_TRUE(log.withTag(kTag).empty());
    for (int& request : requests) {
        EXPECT_EQ(System::Close(request, tagOf(request)), 0);
    }
}

// The driver's refusals, each in a forked child (it shares this process's open device, so it works
// on the same queue): the wrapper reports the driver's errno and the process ends.
TEST_F(VividTest, RefusalsEndTheProcessWithTheDriversErrno) {
    allocate(2);
    int request = -1;
    request = System::AllocMediaRequest(mMedia, tagOf(request));
    ASSERT_GE(request, 0);
    int const video = mVideo;

    // A request with nothing in it cannot be queued.
    auto child = korvtest::runInChild([request] { System::QueueMediaRequest(request); });
    expectFatalSequence(child,
                        "[QueueMediaRequest] ioctl(" + std::to_string(request) +
                                ", MEDIA_REQUEST_IOC_QUEUE): err=-2(No such file or directory)",
                        exceptionText("MEDIA_REQUEST_IOC_QUEUE", ENOENT));

    // A buffer the driver does not have.
    child = korvtest::runInChild([video] {
        v4l2_buffer buffer = captureBuffer(2);
        System::QueueVideoNodeBuf(video, &buffer);
    });
    expectFatalSequence(child,
                        "[QueueVideoNodeBuf] ioctl(" + std::to_string(video) +
                                ", VIDIOC_QBUF): -22(Invalid argument)",
                        exceptionText("VIDIOC_QBUF", EINVAL));

    // Before streaming starts nothing will ever be ready: vb2 answers EINVAL, not EAGAIN, so the
    // quiet path does not apply.
    v4l2_buffer queued = captureBuffer(0);
    ASSERT_EQ(System::QueueVideoNodeBuf(mVideo, &queued), 0);
    child = korvtest::runInChild([video] {
        v4l2_buffer buffer = captureBuffer(0);
        System::DQueueVideoNodeBuf(video, &buffer);
    });
    expectFatalSequence(child,
                        "[DQueueVideoNodeBuf] ioctl(" + std::to_string(video) +
                                ", VIDIOC_DQBUF): -22(Invalid argument)",
                        exceptionText("VIDIOC_DQBUF", EINVAL));

    // A buffer already queued cannot be queued again.
    child = korvtest::runInChild([video] {
        v4l2_buffer buffer = captureBuffer(0);
        System::QueueVideoNodeBuf(video, &buffer);
    });
    expectFatalSequence(child,
                        "[QueueVideoNodeBuf] ioctl(" + std::to_string(video) +
                                ", VIDIOC_QBUF): -22(Invalid argument)",
                        exceptionText("VIDIOC_QBUF", EINVAL));

    EXPECT_EQ(System::Close(request, tagOf(request)), 0);
}

// A queued request that has not completed is busy: re-initialising it ends the process.
TEST_F(VividTest, ReinitOfARequestInFlightEndsTheProcess) {
    allocate(2);
    int request = -1;
    request = System::AllocMediaRequest(mMedia, tagOf(request));
    ASSERT_GE(request, 0);
    v4l2_buffer buffer = captureBuffer(0);
    buffer.flags = V4L2_BUF_FLAG_REQUEST_FD;
    buffer.request_fd = request;
    ASSERT_EQ(System::QueueVideoNodeBuf(mVideo, &buffer), 0);
    ASSERT_EQ(System::QueueMediaRequest(request), 0);  // not streaming: it stays queued

    auto child = korvtest::runInChild([request] { System::ReinitMediaRequest(request); });
    expectFatalSequence(child,
                        "[ReinitMediaRequest] ioctl(" + std::to_string(request) +
                                ", MEDIA_REQUEST_IOC_REINIT): err=-16(Device or resource busy)",
                        exceptionText("MEDIA_REQUEST_IOC_REINIT", EBUSY));
    EXPECT_EQ(System::Close(request, tagOf(request)), 0);
}

}  // namespace
