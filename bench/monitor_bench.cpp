// Costs of the probe monitor on a full history (six lens types of 100 records each, the most the
// file ever holds for them): one save, which reads, regroups and rewrites the whole file, and
// the queries the camera stack makes. Log lines are formatted but discarded.
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "core/messagecenter/message.h"
#include "core/model/monitor/monitorimpl.h"
#include "core/model/monitor/sensortype.h"

namespace {

void DiscardLog(const struct __android_logger_data*, const char*) {}

const bool kLogDiscarded = [] {
    __android_log_set_logger(DiscardLog);
    return true;
}();

constexpr int64_t kT0 = 1700000000000;
const char* const kTypes[] = {"depth", "front", "macro", "tele3x", "ultra", "wide"};

// A scratch device tree used as the working directory (the history path is relative), removed
// with its content.
class ScratchRoot {
  public:
    ScratchRoot() : m_oldCwd(std::filesystem::current_path()) {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "corvane-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            abort();
        }
        m_path = pattern;
        std::filesystem::create_directories(m_path + "/data/vendor/camera");
        std::filesystem::current_path(m_path);
    }
    ~ScratchRoot() {
        std::filesystem::current_path(m_oldCwd);
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

  private:
    std::filesystem::path m_oldCwd;
    std::string m_path;
};

std::string SensorName(const std::string& type, int i) {
    return "s5k" + std::to_string(i % 3) + "_" + type + "_i";
}

// Six types of 100 records, as the monitor itself would have written them.
void WriteFullHistory() {
    std::string text = "[";
    for (const char* type : kTypes) {
        for (int i = 0; i < 100; ++i) {
            text += (text.size() > 1 ? "," : "");
            text += "{\"sensor_name\":\"" + SensorName(type, i) + "\",\"sensor_type\":\"" + type +
                    "\",\"probe_time\":" + std::to_string(kT0 - i) + ",\"probe_result\":\"" +
                    (i % 4 == 0 ? "fail" : "success") + "\"}";
        }
    }
    text += "]";
    std::ofstream("data/vendor/camera/probe_messages.json", std::ios::binary) << text;
}

Message ProbeMessageOf(const std::string& type, int64_t time) {
    Message message("PROBE_MESSAGE");
    message.data["sensor_name"] = MessageData(SensorName(type, static_cast<int>(time % 3)));
    message.data["sensor_type"] = MessageData(type);
    message.data["probe_time"] = MakeInt64Data(static_cast<uint64_t>(time));
    message.data["probe_result"] = MakeInt32Data(1);
    return message;
}

// One save into a full history: the history stays full (each save pushes out its type's oldest).
void BM_SaveIntoFullHistory(benchmark::State& state) {
    ScratchRoot root;
    WriteFullHistory();
    int64_t time = kT0;
    size_t type = 0;
    for (auto _ : state) {
        state.PauseTiming();
        Message message = ProbeMessageOf(kTypes[type], ++time);
        type = (type + 1) % 6;
        Message reply;
        state.ResumeTiming();
        MonitorImpl::SaveProbeMessage(std::move(message), &reply);
    }
    state.counters["file_bytes"] =
        static_cast<double>(std::filesystem::file_size("data/vendor/camera/probe_messages.json"));
    if (MonitorImpl::GetProbeMessage("wide", -1).size() != 100) {
        state.SkipWithError("the history is not full");
    }
}
BENCHMARK(BM_SaveIntoFullHistory)->Repetitions(10)->ReportAggregatesOnly(true);

// The most-success query over the 100 records of one type in a full history.
void BM_MostSuccessQueryFullHistory(benchmark::State& state) {
    ScratchRoot root;
    WriteFullHistory();
    Message request("GET_MOST_PROBE_SENSOR_NAME",
                    {{"sensor_type", MessageData("wide")}, {"record_count", MakeInt64Data(100)}});
    for (auto _ : state) {
        Message reply;
        MonitorImpl::GetMostProbeSuccessSensorName(request, &reply);
        benchmark::DoNotOptimize(reply.data.size());
    }
}
BENCHMARK(BM_MostSuccessQueryFullHistory)->Repetitions(10)->ReportAggregatesOnly(true);

// The last-success query: the same file read, one record kept.
void BM_LastSuccessQueryFullHistory(benchmark::State& state) {
    ScratchRoot root;
    WriteFullHistory();
    Message request("GET_LAST_PROBE_SENSOR_NAME", {{"sensor_type", MessageData("wide")}});
    for (auto _ : state) {
        Message reply;
        MonitorImpl::GetLastProbeSuccessSensorName(request, &reply);
        benchmark::DoNotOptimize(reply.data.size());
    }
}
BENCHMARK(BM_LastSuccessQueryFullHistory)->Repetitions(10)->ReportAggregatesOnly(true);

// The sensor-type rule, paid once by every host probe report and every type query.
void BM_SensorTypeFromName(benchmark::State& state) {
    const std::string name = "s5kgn3sp03_sunny_tele3x_ii";
    for (auto _ : state) {
        benchmark::DoNotOptimize(GetSensorTypeFromName(name));
    }
}
BENCHMARK(BM_SensorTypeFromName)->Repetitions(10)->ReportAggregatesOnly(true);

}  // namespace
