// Trace on the host: marker lines, enabled tags, and switching the marker file.
#include <cutils/trace.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/KorvTest.h"

namespace {

using korvtest::ScopedProperty;
using Lines = std::vector<std::string>;

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
    atrace_begin_body(std::string(5000, 'n').c_str());  // cut, and the line still ends
    EXPECT_EQ(EBADF, errno);
    std::string const pid = std::to_string(getpid());
    EXPECT_EQ((Lines{"B|" + pid + "|section", "E|" + pid, "C|" + pid + "|counter|-3",
                     "S|" + pid + "|slice|7", "F|" + pid + "|slice|7",
                     "B|" + pid + "|" + std::string(1019 - pid.size(), 'n')}),
              capture.lines());
}

TEST(PlatformTrace, EnabledTagsAreRereadByUpdateTags) {
    korvtest::TraceCapture capture(ATRACE_TAG_CAMERA);
    std::pair<char const*, uint64_t> const cases[] = {{"0x400", 0x400},
                                                      {"18446744073709551615", UINT64_MAX},
                                                      {"18446744073709551616", 0},
                                                      {"-1", 0},
                                                      {"12 ", 0}};
    for (auto const& [text, tags] : cases) {
        {
            ScopedProperty property("debug.atrace.tags.enableflags", text);
            EXPECT_EQ(ATRACE_TAG_CAMERA, atrace_get_enabled_tags()) << "reread before the update";
            atrace_update_tags();
            EXPECT_EQ(tags, atrace_get_enabled_tags()) << text;
        }
        atrace_update_tags();
    }
}

// Switching files reopens on the same descriptor number; without a marker file or a writable
// kernel marker, lines go nowhere and the descriptor is closed.
TEST(PlatformTrace, UpdateTagsReopensTheMarker) {
    std::set<int> const before = korvtest::openFds();
    {
        korvtest::TraceCapture first;
        atrace_begin_body("one");
        std::set<int> const tracing = korvtest::openFds();
        korvtest::TempDir dir;
        {
            ScopedProperty marker("debug.atrace.marker_file", dir.path() + "/second");
            atrace_update_tags();
            atrace_begin_body("two");
        }
        atrace_update_tags();  // back to the first file, appended to
        atrace_begin_body("three");
        EXPECT_EQ(tracing, korvtest::openFds());
        EXPECT_EQ((Lines{"B|one", "B|three"}), first.events());
        EXPECT_EQ(Lines{"B|" + std::to_string(getpid()) + "|two"},
                  korvtest::readLines(dir.path() + "/second"));
    }
    if (!kernelMarkerWritable()) {
        EXPECT_EQ(before, korvtest::openFds());
    }
}

}  // namespace
