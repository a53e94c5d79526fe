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
        {"wide", {"imx766_wide_i", "a_wide_ii_tele_i", "a_tele_wide_i"}},  // the first match
        {"tele5x", {"s5k_tele5x_ii"}},
        {"tele10", {"x_tele10_iii"}},
        {"tele", {"ov64b_tele_i"}},
        {"macro", {"gc02_macro_i_sunny"}},
        {"", {"imx586", "ultra_i", "a_wide_", "a_Wide_i", "a_tele5xx_i", "a_wide_I"}},
    };
    for (const auto& c : cases) {
        for (const std::string& name : c.names) {
            EXPECT_EQ(GetSensorTypeFromName(name), c.type) << "name \"" << name << "\"";
        }
    }
}

TEST(SensorTypeTest, AbsurdNamesGiveNoClassInsteadOfOverflowingTheStack) {
    corvanetest::LogCapture capture;
    const std::string longest(SENSOR_NAME_MAX_REPEAT_RUN, '5');
    EXPECT_EQ(GetSensorTypeFromName("x_tele" + longest + "x_i"), "tele" + longest + "x");
    EXPECT_EQ(GetSensorTypeFromName("x_wide_" + std::string(200000, 'i')), "");
    EXPECT_EQ(GetSensorTypeFromName("x_tele" + std::string(200000, '7') + "_i"), "");
    EXPECT_EQ(capture.Count("repeated characters"), 2);
    // Length alone is harmless: only repeated "i" and digits are limited.
    EXPECT_EQ(GetSensorTypeFromName(std::string(1000000, 'a') + "_front_i"), "front");
}

}  // namespace
