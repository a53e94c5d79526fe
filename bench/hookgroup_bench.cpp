// Injecting and clearing a group of ten hooks through ExecuteCommand, as "vxcdb corvane --inject
// ten" and "--inject clear" do. With the hook database (the default) every hook, case and group
// change is one SQLite statement with its own open and close; run with CORVANE_BENCH_NO_DB=1 to
// measure the same without the database and see what the statements cost.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "core/controller/corvanesystem.h"
#include "shadowhook.h"
#include "vxcdbmessage.pb.h"

namespace {

namespace fs = std::filesystem;

const char* const kVictims[] = {"CameraSensorI2CWrite", "CameraSensorI2CRead", "CameraEepromRead",
                                "CameraActuatorMove", "CameraOisEnable"};

// A sysroot with the sample libraries and one group of ten hooks (two per sample function: the
// inline-hook library chains them), entered as the camera service enters it.
void PrepareSysroot(bool withDatabase) {
    fs::path root = fs::temp_directory_path() / ("corvane-bench-" + std::to_string(getpid()));
    for (const char* dir : {"odm/etc/camera", "data/vendor/camera", "vendor/lib64"}) {
        fs::create_directories(root / dir);
    }
    for (const char* library : {"libcorvane_sample_sensor.so", "libcorvane_sample_fault.so"}) {
        fs::copy_file(fs::path(CORVANE_LIB_DIR) / library, root / "vendor/lib64" / library,
                      fs::copy_options::overwrite_existing);
    }
    std::string hooks, names;
    for (int i = 0; i < 10; ++i) {
        std::string name = "h" + std::to_string(i);
        names += (i ? ", \"" : "\"") + name + "\"";
        hooks += std::string(i ? "," : "") + "{\"hook_id\": " + std::to_string(i) +
                 ", \"hook_name\": \"" + name +
                 "\", \"hook_type\": 2, \"source_lib_name\": "
                 "\"vendor/lib64/libcorvane_sample_sensor.so\", \"target_lib_name\": "
                 "\"vendor/lib64/libcorvane_sample_fault.so\", \"source_function_symbol\": \"" +
                 kVictims[i % 5] + "\", \"target_function_symbol\": \"FaultOisEnableFail\"}";
    }
    std::ofstream(root / "odm/etc/camera/corvanesystem_hook_case.json")
        << "{\"HOOK_GROUP\": [{\"group_id\": 1, \"group_name\": \"ten\", \"case\": [1]}],"
        << "\"HOOK_CASE\": [{\"case_id\": 1, \"case_name\": \"c\", \"hook_function\": [" << names
        << "]}], \"HOOK_FUNCTION\": [" << hooks << "]}";
    // hookswitch and inithookswitch (the hook database), or hookswitch alone.
    std::ofstream(root / "corvane.prop")
        << "persist.vendor.camera.cloud.corvanesystem.modswitch=" << (withDatabase ? "0xC" : "0x4")
        << "\npersist.vendor.camera.cloud.corvanesys.loglevel=6\n";
    static struct RemoveAtExit {
        fs::path path;
        ~RemoveAtExit() {
            std::error_code ignored;
            fs::remove_all(path, ignored);
        }
    } removeAtExit{root};
    setenv("CORVANE_SYSROOT", root.c_str(), 1);
    setenv("CORVANE_PROP_FILE", (root / "corvane.prop").c_str(), 1);
    fs::current_path(root);
}

VXCDBMessageString Frame(const std::string& argument) {
    VXCDBMessage message;
    message.set_modulename("corvane");
    message.set_moduletype(VXCDBMessage::CORVANE);
    VXCDBMessage_CDBCmd* command = message.add_cmds();
    command->set_options("inject");
    command->add_arguments(argument);
    VXCDBMessageString frame;
    memset(&frame, 0, sizeof(frame));
    std::string bytes = message.SerializeAsString();
    frame.payloadLen = static_cast<int32_t>(bytes.size());
    memcpy(frame.payload, bytes.data(), bytes.size());
    return frame;
}

CorvaneSystem* System() {
    static CorvaneSystem* system = [] {
        bool withDatabase = getenv("CORVANE_BENCH_NO_DB") == nullptr;
        PrepareSysroot(withDatabase);
        if (!withDatabase) {
            shadowhook_init(SHADOWHOOK_MODE_SHARED, false);
        }
        return CorvaneSystem::Create();
    }();
    return system;
}

void BM_InjectAndClearTenHooks(benchmark::State& state) {
    CorvaneSystem* system = System();
    VXCDBMessageString inject = Frame("ten");
    VXCDBMessageString clear = Frame("clear");
    VXCDBMessageString reply;
    for (auto _ : state) {
        system->ExecuteCommand(&inject, &reply);
        system->ExecuteCommand(&clear, &reply);
    }
    VXCDBMessage answer;
    answer.ParseFromArray(reply.payload, reply.payloadLen);
    if (answer.cmds_size() < 2 || answer.cmds(1).arguments_size() < 1 ||
        answer.cmds(1).arguments(0) != "<cleared>") {
        state.SkipWithError("clear did not answer <cleared>");
    }
}
BENCHMARK(BM_InjectAndClearTenHooks)->Unit(benchmark::kMillisecond);

}  // namespace
