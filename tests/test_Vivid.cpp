// The device wrappers against a real V4L2 driver: vivid, the kernel's virtual video test driver,
// loaded with one instance, a video capture node (/dev/video0), its media device (/dev/media0) and
// the request API (`make test-vivid` boots a VM that has them). Skipped where /dev/video0 is not
// vivid's.
//
// What the scripted doubles of test_SystemCall.cpp cannot show: that the buffers and requests the
// wrappers hand over really travel through the driver, what state the driver reports them in, and
// which errno a real driver answers in each situation, since that decides whether a wrapper stays
// quiet or ends the process.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvalite/SystemCall.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "support/KorvTest.h"

namespace {

namespace System = NSCam::NSKorvalite::System;

constexpr char kVideoNode[] = "/dev/video0";
constexpr char kMediaNode[] = "/dev/media0";
constexpr int kPollMs = 20000;  // vivid makes a frame every 33 ms; TCG and a busy host are slow

unsigned long tagOf(int const& holder) {
    return reinterpret_cast<unsigned long>(&holder);
}

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
        v4l2_buffer const buffer = captureBuffer(index);
        memcpy(&room, &buffer, sizeof(buffer));
        call(fd, &room);
    };
}

class VividTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (access(kVideoNode, F_OK) != 0 || access(kMediaNode, F_OK) != 0) {
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
        // Two driver buffers (vivid starts streaming with two queued) and one request.
        ASSERT_EQ(requestBuffers(2), 0);
        mRequest = System::AllocMediaRequest(mMedia, tagOf(mRequest));
        ASSERT_GE(mRequest, 0);
        mSwitches.mode(0x3).details(3);  // the children's fatal lines reach their stderr
    }

    void TearDown() override {
        if (mVideo < 0) return;
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ioctl(mVideo, VIDIOC_STREAMOFF, &type);
        requestBuffers(0);
        for (int* fd : {&mRequest, &mVideo, &mMedia}) {
            if (*fd >= 0) {
                EXPECT_EQ(System::Close(*fd, tagOf(*fd)), 0);
            }
        }
    }

    int requestBuffers(unsigned count) {
        v4l2_requestbuffers buffers = {};
        buffers.count = count;
        buffers.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffers.memory = V4L2_MEMORY_MMAP;
        return System::Ioctl(mVideo, static_cast<int>(VIDIOC_REQBUFS), &buffers, 1);
    }

    // Runs `call` in a forked child (it shares this process's open device and queue): the wrapper
    // `name` reports the driver's errno for `request` on `fd` (the media requests as "err=%d"),
    // the report follows, and the process ends by SIGTERM.
    void expectFatal(std::function<void()> const& call, std::string const& name, int fd,
                     std::string const& request, int err) {
        auto child = korvtest::runInChild(call);
        EXPECT_EQ(child.signal, SIGTERM) << child.err;
        std::string const error = std::to_string(-err) + "(" + strerror(err) + ")";
        std::string const report = request + " err=" + error + " Please check TovrixKernel.";
        size_t at = 0;
        for (auto const& piece :
             {"[" + name + "] ioctl(" + std::to_string(fd) + ", " + request +
                      (request[0] == 'M' ? "): err=" : "): ") + error,
              std::string("trace pause"), "exception module=tovrix path=null: " + report,
              "[korvalite_xem_trigger_exception] - " + report}) {
            at = child.err.find(piece, at);
            ASSERT_NE(at, std::string::npos) << "missing, or out of order: " << piece << "\n"
                                             << child.err;
        }
    }

    int mVideo = -1;
    int mMedia = -1;
    int mRequest = -1;
    korvtest::ScopedSwitches mSwitches;
};

// Buffers travel in requests: held by the request until it is queued; a queued request that has
// not completed refuses re-initialisation; completed, the buffer is dequeued in the driver's
// dequeued state (neither queued nor done); a re-initialised request carries the next buffer; once
// all are back a streaming queue answers -EAGAIN, quietly.
TEST_F(VividTest, RequestsCarryBuffersThroughTheDriver) {
    int second = -1;
    second = System::AllocMediaRequest(mMedia, tagOf(second));
    int const requests[2] = {mRequest, second};
    for (unsigned i = 0; i < 2; ++i) {
        v4l2_buffer buffer = captureBuffer(i, requests[i]);
        ASSERT_EQ(System::QueueVideoNodeBuf(mVideo, &buffer), 0);
        EXPECT_TRUE(buffer.flags & V4L2_BUF_FLAG_IN_REQUEST);
        EXPECT_EQ(System::QueueMediaRequest(requests[i]), 0);
    }
    // Queued but not complete (not streaming yet): busy.
    expectFatal([request = mRequest] { System::ReinitMediaRequest(request); }, "ReinitMediaRequest",
                mRequest, "MEDIA_REQUEST_IOC_REINIT", EBUSY);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(System::Ioctl(mVideo, static_cast<int>(VIDIOC_STREAMON), &type, 1), 0);
    for (unsigned n = 0; n < 3; ++n) {
        unsigned const i = n % 2;
        pollfd done = {requests[i], POLLPRI, 0};
        ASSERT_EQ(poll(&done, 1, kPollMs), 1) << "request " << i << " never completed";
        v4l2_buffer buffer = captureBuffer(0);
        ASSERT_EQ(System::DQueueVideoNodeBuf(mVideo, &buffer), 0);
        EXPECT_EQ(std::make_pair(buffer.index, buffer.request_fd), std::make_pair(i, requests[i]));
        EXPECT_EQ(buffer.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_ERROR |
                                  V4L2_BUF_FLAG_TIMESTAMP_MASK | V4L2_BUF_FLAG_REQUEST_FD),
                  V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_REQUEST_FD)
                << std::hex << buffer.flags;
        if (n != 0) continue;
        EXPECT_EQ(System::ReinitMediaRequest(requests[0]), 0);
        buffer = captureBuffer(0, requests[0]);
        ASSERT_EQ(System::QueueVideoNodeBuf(mVideo, &buffer), 0);
        ASSERT_EQ(System::QueueMediaRequest(requests[0]), 0);
    }
    v4l2_buffer buffer = captureBuffer(0);
    EXPECT_EQ(System::DQueueVideoNodeBuf(mVideo, &buffer), -EAGAIN);
    EXPECT_EQ(System::Close(second, tagOf(second)), 0);
}

// The driver's refusals, each ending the process with the driver's errno: an empty request; a
// buffer the driver does not have; nothing subscribed to dequeue; before streaming starts nothing
// will ever be ready (vb2 answers EINVAL, not the quiet EAGAIN); a buffer already queued.
TEST_F(VividTest, RefusalsEndTheProcessWithTheDriversErrno) {
    int const video = mVideo;
    int const request = mRequest;
    expectFatal([request] { System::QueueMediaRequest(request); }, "QueueMediaRequest", request,
                "MEDIA_REQUEST_IOC_QUEUE", ENOENT);
    expectFatal(onBuffer(System::QueueVideoNodeBuf, video, 2), "QueueVideoNodeBuf", video,
                "VIDIOC_QBUF", EINVAL);
    expectFatal(onBuffer(System::DQueueEvent, video, 0), "DQueueEvent", video, "VIDIOC_DQEVENT",
                ENOENT);
    v4l2_buffer queued = captureBuffer(0);
    ASSERT_EQ(System::QueueVideoNodeBuf(mVideo, &queued), 0);
    expectFatal(onBuffer(System::DQueueVideoNodeBuf, video, 0), "DQueueVideoNodeBuf", video,
                "VIDIOC_DQBUF", EINVAL);
    expectFatal(onBuffer(System::QueueVideoNodeBuf, video, 0), "QueueVideoNodeBuf", video,
                "VIDIOC_QBUF", EINVAL);
}

}  // namespace
