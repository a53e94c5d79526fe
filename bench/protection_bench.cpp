// Costs on the paths a guard function and the host take: a callback with its two big-data
// reports (the guard's caller waits for it), a switch question, and reading the protection file
// at start-up. Runs against a temporary sysroot; info lines are filtered out (log level 6) so
// that the figures are the library's, not the terminal's.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "core/model/protection/protectionimpl.h"

namespace {

class Sysroot {
  public:
    Sysroot() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "corvane-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            abort();
        }
        m_path = pattern;
        std::filesystem::create_directories(m_path + "/data/vendor/camera");
        std::filesystem::create_directories(m_path + "/odm/etc/camera");
        std::ofstream(m_path + "/corvane.prop")
            << "persist.vendor.camera.cloud.corvanesys.loglevel=6\n"
            << "persist.vendor.camera.cloud.corvanesystem.protection.mainswitch=1\n"
            << "persist.vendor.camera.cloud.corvanesystem.protection.SENSORI2C=1\n";
        setenv("CORVANE_SYSROOT", m_path.c_str(), 1);
        setenv("CORVANE_PROP_FILE", (m_path + "/corvane.prop").c_str(), 1);
    }
    ~Sysroot() { std::filesystem::remove_all(m_path); }
    const std::string& path() const { return m_path; }

  private:
    std::string m_path;
};

void BM_CallbackWithTwoReports(benchmark::State& state) {
    Sysroot sysroot;
    Protection* protection = Protection::Create(nullptr, -1);
    CallbackMessage message{1, -1, 0x0100, "SENSORI2C", CALLBACK_MESSAGE_TYPE_BOTH};
    for (auto _ : state) {
        benchmark::DoNotOptimize(protection->RecordProtectionFunctionCallback(message));
    }
    Protection::Destroy(protection);
}
BENCHMARK(BM_CallbackWithTwoReports);

void BM_IsSwitchOpened(benchmark::State& state) {
    Sysroot sysroot;
    Protection* protection = Protection::Create(nullptr, -1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(protection->IsSwitchOpened(ProtectionScheme::SENSORI2C));
    }
    Protection::Destroy(protection);
}
BENCHMARK(BM_IsSwitchOpened);

// Construction reads and parses a file of `range(0)` schemes of four groups of two arguments.
void BM_ReadProtectionFile(benchmark::State& state) {
    Sysroot sysroot;
    std::string text = "[";
    for (int64_t i = 0; i < state.range(0); ++i) {
        text += R"({"protection_scheme": "S)" + std::to_string(i) + R"(", "hook_group_list": [
            {"a": ["0x0100", "0x0101"]}, {"b": ["1", "2"]}, {"c": ["x", "y"]}, {"d": []}]},)";
    }
    text += "]";
    std::ofstream(sysroot.path() + "/odm/etc/camera/protection_config.json") << text;
    for (auto _ : state) {
        Protection* protection = Protection::Create(nullptr, -1);
        Protection::Destroy(protection);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_ReadProtectionFile)->Arg(7)->Arg(1000);

}  // namespace
