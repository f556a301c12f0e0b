// Test main: death tests in the thread-safe style (the library runs threads), and a check that
// the whole run ends with the descriptors it started with.

#include <limits.h>
#include <unistd.h>

#include <cutils/trace.h>
#include <gtest/gtest.h>
#include <qrvcam/Properties.h>

#include <string>

#include "support/KorvTest.h"

namespace {

std::string target(int fd) {
    char link[PATH_MAX] = {};
    ssize_t n = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), link, sizeof(link) - 1);
    return n > 0 ? std::string(link, static_cast<size_t>(n)) : std::string("?");
}

// The trace writer keeps one descriptor of its own open for the process's life; which number it
// has depends on when the marker was last switched, so it is not counted.
bool isTraceMarker(int fd) {
    std::string t = target(fd);
    return t.find("trace_marker") != std::string::npos || t.find("korvtest-trace") != std::string::npos;
}

class DescriptorLeakCheck : public ::testing::Environment {
public:
    void SetUp() override {
        // Let the platform open what it keeps for the process's life before the baseline.
        atrace_get_enabled_tags();
        char value[PROPERTY_VALUE_MAX];
        NSCam::Utils::Properties::property_get("korvtest.warmup", value, "");
        mBaseline = filtered();
    }

    void TearDown() override {
        std::set<int> now = filtered();
        if (now == mBaseline) return;
        std::string report;
        for (int fd : now) {
            if (!mBaseline.count(fd)) report += " leaked " + std::to_string(fd) + "->" + target(fd);
        }
        for (int fd : mBaseline) {
            if (!now.count(fd)) report += " closed " + std::to_string(fd);
        }
        ADD_FAILURE() << "descriptors differ from the start of the run:" << report;
    }

private:
    static std::set<int> filtered() {
        std::set<int> fds;
        for (int fd : korvtest::openFds()) {
            if (!isTraceMarker(fd)) fds.insert(fd);
        }
        return fds;
    }

    std::set<int> mBaseline;
};

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::testing::AddGlobalTestEnvironment(new DescriptorLeakCheck);
    return RUN_ALL_TESTS();
}
