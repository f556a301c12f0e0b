// Test main: death tests in the thread-safe style (the library runs threads), and a check that
// the whole run ends with the descriptors it started with.

#include <cutils/trace.h>
#include <gtest/gtest.h>
#include <qrvcam/Properties.h>

#include <filesystem>
#include <map>
#include <string>

#include "support/KorvTest.h"

namespace {

// The descriptors open now and their targets. The trace writer's own is left out: it stays open
// for the process's life, under a number that depends on when the marker was last switched.
std::map<int, std::string> descriptors() {
    std::map<int, std::string> result;
    for (int fd : korvtest::openFds()) {
        std::error_code ignored;
        std::string const target =
                std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), ignored);
        if (target.find("trace_marker") == std::string::npos &&
            target.find("korvtest-trace") == std::string::npos) {
            result[fd] = target;
        }
    }
    return result;
}

class DescriptorLeakCheck : public ::testing::Environment {
public:
    void SetUp() override {
        // Let the platform open what it keeps for the process's life before the baseline.
        atrace_get_enabled_tags();
        char value[PROPERTY_VALUE_MAX];
        NSCam::Utils::Properties::property_get("korvtest.warmup", value, "");
        mBaseline = descriptors();
    }

    void TearDown() override {
        EXPECT_EQ(mBaseline, descriptors()) << "descriptors differ from the start of the run";
    }

private:
    std::map<int, std::string> mBaseline;
};

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::testing::AddGlobalTestEnvironment(new DescriptorLeakCheck);
    return RUN_ALL_TESTS();
}
