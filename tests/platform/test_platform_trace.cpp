// Trace on the host: marker lines, enabled tags, and switching the marker file.
#include <cutils/trace.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

namespace {

using korvtest::ScopedProperty;

std::string readFile(std::string const& path) {
    std::string text;
    if (FILE* file = fopen(path.c_str(), "re")) {
        char buffer[4096];
        size_t got;
        while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0) text.append(buffer, got);
        fclose(file);
    }
    return text;
}

bool kernelMarkerWritable() {
    return access("/sys/kernel/tracing/trace_marker", W_OK) == 0 ||
           access("/sys/kernel/debug/tracing/trace_marker", W_OK) == 0;
}

TEST(PlatformTrace, BodiesWriteAndroidMarkerLinesAndKeepErrno) {
    korvtest::TraceCapture capture;
    errno = EBADF;
    atrace_begin_body("section");
    atrace_end_body();
    atrace_int_body("counter", -3);
    atrace_async_begin_body("slice", 7);
    atrace_async_end_body("slice", 7);
    EXPECT_EQ(EBADF, errno);

    std::string const pid = std::to_string(getpid());
    EXPECT_EQ("B|" + pid + "|section\n" + "E|" + pid + "\n" + "C|" + pid + "|counter|-3\n" + "S|" +
                      pid + "|slice|7\n" + "F|" + pid + "|slice|7\n",
              readFile(capture.path()));

    // A name too long for one line is cut, and the line still ends.
    capture.clear();
    atrace_begin_body(std::string(5000, 'n').c_str());
    std::string const text = readFile(capture.path());
    EXPECT_EQ(1023u, text.size());
    EXPECT_EQ('\n', text.back());
}

TEST(PlatformTrace, EnabledTagsAreRereadByUpdateTags) {
    korvtest::TraceCapture capture(ATRACE_TAG_CAMERA);
    EXPECT_EQ(ATRACE_TAG_CAMERA, atrace_get_enabled_tags());
    struct Case {
        char const* text;
        uint64_t tags;
    };
    Case const cases[] = {{"0x400", 0x400},
                          {"0xffffffffffffffff", UINT64_MAX},
                          {"18446744073709551615", UINT64_MAX},
                          {"18446744073709551616", 0},
                          {"-1", 0},
                          {"12 ", 0}};
    for (Case const& c : cases) {
        {
            ScopedProperty tags("debug.atrace.tags.enableflags", c.text);
            EXPECT_EQ(ATRACE_TAG_CAMERA, atrace_get_enabled_tags()) << "reread before the update";
            atrace_update_tags();
            EXPECT_EQ(c.tags, atrace_get_enabled_tags()) << c.text;
        }
        atrace_update_tags();
    }
}

TEST(PlatformTrace, UpdateTagsMovesTheMarkerOntoTheSameDescriptor) {
    std::set<int> const before = korvtest::openFds();
    {
        korvtest::TraceCapture first;
        atrace_begin_body("one");
        std::set<int> const tracing = korvtest::openFds();

        korvtest::TempDir dir;
        std::string const second = dir.path() + "/second";
        {
            ScopedProperty marker("debug.atrace.marker_file", second);
            atrace_update_tags();
            atrace_begin_body("two");
            // The new file took over the old number: nothing else opened or closed.
            EXPECT_EQ(tracing, korvtest::openFds());
        }
        atrace_update_tags();  // back to the first file, appended to
        atrace_begin_body("three");
        EXPECT_EQ(tracing, korvtest::openFds());

        EXPECT_EQ((std::vector<std::string>{"B|one", "B|three"}), first.events());
        std::string const pid = std::to_string(getpid());
        EXPECT_EQ("B|" + pid + "|two\n", readFile(second));
    }
    // Without a marker file and without a writable kernel marker, lines go nowhere and the
    // descriptor is closed.
    if (!kernelMarkerWritable()) {
        EXPECT_EQ(before, korvtest::openFds());
        atrace_begin_body("nowhere");
    }
}

// Switching the marker while other threads write: every line is whole and in a marker file, and
// none lands in a descriptor opened after the marker went away (a recycled number). The window
// for the last is a few instructions wide, so a run rarely hits it; ThreadSanitizer runs check
// the switching's synchronisation itself.
TEST(PlatformTrace, SwitchingWhileWritingNeverWritesElsewhere) {
    if (kernelMarkerWritable()) GTEST_SKIP() << "needs lines to go nowhere without a marker file";
    korvtest::TempDir dir;
    korvtest::TraceCapture capture;
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < 2; ++i) {
        writers.emplace_back([&stop] {
            while (!stop.load()) atrace_int_body("busy", 1);
        });
    }
    std::vector<std::string> victims;
    for (int round = 0; round < 200; ++round) {
        {
            ScopedProperty nowhere("debug.atrace.marker_file", "");
            atrace_update_tags();
            // Likely to get the number the marker had.
            std::string const victim = dir.path() + "/victim" + std::to_string(round);
            int fd = open(victim.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            ASSERT_GE(fd, 0);
            victims.push_back(victim);
            ASSERT_EQ(0, close(fd));
        }
        atrace_update_tags();
    }
    stop = true;
    for (auto& writer : writers) writer.join();
    for (auto const& victim : victims) EXPECT_EQ("", readFile(victim)) << victim;
    std::regex const line("C\\|[0-9]+\\|busy\\|1");
    for (auto const& text : capture.lines()) {
        EXPECT_TRUE(std::regex_match(text, line)) << text;
    }
}

}  // namespace
