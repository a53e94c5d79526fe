#include "tools/vxcdb/vxcdbcommandline.h"

#include <math.h>
#include <stdlib.h>

#include <vector>

namespace vxcdb {

namespace {

// "debug" is sent with the module type DEBUG; every other name, "corvane" and names the service
// does not know alike, with CORVANE. The service looks the name up itself and answers an unknown
// one with "Unknown module", whereas a request without a type would only come back unanswered.
constexpr const char* kModuleDebug = "debug";

// The library refuses an option without arguments; "help" needs none, so the tool supplies one.
constexpr const char* kHelpOption = "help";
constexpr const char* kHelpArgument = "help";

constexpr double kMaxTimeoutSeconds = 3600.0;

bool IsOptionWord(const std::string& word) {
    return word.size() > 2 && word.compare(0, 2, "--") == 0;
}

// "--name value" or "--name=value" for a tool option that takes a value.
bool TakeValue(const std::vector<std::string>& words, size_t* index, const std::string& name,
               std::string* value, std::string* error) {
    const std::string& word = words[*index];
    if (word.size() > name.size() && word[name.size()] == '=') {
        *value = word.substr(name.size() + 1);
        return true;
    }
    if (*index + 1 >= words.size()) {
        *error = name + " needs a value";
        return false;
    }
    *value = words[++*index];
    return true;
}

bool ParseTimeout(const std::string& text, double* seconds, std::string* error) {
    char* end = nullptr;
    double value = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !isfinite(value) || value <= 0 ||
        value > kMaxTimeoutSeconds) {
        *error = "--timeout needs a number of seconds greater than 0 and at most 3600, got '" +
                 text + "'";
        return false;
    }
    *seconds = value;
    return true;
}

bool NameIs(const std::string& word, const std::string& name) {
    return word == name || (word.size() > name.size() && word.compare(0, name.size(), name) == 0 &&
                            word[name.size()] == '=');
}

// The words after "--check": an optional "--sysroot DIR", then exactly one file.
bool ParseCheck(const std::vector<std::string>& words, size_t i, CommandLine* commandLine,
                std::string* error) {
    commandLine->check = true;
    for (; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (NameIs(word, "--sysroot")) {
            if (!TakeValue(words, &i, "--sysroot", &commandLine->checkSysroot, error)) {
                return false;
            }
        } else if (commandLine->checkFile.empty() && !word.empty() && word[0] != '-') {
            commandLine->checkFile = word;
        } else {
            *error = "--check takes [--sysroot DIR] and one file, got '" + word + "'";
            return false;
        }
    }
    if (commandLine->checkFile.empty()) {
        *error = "--check needs the file to check";
        return false;
    }
    return true;
}

}  // namespace

bool ParseCommandLine(int argc, const char* const* argv, CommandLine* commandLine,
                      std::string* error) {
    std::vector<std::string> words(argv + 1, argv + argc);
    size_t i = 0;
    // Tool options, up to the module name.
    for (; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "--help" || word == "-h") {
            commandLine->showUsage = true;
            return true;
        }
        if (word == "--check") {
            return ParseCheck(words, i + 1, commandLine, error);
        }
        if (word == "--json") {
            commandLine->json = true;
        } else if (NameIs(word, "--timeout")) {
            std::string value;
            if (!TakeValue(words, &i, "--timeout", &value, error) ||
                !ParseTimeout(value, &commandLine->timeoutSeconds, error)) {
                return false;
            }
        } else if (NameIs(word, "--socket")) {
            if (!TakeValue(words, &i, "--socket", &commandLine->socketPath, error)) {
                return false;
            }
            if (commandLine->socketPath.empty()) {
                *error = "--socket needs a path";
                return false;
            }
        } else if (NameIs(word, "--campaign") || NameIs(word, "--junit")) {
            const std::string name = word.compare(0, 7, "--junit") == 0 ? "--junit" : "--campaign";
            std::string* value =
                name == "--junit" ? &commandLine->junitFile : &commandLine->campaignFile;
            if (!TakeValue(words, &i, name, value, error)) {
                return false;
            }
            if (value->empty()) {
                *error = name + " needs a file";
                return false;
            }
        } else if (word.compare(0, 1, "-") == 0) {
            *error = "unknown tool option '" + word + "' (tool options come before the module)";
            return false;
        } else {
            break;
        }
    }
    if (!commandLine->campaignFile.empty()) {
        if (i != words.size()) {
            *error = "--campaign runs the steps of its file; no module or option may follow ('" +
                     words[i] + "')";
            return false;
        }
        return true;
    }
    if (!commandLine->junitFile.empty()) {
        *error = "--junit writes the report of a campaign; it needs --campaign FILE";
        return false;
    }
    if (i == words.size()) {
        *error = "missing module name";
        return false;
    }
    VXCDBMessage& request = commandLine->request;
    const std::string& module = words[i++];
    request.set_modulename(module);
    request.set_moduletype(module == kModuleDebug ? VXCDBMessage::DEBUG : VXCDBMessage::CORVANE);

    VXCDBMessage_CDBCmd* command = nullptr;
    bool argumentsOnly = false;
    for (; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (!argumentsOnly && word == "--") {
            if (command == nullptr) {
                *error = "'--' must follow an option";
                return false;
            }
            argumentsOnly = true;
        } else if (!argumentsOnly && IsOptionWord(word)) {
            command = request.add_cmds();
            command->set_options(word.substr(2));
        } else if (command == nullptr) {
            *error = "expected an option such as --help after module '" + module + "', got '" +
                     word + "'";
            return false;
        } else {
            command->add_arguments(word);
        }
    }
    if (request.cmds_size() == 0) {
        *error = "no option given for module '" + module + "' (try: vxcdb " + module + " --help)";
        return false;
    }
    for (VXCDBMessage_CDBCmd& each : *request.mutable_cmds()) {
        if (each.options() == kHelpOption && each.arguments_size() == 0) {
            each.add_arguments(kHelpArgument);
        }
    }
    return true;
}

const char* UsageText() {
    return "Usage: vxcdb [TOOL OPTION]... MODULE --OPTION [ARGUMENT]... [--OPTION "
           "[ARGUMENT]...]...\n"
           "       vxcdb --help\n"
           "       vxcdb --check [--sysroot DIR] FILE\n"
           "       vxcdb [--json] [--junit FILE] --campaign FILE\n"
           "\n"
           "Sends one request to the camera service's debug channel and prints its reply.\n"
           "Every --OPTION after MODULE is one command; the words after it are its arguments.\n"
           "A lone '--' makes all following words arguments of the current command.\n"
           "--check reads a hook-case file or a protection configuration as the service\n"
           "would, without contacting it, and lists every problem with its line and column;\n"
           "libraries are opened under DIR (default $CORVANE_SYSROOT, or /). Exit status 0\n"
           "when the file is clean, 1 when it has problems or cannot be read.\n"
           "\n"
           "Modules: corvane (the controller's commands), debug (debug commands).\n"
           "Examples:\n"
           "  vxcdb corvane --help                    the service's own command list\n"
           "  vxcdb corvane --inject query            hook groups, cases and hooks\n"
           "  vxcdb corvane --inject GROUP [ARG]...   inject a hook group\n"
           "  vxcdb corvane --inject result [GROUP]   injection results\n"
           "  vxcdb corvane --inject status GROUP | [CAMERA] SENSOR INTERFACE\n"
           "  vxcdb corvane --inject firmware CMD CAMERA SUBDEV INTERFACE [PARAM]...\n"
           "  vxcdb corvane --inject clear            remove every injection\n"
           "  vxcdb corvane --signal NUMBER           raise a signal in the service (1, 6)\n"
           "  vxcdb debug --dumpimagesensormoduledata\n"
           "\n"
           "Tool options (before MODULE):\n"
           "  --json              print the reply as JSON\n"
           "  --timeout SECONDS   how long to wait for the reply (default 5)\n"
           "  --socket PATH       the service's socket (default "
           "/data/vendor/camera/vxcdb_socket,\n"
           "                      under $CORVANE_SYSROOT when that is set)\n"
           "  --help, -h          this text\n"
           "  --campaign FILE     run the fault campaign of FILE (JSON; see docs/campaigns.md)\n"
           "  --junit FILE        with --campaign: also write a JUnit XML report to FILE\n"
           "\n"
           "Exit status: 0 success, 1 the reply reports an error, 2 bad command line,\n"
           "3 cannot connect, 4 no reply before the timeout, 5 no usable reply;\n"
           "with --campaign: 10 a step did not pass, 2 also a bad campaign file.\n";
}

}  // namespace vxcdb
