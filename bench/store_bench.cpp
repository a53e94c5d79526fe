// Costs of the persistence and configuration paths: one SQLite statement with its own open and
// close (the layer keeps no connection), reading a JSON state file, and building a reader over a
// hook-case file. Log lines are formatted but discarded, so terminal output does not count.
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "config/interface/configloadfactory.h"
#include "core/database/dboperations.h"
#include "utils/json/jsonhelper.h"

namespace {

void DiscardLog(const struct __android_logger_data*, const char*) {}

const bool kLogDiscarded = [] {
    __android_log_set_logger(DiscardLog);
    return true;
}();

// A scratch directory removed with its content.
class ScratchDir {
  public:
    ScratchDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "corvane-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            abort();
        }
        m_path = pattern;
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

const char* const kTable =
    "create table if not exists hook_group( group_id INTEGER not null primary key, group_name "
    "VARCHAR not null, case_list TEXT not null, args_array_list TEXT not null, available INT not "
    "null default 0);";

void BM_SQLExecuteSmallInsert(benchmark::State& state) {
    ScratchDir dir;
    DBOperations db(dir / "hook.db", {kTable});
    for (auto _ : state) {
        int result =
            db.SQLExecute("insert or replace into hook_group values(1, 'group', '1,2,3', '', 1);",
                          nullptr, nullptr);
        if (result != 0) {
            state.SkipWithError("insert failed");
            break;
        }
    }
}
BENCHMARK(BM_SQLExecuteSmallInsert)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_SQLGetTableOneRow(benchmark::State& state) {
    ScratchDir dir;
    DBOperations db(dir / "hook.db", {kTable});
    db.SQLExecute("insert into hook_group values(1, 'group', '1,2,3', '', 1);", nullptr, nullptr);
    std::vector<std::vector<std::string>> result;
    int nRow = 0, nCol = 0;
    for (auto _ : state) {
        if (db.SQLGetTable("select * from hook_group where group_id = 1", result, nRow, nCol) !=
                0 ||
            nRow != 1) {
            state.SkipWithError("query failed");
            break;
        }
    }
}
BENCHMARK(BM_SQLGetTableOneRow)->Repetitions(5)->ReportAggregatesOnly(true);

// A probe-history shaped file of about `bytes` bytes.
void WriteProbeHistory(const std::string& path, size_t bytes) {
    std::string text = "[";
    for (int i = 0; text.size() < bytes - 200; ++i) {
        text += (i == 0 ? "" : ",");
        text += "{\"sensor_name\":\"imx" + std::to_string(i % 50) +
                "_sensor\",\"sensor_type\":\"main\",\"probe_time\":" +
                std::to_string(1700000000000LL + i) + ",\"probe_result\":true}";
    }
    text += "]";
    std::ofstream(path, std::ios::binary) << text;
}

void BM_ReadJsonFile1MiB(benchmark::State& state) {
    ScratchDir dir;
    WriteProbeHistory(dir / "probe_messages.json", 1 << 20);
    for (auto _ : state) {
        rapidjson::Document doc;
        if (ReadJsonFile(dir / "probe_messages.json", doc) != 0) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(doc.Size());
    }
    state.SetBytesProcessed(state.iterations() * (1 << 20));
}
BENCHMARK(BM_ReadJsonFile1MiB)->Repetitions(5)->ReportAggregatesOnly(true);

// 200 groups of three cases, 600 cases of two hooks, 1200 hooks.
void WriteHookCaseFile(const std::string& path) {
    std::string text = "{\n  // generated\n  \"HOOK_GROUP\": [\n";
    for (int g = 0; g < 200; ++g) {
        text += "    {\"group_id\": " + std::to_string(g) + ", \"group_name\": \"group" +
                std::to_string(g) + "\", \"case\": [" + std::to_string(3 * g) + ", " +
                std::to_string(3 * g + 1) + ", " + std::to_string(3 * g + 2) + "]},\n";
    }
    text += "  ],\n  \"HOOK_CASE\": [\n";
    for (int c = 0; c < 600; ++c) {
        text += "    {\"case_id\": " + std::to_string(c) + ", \"case_name\": \"case" +
                std::to_string(c) + "\", \"hook_function\": [\"hook" + std::to_string(2 * c) +
                "\", \"hook" + std::to_string(2 * c + 1) + "\"]},\n";
    }
    text += "  ],\n  \"HOOK_FUNCTION\": [\n";
    for (int h = 0; h < 1200; ++h) {
        std::string n = std::to_string(h);
        text += "    {\"hook_id\": " + n + ", \"hook_name\": \"hook" + n +
                "\", \"hook_type\": 2, \"function_type\": 1, \"source_lib_name\": "
                "\"libsensor.so\", \"target_lib_name\": \"libfault.so\", "
                "\"source_function_symbol\": \"sensor_read_" +
                n + "\", \"target_function_symbol\": \"fault_read_" + n +
                "\", \"proxy_function_symbol\": \"proxy_read_" + n + "\"},\n";
    }
    text += "  ],\n}\n";
    std::ofstream(path, std::ios::binary) << text;
}

void BM_LoaderConstructHookCase200Groups(benchmark::State& state) {
    ScratchDir dir;
    std::string path = dir / "corvanesystem_hook_case.json";
    WriteHookCaseFile(path);
    for (auto _ : state) {
        ConfigLoad* loader = Configloadfactory::CreateObject({CONFIG_FILE_TYPE_JSON, path});
        if (loader == nullptr) {
            state.SkipWithError("loader failed");
            break;
        }
        delete loader;
    }
    state.counters["file_bytes"] = static_cast<double>(std::filesystem::file_size(path));
}
BENCHMARK(BM_LoaderConstructHookCase200Groups)->Repetitions(5)->ReportAggregatesOnly(true);

// The reads the hook engine makes after construction.
void BM_LoaderArrayObjectsHookCase200Groups(benchmark::State& state) {
    ScratchDir dir;
    std::string path = dir / "corvanesystem_hook_case.json";
    WriteHookCaseFile(path);
    ConfigLoad* loader = Configloadfactory::CreateObject({CONFIG_FILE_TYPE_JSON, path});
    for (auto _ : state) {
        for (const char* key : {"HOOK_GROUP", "HOOK_CASE", "HOOK_FUNCTION"}) {
            benchmark::DoNotOptimize(loader->GetArrayObject(key));
        }
    }
    delete loader;
}
BENCHMARK(BM_LoaderArrayObjectsHookCase200Groups)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
