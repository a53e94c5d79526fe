#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "platform/devicepath.h"
#include "tests/support/testsupport.h"

namespace {

using corvanetest::TestSysroot;

TEST(PropertiesTest, ConvertsLikeTheDeviceFromTheFileAsItIsNow) {
    TestSysroot sysroot;
    const std::pair<const char*, int32_t> cases[] = {
        {"0x103E8", 0x103E8}, {"010", 8},
        {"  42abc", 42},      {"-2147483648", INT32_MIN},
        {"2147483648", -7},   {"99999999999999999999999", -7},
        {"abc", -7},          {"", -7},
    };
    for (const auto& [value, expected] : cases) {
        sysroot.SetProperty("persist.test.value", value);
        EXPECT_EQ(property_get_int32("persist.test.value", -7), expected) << value;
    }
    // The file is read afresh on every call; without it every property has its default.
    sysroot.WriteFile("corvane.prop",
                      "# comment\n\n persist.a = 3 \npersist.b=4\npersist.a=5\nnot a line\n");
    EXPECT_EQ(property_get_int32("persist.a", 0), 5);  // the last line wins
    EXPECT_EQ(property_get_int64("persist.b", 0), 4);
    sysroot.WriteFile("corvane.prop", "persist.b=9\n");
    EXPECT_EQ(property_get_int32("persist.b", 0), 9);
    EXPECT_EQ(property_get_int32("persist.a", 1), 1);
    unsetenv("CORVANE_PROP_FILE");
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("persist.b", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");
}

TEST(DevicePathTest, PrefixesAbsolutePathsWithTheSysroot) {
    TestSysroot sysroot;
    EXPECT_EQ(DevicePath("/data/x.db"), sysroot.path() + "/data/x.db");
    EXPECT_EQ(DevicePath("data/x.json"), "data/x.json");
    setenv("CORVANE_SYSROOT", (sysroot.path() + "//").c_str(), 1);
    EXPECT_EQ(DevicePath("/odm/x"), sysroot.path() + "/odm/x");
    unsetenv("CORVANE_SYSROOT");
    EXPECT_EQ(DevicePath("/odm/x"), "/odm/x");
}

}  // namespace
