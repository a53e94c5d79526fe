// The reference configuration reader's text format through its C entry points, as the core
// library calls them after dlopen: a file of fuzzer bytes is loaded (alone, then twice in one
// call), and every key its lines could name is asked for with every getter. Values are copied
// into buffers of exactly the size given, so a write past one is caught; the copy must be cut and
// terminated as promised, and the getters must agree with each other.
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "core/controller/corvaneconfigreaderapi.h"
#include "fuzz/fuzzsupport.h"

// The entry points, as the reader library exports them (compiled into this program).
extern "C" {
CorvaneConfigReaderHandle CreateCorvaneConfigReader(void);
void DestroyCorvaneConfigReader(CorvaneConfigReaderHandle reader);
int CorvaneConfig_LoadConfigFile(CorvaneConfigReaderHandle reader, const char* path);
int CorvaneConfig_LoadConfigFiles(CorvaneConfigReaderHandle reader, const char* const* paths,
                                  int count);
int CorvaneConfig_GetValue(CorvaneConfigReaderHandle reader, const char* key, char* buffer,
                           size_t size);
int CorvaneConfig_GetIntValue(CorvaneConfigReaderHandle reader, const char* key, int defaultValue);
bool CorvaneConfig_GetBoolValue(CorvaneConfigReaderHandle reader, const char* key,
                                bool defaultValue);
void CorvaneConfig_Clear(CorvaneConfigReaderHandle reader);
bool CorvaneConfig_HasKey(CorvaneConfigReaderHandle reader, const char* key);
int CorvaneConfig_Size(CorvaneConfigReaderHandle reader);
void CorvaneConfig_PrintConfig(CorvaneConfigReaderHandle reader);
}

namespace {

constexpr size_t kMaxKeys = 64;
std::string g_path;

// Owns a reader handle.
struct ReaderDeleter {
    void operator()(void* reader) const { DestroyCorvaneConfigReader(reader); }
};
using Reader = std::unique_ptr<void, ReaderDeleter>;

// What each line could name: the text before its first '=' with and without surrounding blanks,
// and the whole line. The reader decides which of them are keys.
std::vector<std::string> CandidateKeys(const std::string& text) {
    std::vector<std::string> keys = {"", "no such key"};
    size_t start = 0;
    while (start <= text.size() && keys.size() < kMaxKeys) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? end : end - start);
        size_t equals = line.find('=');
        std::string key = line.substr(0, equals);
        keys.push_back(key);
        size_t first = key.find_first_not_of(" \t\r\n");
        if (first != std::string::npos) {
            key = key.substr(first, key.find_last_not_of(" \t\r\n") - first + 1);
            keys.push_back(key);
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    return keys;
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

void CheckKey(void* reader, const std::string& candidate) {
    const std::string key(candidate.c_str());  // what the C entry points see of it
    bool has = CorvaneConfig_HasKey(reader, key.c_str());
    FUZZ_CHECK(CorvaneConfig_GetValue(reader, key.c_str(), nullptr, 0) == (has ? 1 : 0));
    if (!has) {
        FUZZ_CHECK(CorvaneConfig_GetIntValue(reader, key.c_str(), -77) == -77);
        FUZZ_CHECK(CorvaneConfig_GetBoolValue(reader, key.c_str(), true));
        FUZZ_CHECK(!CorvaneConfig_GetBoolValue(reader, key.c_str(), false));
        return;
    }
    // Keys are trimmed and never empty, values trimmed.
    FUZZ_CHECK(!key.empty() && !IsBlank(key.front()) && !IsBlank(key.back()));
    std::string whole;
    for (size_t size : {size_t{4096}, size_t{1}, size_t{2}, size_t{16}}) {
        std::unique_ptr<char[]> buffer(new char[size]);
        memset(buffer.get(), 'x', size);
        FUZZ_CHECK(CorvaneConfig_GetValue(reader, key.c_str(), buffer.get(), size) == 1);
        size_t length = strnlen(buffer.get(), size);
        FUZZ_CHECK(length < size);  // terminated inside the buffer
        if (size == 4096) {
            whole.assign(buffer.get(), length);
            FUZZ_CHECK(whole.empty() || !IsBlank(whole.front()));
        } else {
            // A short buffer gets the beginning of the value.
            FUZZ_CHECK(whole.compare(0, length, buffer.get(), length) == 0);
        }
    }
    CorvaneConfig_GetIntValue(reader, key.c_str(), -77);
    CorvaneConfig_GetBoolValue(reader, key.c_str(), true);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_path = corvanefuzz::SetUpSysroot() + "/odm/etc/camera/corvane_mode_config.txt";
    corvanefuzz::SilenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    corvanefuzz::WriteWholeFile(g_path, data, size);
    Reader reader(CreateCorvaneConfigReader());
    FUZZ_CHECK(reader != nullptr);
    FUZZ_CHECK(CorvaneConfig_LoadConfigFile(reader.get(), g_path.c_str()) == 1);
    int loaded = CorvaneConfig_Size(reader.get());
    FUZZ_CHECK(loaded >= 0);

    std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> keys = CandidateKeys(text);
    for (const std::string& key : keys) {
        CheckKey(reader.get(), key);
    }
    CorvaneConfig_PrintConfig(reader.get());

    // Loading the same file again, twice in one call, replaces values but adds no key.
    const char* paths[] = {g_path.c_str(), g_path.c_str()};
    FUZZ_CHECK(CorvaneConfig_LoadConfigFiles(reader.get(), paths, 2) == 1);
    FUZZ_CHECK(CorvaneConfig_Size(reader.get()) == loaded);

    CorvaneConfig_Clear(reader.get());
    FUZZ_CHECK(CorvaneConfig_Size(reader.get()) == 0);
    FUZZ_CHECK(!CorvaneConfig_HasKey(reader.get(), keys.back().c_str()));
    return 0;
}
