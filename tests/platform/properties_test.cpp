#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "platform/devicepath.h"
#include "tests/support/testsupport.h"

namespace {

using corvanetest::TestSysroot;

TEST(PropertiesTest, ConvertsLikeTheDevice) {
    TestSysroot sysroot;
    struct Case {
        const char* value;
        int32_t expected;
    } cases[] = {
        {"1", 1},
        {"0x103E8", 0x103E8},
        {"010", 8},
        {"  42", 42},
        {"42abc", 42},
        {"-2147483648", INT32_MIN},
        {"2147483647", INT32_MAX},
        {"2147483648", -7},
        {"-2147483649", -7},
        {"99999999999999999999999", -7},
        {"abc", -7},
        {"", -7},
    };
    for (const Case& c : cases) {
        sysroot.SetProperty("persist.test.value", c.value);
        EXPECT_EQ(property_get_int32("persist.test.value", -7), c.expected) << c.value;
    }
    EXPECT_EQ(property_get_int32("persist.test.unset", -7), -7);
    EXPECT_EQ(property_get_int64("persist.test.value", 5), 5);
}

TEST(PropertiesTest, ReadsTheFileAfreshOnEveryCall) {
    TestSysroot sysroot;
    sysroot.WriteFile("corvane.prop",
                      "# comment\n\n persist.a = 3 \npersist.b=4\npersist.a=5\nnot a line\n");
    EXPECT_EQ(property_get_int32("persist.a", 0), 5);  // the last line wins
    EXPECT_EQ(property_get_int32("persist.b", 0), 4);
    sysroot.WriteFile("corvane.prop", "persist.b=9\n");
    EXPECT_EQ(property_get_int32("persist.b", 0), 9);
    EXPECT_EQ(property_get_int32("persist.a", 1), 1);
}

TEST(PropertiesTest, AbsentFileOrVariableMeansUnset) {
    TestSysroot sysroot;
    setenv("CORVANE_PROP_FILE", (sysroot / "missing.prop").c_str(), 1);
    EXPECT_EQ(property_get_int32("persist.a", 11), 11);
    unsetenv("CORVANE_PROP_FILE");
    EXPECT_EQ(property_get_int32("persist.a", 12), 12);
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("persist.a", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");
}

TEST(DevicePathTest, PrefixesAbsolutePathsWithTheSysroot) {
    TestSysroot sysroot;
    EXPECT_EQ(DevicePath("/data/vendor/camera/hook.db"),
              sysroot.path() + "/data/vendor/camera/hook.db");
    EXPECT_EQ(DevicePath("data/vendor/camera/x.json"), "data/vendor/camera/x.json");
    setenv("CORVANE_SYSROOT", (sysroot.path() + "//").c_str(), 1);
    EXPECT_EQ(DevicePath("/odm/x"), sysroot.path() + "/odm/x");
    unsetenv("CORVANE_SYSROOT");
    EXPECT_EQ(DevicePath("/odm/x"), "/odm/x");
}

}  // namespace
