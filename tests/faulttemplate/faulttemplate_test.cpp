// The template fault libraries, installed by their own hook cases through the controller and the
// real inline-hook engine, as a user's copy of them would be.
#include <errno.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "core/controller/corvanesystem.h"
#include "core/model/hook/hookoperation.h"
#include "tests/support/samplesysroot.h"

namespace {

using namespace corvanetest;

TEST(FaultTemplateTest, TemplatesFailWhatTheirGroupSaysAndLetTheRestThrough) {
    TestSysroot sysroot;
    InstallSamples(sysroot, "0xC");  // the sample libraries, hookswitch and inithookswitch on
    sysroot.InstallLibrary("libcorvane_fault_template_c.so");
    sysroot.InstallLibrary("libcorvane_fault_template_cpp.so");
    std::filesystem::copy_file(SourceDir() + "/host/faulttemplate/fault_template_hook_case.json",
                               sysroot / kHookCaseFile,
                               std::filesystem::copy_options::overwrite_existing);

    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        CorvaneSystemGetInstance();
        HookOperation* engine = HookOperation::GetInstance();
        auto read = SampleSensor<int (*)(uint16_t, uint16_t, uint16_t*)>("CameraSensorI2CRead");
        auto move = SampleSensor<int (*)(int32_t)>("CameraActuatorMove");
        auto position = SampleSensor<int32_t (*)()>("CameraActuatorPosition");
        ASSERT_TRUE(read && move && position);
        ASSERT_EQ(engine->DoHookGroup("template_read_fault", {"0x0042"}), 0);
        ASSERT_EQ(engine->DoHookGroup("template_overshoot_fault", {"50"}), 0);
        EXPECT_FALSE(engine->IsHookGroupExecuted("template_read_fault"));
        // Called again and again: a replacement that did not pop its frame would run once.
        for (int32_t i = 0; i < 3; ++i) {
            uint16_t value = 0;
            EXPECT_EQ(read(0x10, 0x42, &value), -EIO);
            EXPECT_EQ(read(0x10, 0x43, &value), 0);  // passed on to the sensor
            EXPECT_EQ(move(100 + i), 0);
            EXPECT_EQ(position(), 150 + i);
        }
        EXPECT_TRUE(engine->IsHookGroupExecuted("template_read_fault"));
        EXPECT_TRUE(engine->IsHookGroupExecuted("template_overshoot_fault"));
        engine->UnhookAllCase();
        uint16_t value = 0;
        EXPECT_EQ(read(0x10, 0x42, &value), 0);
    });
}

}  // namespace
