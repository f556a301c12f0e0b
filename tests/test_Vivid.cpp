// The device wrappers against a real V4L2 driver: vivid, the kernel's virtual video test driver,
// loaded with one instance, a video capture node (/dev/video0), its media device (/dev/media0) and
// the request API (`make test-vivid` boots a VM that has them). Skipped where /dev/video0 is not
// vivid's.
//
// What the scripted doubles of test_SystemCall.cpp cannot show: that the buffers and requests the
// wrappers hand over really travel through the driver, what state the driver reports them in, and
// which errno a real driver answers in each situation, since that decides whether a wrapper stays
// quiet or ends the process.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvalite/SystemCall.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>

#include "support/KorvTest.h"

namespace {

namespace System = NSCam::NSKorvalite::System;
using korvtest::tagOf;

v4l2_buffer captureBuffer(unsigned index, int request = -1) {
    v4l2_buffer buffer = {};
    buffer.index = index;
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.flags = request >= 0 ? V4L2_BUF_FLAG_REQUEST_FD : 0;
    buffer.request_fd = request;
    return buffer;
}

// A child's call of a buffer or event wrapper on `fd` with buffer `index`, in room for an event
// (136 bytes, a buffer 88).
std::function<void()> onBuffer(int (*call)(int, void*), int fd, unsigned index) {
    return [=] {
        v4l2_event room = {};
        *reinterpret_cast<v4l2_buffer*>(&room) = captureBuffer(index);
        call(fd, &room);
    };
}

class VividTest : public ::testing::Test {
protected:
    void SetUp() override {
        mVideo = System::Open("/dev/video0", O_RDWR | O_NONBLOCK | O_CLOEXEC, tagOf(mVideo));
        v4l2_capability capability = {};
        if (mVideo < 0 || ioctl(mVideo, VIDIOC_QUERYCAP, &capability) != 0 ||
            strcmp(reinterpret_cast<char const*>(capability.driver), "vivid") != 0)
            GTEST_SKIP() << "no vivid video node at /dev/video0";
        mMedia = System::Open("/dev/media0", O_RDWR | O_CLOEXEC, tagOf(mMedia));
        ASSERT_GE(mMedia, 0);
        // Two driver buffers (vivid starts streaming with two queued) and one request.
        v4l2_requestbuffers buffers = {};
        buffers.count = 2;
        buffers.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffers.memory = V4L2_MEMORY_MMAP;
        ASSERT_EQ(System::Ioctl(mVideo, static_cast<int>(VIDIOC_REQBUFS), &buffers, 1), 0);
        mRequest = System::AllocMediaRequest(mMedia, tagOf(mRequest));
        ASSERT_GE(mRequest, 0);
    }

    // Closing the video node, the queue's owner, stops streaming and frees its buffers.
    void TearDown() override {
        for (int* fd : {&mRequest, &mVideo, &mMedia})
            EXPECT_TRUE(*fd < 0 || System::Close(*fd, tagOf(*fd)) == 0);
    }

    // Runs `call` in a forked child (it shares this process's open device and queue): the
    // exception report names `request` and the driver's errno, and the process ends by SIGTERM.
    // The error line and the order of the ending are the scripted tests' business.
    void expectFatal(std::function<void()> const& call, std::string const& request, int err) {
        auto child = korvtest::runInChild(call);
        EXPECT_EQ(child.signal, SIGTERM) << child.err;
        EXPECT_NE(child.err.find("[korvalite_xem_trigger_exception] - " + request +
                                 " err=" + std::to_string(-err) + "(" + strerror(err) + ")"),
                  std::string::npos)
                << child.err;
    }

    int mVideo = -1;
    int mMedia = -1;
    int mRequest = -1;
    korvtest::ScopedSwitches mSwitches{0x3, 3};  // the children's fatal lines reach their stderr
};

// Buffers travel in requests: held by the request until it is queued; a queued request that has
// not completed refuses re-initialisation; completed, the buffer is dequeued in the driver's
// dequeued state (neither queued nor done); a re-initialised request carries the next buffer; once
// all are back a streaming queue answers -EAGAIN, quietly.
TEST_F(VividTest, RequestsCarryBuffersThroughTheDriver) {
    int second = -1;
    second = System::AllocMediaRequest(mMedia, tagOf(second));
    int const requests[2] = {mRequest, second};
    auto const queueIn = [&](unsigned i) {  // buffer i in request i
        v4l2_buffer buffer = captureBuffer(i, requests[i]);
        ASSERT_EQ(System::QueueVideoNodeBuf(mVideo, &buffer), 0);
        EXPECT_TRUE(buffer.flags & V4L2_BUF_FLAG_IN_REQUEST);
        EXPECT_EQ(System::QueueMediaRequest(requests[i]), 0);
    };
    for (unsigned i : {0u, 1u}) queueIn(i);
    // Queued but not complete (not streaming yet): busy.
    expectFatal([this] { System::ReinitMediaRequest(mRequest); }, "MEDIA_REQUEST_IOC_REINIT",
                EBUSY);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(System::Ioctl(mVideo, static_cast<int>(VIDIOC_STREAMON), &type, 1), 0);
    for (unsigned n = 0; n < 3; ++n) {
        unsigned const i = n % 2;
        pollfd done = {requests[i], POLLPRI, 0};
        // vivid makes a frame every 33 ms; TCG and a busy host are slow.
        ASSERT_EQ(poll(&done, 1, 20000), 1) << "request " << i << " never completed";
        v4l2_buffer buffer = captureBuffer(0);
        ASSERT_EQ(System::DQueueVideoNodeBuf(mVideo, &buffer), 0);
        EXPECT_EQ(std::make_pair(buffer.index, buffer.request_fd), std::make_pair(i, requests[i]));
        EXPECT_EQ(buffer.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_ERROR |
                                  V4L2_BUF_FLAG_TIMESTAMP_MASK | V4L2_BUF_FLAG_REQUEST_FD),
                  V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_REQUEST_FD)
                << std::hex << buffer.flags;
        if (n != 0) continue;
        EXPECT_EQ(System::ReinitMediaRequest(requests[0]), 0);
        queueIn(0);
    }
    v4l2_buffer buffer = captureBuffer(0);
    EXPECT_EQ(System::DQueueVideoNodeBuf(mVideo, &buffer), -EAGAIN);
    EXPECT_EQ(System::Close(second, tagOf(second)), 0);
}

// The driver's refusals, each ending the process with the driver's errno: an empty request; a
// buffer the driver does not have; nothing subscribed to dequeue; before streaming starts nothing
// will ever be ready (vb2 answers EINVAL, not the quiet EAGAIN); a buffer already queued.
TEST_F(VividTest, RefusalsEndTheProcessWithTheDriversErrno) {
    expectFatal([this] { System::QueueMediaRequest(mRequest); }, "MEDIA_REQUEST_IOC_QUEUE", ENOENT);
    expectFatal(onBuffer(System::QueueVideoNodeBuf, mVideo, 2), "VIDIOC_QBUF", EINVAL);
    expectFatal(onBuffer(System::DQueueEvent, mVideo, 0), "VIDIOC_DQEVENT", ENOENT);
    v4l2_buffer queued = captureBuffer(0);
    ASSERT_EQ(System::QueueVideoNodeBuf(mVideo, &queued), 0);
    expectFatal(onBuffer(System::DQueueVideoNodeBuf, mVideo, 0), "VIDIOC_DQBUF", EINVAL);
    expectFatal(onBuffer(System::QueueVideoNodeBuf, mVideo, 0), "VIDIOC_QBUF", EINVAL);
}

}  // namespace
