// The host platform's systrace text trace of a marker file. (Properties, descriptor ownership and
// the log routes are exercised through the library's own tests.)
#include <cutils/trace.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

namespace {

using Texts = std::vector<std::string>;

int64_t monotonicUs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000000) + now.tv_nsec / 1000;
}

// Several threads at once: each line is whole and in the systrace text form that Perfetto and
// catapult read ("<task>-<tid> (<pid>) [<cpu>] .... <s>.<us>: tracing_mark_write: <marker>"); it
// names its thread, process, CPU and monotonic time; and each thread's events come in its own
// order, every B closed by its E on the same thread.
TEST(PlatformTrace, ConcurrentWritersMakeASystraceTextTrace) {
    std::regex const line(R"((.+)-(\d+) \((\d+)\) \[(\d{3})\] \.{4} (\d+)\.(\d{6}): )"
                          R"(tracing_mark_write: ([BE])\|(\d+)(.*))");
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    std::string const pid = std::to_string(getpid());
    std::string const longName(5000, 'n');  // cut to 1022 bytes of marker
    korvtest::TraceCapture capture;
    int64_t const start = monotonicUs();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::string const name = "korvtest-w" + std::to_string(t);
            pthread_setname_np(pthread_self(), name.c_str());
            for (int i = 0; i < kRounds; ++i) {
                EXPECT_EQ(ATRACE_TAG_CAMERA, atrace_get_enabled_tags());
                atrace_begin_body(name.c_str());
                atrace_begin_body(i == 0 ? longName.c_str() : "inner");
                atrace_end_body();
                atrace_end_body();
            }
        });
    }
    for (int i = 0; i < 50; ++i) atrace_update_tags();  // the same tags and file, reread meanwhile
    for (auto& thread : threads) thread.join();

    Texts const lines = korvtest::readLines(capture.path());
    ASSERT_LT(2u, lines.size());
    EXPECT_EQ((Texts{"# tracer: nop", "#"}), Texts(lines.begin(), lines.begin() + 2));
    std::map<std::string, Texts> seen;
    std::map<std::string, int64_t> last;
    for (size_t i = 2; i < lines.size(); ++i) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(lines[i], m, line)) << lines[i];
        EXPECT_TRUE(m[3] == pid && m[8] == pid) << lines[i];  // the line's and the marker's
        EXPECT_LT(std::stol(m[4]), sysconf(_SC_NPROCESSORS_CONF));
        int64_t const us = std::stoll(m[5]) * 1000000 + std::stoll(m[6]);
        EXPECT_TRUE(start <= us && us <= monotonicUs() && last[m[2]] <= us) << lines[i];
        last[m[2]] = us;
        seen[m[2]].push_back(m.str(1) + " " + m.str(7) + m.str(9));
    }
    for (auto const& [tid, events] : seen) {
        std::string const name = events[0].substr(0, events[0].find(' '));  // "korvtest-w<t>"
        Texts expected;
        for (int i = 0; i < kRounds; ++i) {
            std::string const inner = i == 0 ? longName.substr(0, 1019 - pid.size()) : "inner";
            for (auto const& event :
                 {"B|" + name, "B|" + inner, std::string("E"), std::string("E")}) {
                expected.push_back(name + " " + event);
            }
        }
        EXPECT_EQ(expected, events) << "thread " << tid;
    }
}

}  // namespace
