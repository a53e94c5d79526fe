#include "faultreport.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "core/controller/corvanesystem.h"

namespace {

// The controller of this process, found at run time through the core library's exported entry
// point: linking the core library would load a second copy of it.
CorvaneSystem* Controller() {
    using GetInstanceFunction = CorvaneSystem* (*)();
    auto getInstance =
        reinterpret_cast<GetInstanceFunction>(dlsym(RTLD_DEFAULT, "CorvaneSystemGetInstance"));
    return getInstance == nullptr ? nullptr : getInstance();
}

bool ReadNumber(const std::string& text, long* value) {
    char* end = nullptr;
    *value = strtol(text.c_str(), &end, 0);
    return !text.empty() && *end == '\0';
}

std::vector<std::string> Arguments(const char* groupName) {
    CorvaneSystem* system = Controller();
    return system == nullptr || groupName == nullptr ? std::vector<std::string>()
                                                     : system->GetHookArguments(groupName);
}

}  // namespace

void CorvaneFaultReportExecuted(const char* hookName) {
    CorvaneSystem* system = Controller();
    if (system != nullptr && hookName != nullptr) {
        system->NotifyHookMessage({hookName, HOOK_MESSAGE_EXECUTED});
    }
}

int CorvaneFaultHasArgumentValue(const char* groupName, unsigned long value) {
    for (const std::string& argument : Arguments(groupName)) {
        long number = 0;
        if (ReadNumber(argument, &number) && static_cast<unsigned long>(number) == value) {
            return 1;
        }
    }
    return 0;
}

long CorvaneFaultArgumentNumber(const char* groupName, size_t index, long fallback) {
    std::vector<std::string> arguments = Arguments(groupName);
    long number = 0;
    return index < arguments.size() && ReadNumber(arguments[index], &number) ? number : fallback;
}
