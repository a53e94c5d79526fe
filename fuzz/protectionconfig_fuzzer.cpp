// The protection configuration file ("/odm/etc/camera/protection_config.json") as the protection
// model reads it at construction: whatever the file holds, the model must come up, with schemes
// only from an array of objects, each filed under its own name, and with no switch opened by the
// file alone. The camera service constructs this model at every start, so a crash here is a crash
// loop.
#include <rapidjson/document.h>

#include <memory>
#include <string>

#include "core/model/protection/protectionimpl.h"
#include "fuzz/fuzzsupport.h"
#include "platform/devicepath.h"

namespace {

std::string g_path;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    corvanefuzz::SetUpSysroot();
    corvanefuzz::SilenceLog();
    g_path = DevicePath(PROTECTION_CONFIG_PATH);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    corvanefuzz::WriteWholeFile(g_path, data, size);
    auto protection = std::make_unique<ProtectionImpl>();
    const auto& schemes = protection->GetSchemeConfig();
    for (const auto& [name, scheme] : schemes) {
        FUZZ_CHECK(scheme.schemeName == name);
    }
    // No scheme can come from a file that is not a JSON array of objects.
    rapidjson::Document document;
    document.Parse<rapidjson::kParseCommentsFlag | rapidjson::kParseTrailingCommasFlag |
                   rapidjson::kParseIterativeFlag>(reinterpret_cast<const char*>(data), size);
    if (document.HasParseError() || !document.IsArray()) {
        FUZZ_CHECK(schemes.empty());
    } else {
        FUZZ_CHECK(schemes.size() <= document.Size());
    }
    // Without an engine the model only answers from properties, all unset here.
    for (int value = 0; value < static_cast<int>(ProtectionScheme::COUNT); ++value) {
        FUZZ_CHECK(!protection->IsSwitchOpened(static_cast<ProtectionScheme>(value)));
    }
    return 0;
}
