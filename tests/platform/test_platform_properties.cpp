// Host properties: in-process values over the properties file over the default, typed parsing.
#include <gtest/gtest.h>
#include <qrvcam/Properties.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/KorvTest.h"

namespace {

using namespace NSCam::Utils::Properties;
using korvtest::ScopedProperty;

std::string get(char const* key, char const* defaultValue, int* length = nullptr) {
    char value[PROPERTY_VALUE_MAX];
    int copied = property_get(key, value, defaultValue);
    if (length != nullptr) *length = copied;
    return value;
}

// The child ran its one test, and it passed: a misspelt test name would run nothing and exit 0.
::testing::AssertionResult passed(korvtest::ChildResult const& child) {
    if (child.exited && child.exitCode == 0 &&
        child.out.find("[  PASSED  ] 1 test.") != std::string::npos) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "child: exited=" << child.exited << " code=" << child.exitCode
           << " signal=" << child.signal << "\n"
           << child.out << child.err;
}

// Runs this executable's disabled test `name` with QRVCAM_PROPERTIES set to `file`.
korvtest::ChildResult runWithFile(std::string const& name, std::string const& file) {
    return korvtest::runChild(
            {"/proc/self/exe", "--gtest_filter=" + name, "--gtest_also_run_disabled_tests"},
            {{"QRVCAM_PROPERTIES", file}});
}

TEST(PlatformProperties, SetValueWinsOverDefaultAndEmptyReadsAsUnset) {
    int length = -1;
    EXPECT_EQ("fallback", get("korvtest.props.unset", "fallback", &length));
    EXPECT_EQ(8, length);
    EXPECT_EQ("", get("korvtest.props.unset", nullptr, &length));
    EXPECT_EQ(0, length);

    ScopedProperty property("korvtest.props.value", "hello");
    EXPECT_EQ("hello", get("korvtest.props.value", "fallback", &length));
    EXPECT_EQ(5, length);

    ASSERT_EQ(0, property_set("korvtest.props.value", ""));
    EXPECT_EQ("fallback", get("korvtest.props.value", "fallback"));
    EXPECT_EQ(-1, property_set(nullptr, "x"));
    EXPECT_EQ(-1, property_set("korvtest.props.value", nullptr));
}

TEST(PlatformProperties, ValuesAndDefaultsAreCutToTheBuffer) {
    std::string const longText(200, 'v');
    ScopedProperty property("korvtest.props.long", longText);
    int length = 0;
    EXPECT_EQ(longText.substr(0, PROPERTY_VALUE_MAX - 1), get("korvtest.props.long", "", &length));
    EXPECT_EQ(PROPERTY_VALUE_MAX - 1, length);
    EXPECT_EQ(longText.substr(0, PROPERTY_VALUE_MAX - 1),
              get("korvtest.props.unset", longText.c_str(), &length));
    EXPECT_EQ(PROPERTY_VALUE_MAX - 1, length);
}

TEST(PlatformProperties, BoolAcceptsOnlyAndroidsWords) {
    struct Case {
        char const* text;
        int8_t expected;  // with the default -1
    };
    Case const cases[] = {{"1", 1},     {"y", 1},    {"yes", 1},  {"on", 1},    {"true", 1},
                          {"0", 0},     {"n", 0},    {"no", 0},   {"off", 0},   {"false", 0},
                          {"TRUE", -1}, {"2", -1},   {"tru", -1}, {" yes", -1}, {"", -1},
                          {"yes!", -1}, {"offf", -1}};
    for (Case const& c : cases) {
        ScopedProperty property("korvtest.props.bool", c.text);
        EXPECT_EQ(c.expected, property_get_bool("korvtest.props.bool", -1)) << '"' << c.text << '"';
    }
    EXPECT_EQ(1, property_get_bool("korvtest.props.unset", 1));
}

TEST(PlatformProperties, IntegersAreDecimalOrHexWithSignAndInRange) {
    struct Case {
        char const* text;
        int32_t int32;  // with the default -7
        int64_t int64;  // with the default -7
    };
    Case const cases[] = {
            {"42", 42, 42},
            {"-42", -42, -42},
            {"+7", 7, 7},
            {"0x1F", 31, 31},
            {"-0x10", -16, -16},
            {"010", 10, 10},
            {"2147483647", INT32_MAX, INT32_MAX},
            {"-2147483648", INT32_MIN, INT32_MIN},
            {"2147483648", -7, INT64_C(2147483648)},
            {"0x80000000", -7, INT64_C(0x80000000)},
            {"0x10001131", 0x10001131, 0x10001131},
            {"9223372036854775807", -7, INT64_MAX},
            {"-9223372036854775808", -7, INT64_MIN},
            {"9223372036854775808", -7, -7},
            {"0xffffffffffffffff", -7, -7},
            {"", -7, -7},
            {"0x", -7, -7},
            {"12a", -7, -7},
            {"0x1g", -7, -7},
            {" 1", -7, -7},
            {"1 ", -7, -7},
    };
    for (Case const& c : cases) {
        ScopedProperty property("korvtest.props.int", c.text);
        EXPECT_EQ(c.int32, property_get_int32("korvtest.props.int", -7)) << '"' << c.text << '"';
        EXPECT_EQ(c.int64, property_get_int64("korvtest.props.int", -7)) << '"' << c.text << '"';
    }
}

// Readers on several threads while another thread keeps setting: every read sees one of the
// values set, whole (and ThreadSanitizer sees the locking).
TEST(PlatformProperties, ReadsAndSetsFromManyThreads) {
    ScopedProperty property("korvtest.props.shared", "0x11111111");
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                int64_t value = property_get_int64("korvtest.props.shared", -1);
                if (value != 0x11111111 && value != 0x22222222) ++bad;
            }
        });
    }
    for (int i = 0; i < 1000; ++i) {
        property_set("korvtest.props.shared", i % 2 ? "0x11111111" : "0x22222222");
        property_set("korvtest.props.other", std::to_string(i).c_str());
    }
    stop = true;
    for (auto& reader : readers) reader.join();
    property_set("korvtest.props.other", "");
    EXPECT_EQ(0, bad.load());
}

TEST(PlatformProperties, FileValuesLieBetweenSetValuesAndDefaults) {
    korvtest::ChildResult child = korvtest::runSelfChild(
            "PlatformPropertiesChild.DISABLED_FileValues", {{"korvtest.file.text", "from-file"},
                                                            {"korvtest.file.number", "0x20"},
                                                            {"korvtest.file.flag", "on"},
                                                            {"korvtest.file.hidden", "file"},
                                                            {"korvtest.file.emptied", "file"}});
    EXPECT_TRUE(passed(child));
}

TEST(PlatformProperties, FileFormatTrimsBlanksAndSkipsComments) {
    korvtest::TempDir dir;
    std::string const path = dir.path() + "/props";
    FILE* file = fopen(path.c_str(), "we");
    ASSERT_NE(nullptr, file);
    fputs("# a comment line\n"
          "   # an indented comment=1\n"
          "\n"
          "  korvtest.file.spaced  =   two words \t\r\n"
          "korvtest.file.noequals\n"
          "=no key\n"
          "korvtest.file.twice=first\n"
          "korvtest.file.twice=second\n"
          "korvtest.file.equals=a=b\n"
          "korvtest.file.blank=   \n"
          "korvtest.file.last=no newline",
          file);
    ASSERT_EQ(0, fclose(file));

    korvtest::ChildResult child = runWithFile("PlatformPropertiesChild.DISABLED_FileFormat", path);
    EXPECT_TRUE(passed(child));

    child = runWithFile("PlatformPropertiesChild.DISABLED_NoFile", dir.path() + "/missing");
    EXPECT_TRUE(passed(child));
}

// --- Run in a child process by the tests above -----------------------------------------------

TEST(PlatformPropertiesChild, DISABLED_FileValues) {
    EXPECT_EQ("from-file", get("korvtest.file.text", "default"));
    EXPECT_EQ(0x20, property_get_int32("korvtest.file.number", 0));
    EXPECT_EQ(1, property_get_bool("korvtest.file.flag", 0));
    EXPECT_EQ("default", get("korvtest.file.absent", "default"));

    property_set("korvtest.file.hidden", "set");
    EXPECT_EQ("set", get("korvtest.file.hidden", "default"));
    // An empty set value hides the file's value as well: the key reads as unset.
    property_set("korvtest.file.emptied", "");
    EXPECT_EQ("default", get("korvtest.file.emptied", "default"));
}

TEST(PlatformPropertiesChild, DISABLED_FileFormat) {
    EXPECT_EQ("two words", get("korvtest.file.spaced", "default"));
    EXPECT_EQ("default", get("# a comment line", "default"));
    EXPECT_EQ("default", get("# an indented comment", "default"));
    EXPECT_EQ("default", get("korvtest.file.noequals", "default"));
    EXPECT_EQ("second", get("korvtest.file.twice", "default"));
    EXPECT_EQ("a=b", get("korvtest.file.equals", "default"));
    EXPECT_EQ("default", get("korvtest.file.blank", "default"));
    EXPECT_EQ("no newline", get("korvtest.file.last", "default"));
}

TEST(PlatformPropertiesChild, DISABLED_NoFile) {
    EXPECT_EQ("default", get("korvtest.file.spaced", "default"));
    EXPECT_EQ(5, property_get_int32("korvtest.file.number", 5));
}

}  // namespace
