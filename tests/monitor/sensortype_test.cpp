#include "core/model/monitor/sensortype.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/testsupport.h"

namespace {

TEST(SensorTypeTest, ClassIsTheWordOfTheFirstLensSegment) {
    struct Case {
        std::string name;
        std::string type;
    };
    const Case cases[] = {
        {"imx766_wide_i", "wide"},
        {"s5k_tele5x_ii", "tele5x"},
        {"ov64b_tele_i", "tele"},
        {"x_tele10_iii", "tele10"},
        {"x_telex_i", "telex"},
        {"x_tele5_i", "tele5"},
        {"hi846_front_iii", "front"},
        {"gc02_depth_i", "depth"},
        {"gc02_macro_i_sunny", "macro"},
        {"ov_ultra_i", "ultra"},
        {"_wide_i", "wide"},
        {"a__wide_i", "wide"},
        // The first segment that matches wins, wherever it is.
        {"a_wide_ii_tele_i", "wide"},
        {"a_tele_wide_i", "wide"},
        // No segment: the class is empty.
        {"", ""},
        {"imx586", ""},
        {"ultra_i", ""},
        {"a_wide_", ""},
        {"a_wide_x", ""},
        {"a_Wide_i", ""},
        {"a_macros_i", ""},
        {"a_tele5xx_i", ""},
        {"a_wide_I", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(GetSensorTypeFromName(c.name), c.type) << "name \"" << c.name << "\"";
    }
}

TEST(SensorTypeTest, AbsurdNamesGiveNoClassInsteadOfOverflowingTheStack) {
    corvanetest::LogCapture capture;
    const std::string longestRun(SENSOR_NAME_MAX_REPEAT_RUN, 'i');
    EXPECT_EQ(GetSensorTypeFromName("x_wide_" + longestRun), "wide");
    EXPECT_EQ(
        GetSensorTypeFromName("x_tele" + std::string(SENSOR_NAME_MAX_REPEAT_RUN, '5') + "x_i"),
        "tele" + std::string(SENSOR_NAME_MAX_REPEAT_RUN, '5') + "x");
    EXPECT_FALSE(capture.Contains("repeated characters"));

    // Runs long enough to exhaust a bus thread's stack in the matcher.
    EXPECT_EQ(GetSensorTypeFromName("x_wide_" + std::string(200000, 'i')), "");
    EXPECT_EQ(GetSensorTypeFromName("x_tele" + std::string(200000, '7') + "_i"), "");
    EXPECT_EQ(capture.Count("repeated characters"), 2);
    // Length alone is harmless: only repeated "i" and digits are limited.
    EXPECT_EQ(GetSensorTypeFromName(std::string(1000000, 'a') + "_front_i"), "front");
}

}  // namespace
