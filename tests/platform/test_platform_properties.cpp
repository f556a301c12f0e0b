// Host properties: in-process values over the properties file over the default, typed parsing.
#include <gtest/gtest.h>
#include <qrvcam/Properties.h>

#include <fstream>
#include <string>

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

TEST(PlatformProperties, SetValueOverDefaultCutToTheBuffer) {
    int length = -1;
    EXPECT_EQ("fallback", get("korvtest.props.unset", "fallback", &length));
    EXPECT_EQ(8, length);
    std::string const longText(200, 'v');
    ScopedProperty property("korvtest.props.value", longText);
    EXPECT_EQ(longText.substr(0, PROPERTY_VALUE_MAX - 1), get("korvtest.props.value", "", &length));
    EXPECT_EQ(PROPERTY_VALUE_MAX - 1, length);
    ASSERT_EQ(0, property_set("korvtest.props.value", ""));  // empty reads as unset
    EXPECT_EQ("fallback", get("korvtest.props.value", "fallback"));
}

TEST(PlatformProperties, TypedReadsFollowAndroidsParsing) {
    std::pair<char const*, int> const bools[] = {
            {"1", 1},     {"y", 1},     {"yes", 1},   {"on", 1},  {"true", 1},
            {"0", 0},     {"n", 0},     {"no", 0},    {"off", 0}, {"false", 0},
            {"TRUE", -7}, {"offf", -7}, {" yes", -7}, {"", -7}};
    for (auto const& [text, value] : bools) {
        ScopedProperty property("korvtest.props.typed", text);
        EXPECT_EQ(value, property_get_bool("korvtest.props.typed", -7)) << '"' << text << '"';
    }
    // Integers: decimal, 0x hexadecimal, a sign; the 32-bit read refuses what does not fit.
    std::pair<char const*, int64_t> const integers[] = {
            {"-0x10", -16}, {"+7", 7},   {"010", 10}, {"0x80000000", 0x80000000},
            {"0x", -7},     {"12a", -7}, {" 1", -7},  {"9223372036854775808", -7}};
    for (auto const& [text, value] : integers) {
        ScopedProperty property("korvtest.props.typed", text);
        EXPECT_EQ(value, property_get_int64("korvtest.props.typed", -7)) << '"' << text << '"';
        EXPECT_EQ(value == 0x80000000 ? -7 : value, property_get_int32("korvtest.props.typed", -7));
    }
}

TEST(PlatformProperties, FileValuesLieBetweenSetValuesAndDefaults) {
    korvtest::TempDir dir;
    std::ofstream(dir.path() + "/props")
            << "# a comment=1\n\n  korvtest.file.spaced  =   two words \t\r\n"
               "korvtest.file.noequals\nkorvtest.file.twice=first\nkorvtest.file.twice=second\n"
               "korvtest.file.equals=a=b\nkorvtest.file.number=0x20\nkorvtest.file.hidden=file\n"
               "korvtest.file.emptied=file\nkorvtest.file.last=no newline";
    auto run = [](std::string const& properties) {
        return korvtest::runChild({"/proc/self/exe", "--gtest_filter=PlatformPropertiesChild.*",
                                   "--gtest_also_run_disabled_tests"},
                                  {{"QRVCAM_PROPERTIES", properties}});
    };
    korvtest::ChildResult child = run(dir.path() + "/props");
    // The count: a misspelt test name would run nothing and exit 0.
    EXPECT_TRUE(child.exited && child.exitCode == 0 &&
                child.out.find("[  PASSED  ] 1 test.") != std::string::npos)
            << child.out << child.err;
    EXPECT_TRUE(run(dir.path() + "/missing").exited);  // fails its checks, but does not crash
}

TEST(PlatformPropertiesChild, DISABLED_FileValues) {
    property_set("korvtest.file.hidden", "set");
    property_set("korvtest.file.emptied", "");  // hides the file's value as well
    std::pair<char const*, char const*> const cases[] = {
            {"korvtest.file.spaced", "two words"}, {"# a comment", "default"},
            {"korvtest.file.noequals", "default"}, {"korvtest.file.twice", "second"},
            {"korvtest.file.equals", "a=b"},       {"korvtest.file.last", "no newline"},
            {"korvtest.file.hidden", "set"},       {"korvtest.file.emptied", "default"}};
    for (auto const& [key, value] : cases) EXPECT_EQ(value, get(key, "default")) << key;
    EXPECT_EQ(0x20, property_get_int32("korvtest.file.number", 0));
}

}  // namespace
