// Trace on the host: the systrace text trace of a marker file, enabled tags, switching files.
#include <cutils/trace.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

namespace {

using korvtest::ScopedProperty;
using Lines = std::vector<std::string>;

int64_t monotonicUs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000000) + now.tv_nsec / 1000;
}

// Several threads at once: each line is whole and matches the pattern by which Perfetto and
// catapult read a systrace text line; it names its thread, process, CPU and monotonic time; and
// each thread's events come in its own order, every B closed by its E on the same thread.
TEST(PlatformTrace, ConcurrentWritersMakeASystraceTextTrace) {
    std::regex const viewerLine(R"(-(\d+)\s+\(?\s*(\d+|-+)?\)?\s?\[(\d+)\]\s*[a-zA-Z0-9.]{0,4})"
                                R"(\s+(\d+\.\d+):\s+(\S+):)");
    std::regex const line(R"((.+)-(\d+) \((\d+)\) \[(\d{3})\] \.{4} (\d+)\.(\d{6}): )"
                          R"(tracing_mark_write: ([BECSF])\|(\d+)(.*))");
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    std::string const pid = std::to_string(getpid());
    std::string const longName(5000, 'n');  // cut to 1022 bytes of marker
    std::map<std::string, Lines> expected;  // by tid: "<name> <kind><rest of the marker>"
    std::mutex mutex;                       // guards expected
    korvtest::TraceCapture capture;
    int64_t const start = monotonicUs();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::string const name = "korvtest-w" + std::to_string(t);
            pthread_setname_np(pthread_self(), name.c_str());
            errno = EBADF;
            Lines mine;
            for (int i = 0; i < kRounds; ++i) {
                atrace_begin_body(name.c_str());
                atrace_begin_body(i == 0 ? longName.c_str() : "inner");
                atrace_int_body("count", -i);
                atrace_async_begin_body("slice", i);
                atrace_async_end_body("slice", i);
                atrace_end_body();
                atrace_end_body();
                std::string const inner = i == 0 ? longName.substr(0, 1019 - pid.size()) : "inner";
                for (std::string const& event : {"B|" + name, "B|" + inner, "C|count|" + std::to_string(-i),
                                                 "S|slice|" + std::to_string(i),
                                                 "F|slice|" + std::to_string(i), std::string("E"),
                                                 std::string("E")}) {
                    mine.push_back(name + " " + event);
                }
            }
            EXPECT_EQ(EBADF, errno);
            std::lock_guard<std::mutex> lock(mutex);
            expected[std::to_string(gettid())] = mine;
        });
    }
    for (auto& thread : threads) thread.join();
    int64_t const end = monotonicUs();

    Lines const lines = korvtest::readLines(capture.path());
    ASSERT_LT(2u, lines.size());
    EXPECT_EQ((Lines{"# tracer: nop", "#"}), Lines(lines.begin(), lines.begin() + 2));
    std::map<std::string, Lines> seen;
    std::map<std::string, int64_t> last;
    for (size_t i = 2; i < lines.size(); ++i) {
        std::smatch m;
        ASSERT_TRUE(std::regex_search(lines[i], viewerLine)) << lines[i];
        ASSERT_TRUE(std::regex_match(lines[i], m, line)) << lines[i];
        EXPECT_EQ(pid, m[3]);
        EXPECT_EQ(pid, m[8]);  // the marker's own process id
        EXPECT_LT(std::stol(m[4]), sysconf(_SC_NPROCESSORS_CONF));
        int64_t const us = std::stoll(m[5]) * 1000000 + std::stoll(m[6]);
        EXPECT_TRUE(start <= us && us <= end && last[m[2]] <= us) << lines[i];
        last[m[2]] = us;
        seen[m[2]].push_back(m.str(1) + " " + m.str(7) + m.str(9));
    }
    EXPECT_EQ(expected, seen);
}

// Tags and the marker file are read at the first trace call and again at atrace_update_tags().
// Switching files reopens on the same descriptor number; a file that holds a trace is appended to
// under its one header; without a marker file or a writable kernel marker, lines go nowhere and
// the descriptor is closed.
TEST(PlatformTrace, UpdateTagsRereadsTagsAndMarkerFile) {
    std::set<int> const before = korvtest::openFds();
    {
        korvtest::TraceCapture first(ATRACE_TAG_CAMERA);
        std::pair<char const*, uint64_t> const cases[] = {{"0x400", 0x400},
                                                          {"18446744073709551615", UINT64_MAX},
                                                          {"18446744073709551616", 0},
                                                          {"-1", 0},
                                                          {"12 ", 0}};
        for (auto const& [text, tags] : cases) {
            {
                ScopedProperty property("debug.atrace.tags.enableflags", text);
                EXPECT_EQ(ATRACE_TAG_CAMERA, atrace_get_enabled_tags()) << "reread too early";
                atrace_update_tags();
                EXPECT_EQ(tags, atrace_get_enabled_tags()) << text;
            }
            atrace_update_tags();
        }
        atrace_begin_body("one");
        std::set<int> const tracing = korvtest::openFds();
        korvtest::TempDir dir;
        {
            ScopedProperty marker("debug.atrace.marker_file", dir.path() + "/second");
            atrace_update_tags();
            atrace_begin_body("two");
        }
        atrace_update_tags();
        atrace_begin_body("three");
        EXPECT_EQ(tracing, korvtest::openFds());
        EXPECT_EQ((Lines{"B|one", "B|three"}), first.events());
        Lines header;
        for (auto const& line : korvtest::readLines(first.path())) {
            if (line[0] == '#') header.push_back(line);
        }
        EXPECT_EQ((Lines{"# tracer: nop", "#"}), header);
        EXPECT_EQ(Lines{"B|two"}, korvtest::traceEvents(dir.path() + "/second"));
    }
    if (access("/sys/kernel/tracing/trace_marker", W_OK) != 0 &&
        access("/sys/kernel/debug/tracing/trace_marker", W_OK) != 0) {
        EXPECT_EQ(before, korvtest::openFds());
    }
}

}  // namespace
