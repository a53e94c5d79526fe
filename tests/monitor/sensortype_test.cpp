#include "core/model/monitor/sensortype.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/testsupport.h"

namespace {

TEST(SensorTypeTest, ClassIsTheWordOfTheFirstLensSegment) {
    const struct {
        std::string type;
        std::vector<std::string> names;
    } cases[] = {
        // The first segment that matches wins, wherever it is.
        {"wide", {"imx766_wide_i", "_wide_i", "a__wide_i", "a_wide_ii_tele_i", "a_tele_wide_i"}},
        {"tele5x", {"s5k_tele5x_ii"}},
        {"tele", {"ov64b_tele_i"}},
        {"tele10", {"x_tele10_iii"}},
        {"telex", {"x_telex_i"}},
        {"tele5", {"x_tele5_i"}},
        {"front", {"hi846_front_iii"}},
        {"depth", {"gc02_depth_i"}},
        {"macro", {"gc02_macro_i_sunny"}},
        {"ultra", {"ov_ultra_i"}},
        // No segment: the class is empty.
        {"",
         {"", "imx586", "ultra_i", "a_wide_", "a_wide_x", "a_Wide_i", "a_macros_i", "a_tele5xx_i",
          "a_wide_I"}},
    };
    for (const auto& c : cases) {
        for (const std::string& name : c.names) {
            EXPECT_EQ(GetSensorTypeFromName(name), c.type) << "name \"" << name << "\"";
        }
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
