// The hook model: hooks, hook cases (named lists of hooks), hook groups (named lists of cases
// with arguments), the parsed hook-case configuration and its flattened relationship list.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

// Ids the configuration does not give read as all ones (the 64-bit value of -1).
constexpr unsigned long HOOK_ID_NONE = static_cast<unsigned long>(-1);

// One function hook. Copied by assignment, field by field.
struct Hook {
    unsigned long hook_id = HOOK_ID_NONE;
    std::string hook_name;  // unique; key of the hook table and of the database table `hook`
    std::string source_lib_name;
    std::string target_lib_name;
    std::string source_function_symbol;
    std::string target_function_symbol;
    std::string proxy_function_symbol;
    void* stub = nullptr;       // returned by the inline-hook library while installed
    void* orig_addr = nullptr;  // entry of the replaced function, filled by the library
    int function_type = 0;
    int hook_type = 0;              // 1 proxy-function address, 2 symbol address, 4 jump table
    int hook_state = 0;             // 1 installed, 0 not installed
    std::string result;             // outcome of the last installation or removal
    int executed = 0;               // non-zero once the replacement has run
    void* source_handle = nullptr;  // library handles, open while installed
    void* target_handle = nullptr;
};

struct HookCase {
    unsigned long case_id = HOOK_ID_NONE;
    std::string case_name;
    std::vector<std::string> hook_name_list;  // file order, duplicates kept
};

struct HookGroup {
    unsigned long group_id = HOOK_ID_NONE;
    std::string group_name;
    std::vector<unsigned long> case_list;      // file order, duplicates kept
    std::vector<std::string> args_array_list;  // set when the group is injected
    bool available = false;                    // injected with arguments, survives restarts
};

// The parsed hook-case file.
struct HookConfigInformation {
    std::vector<HookGroup> hook_groups;            // file order
    std::map<unsigned long, HookCase> hook_cases;  // by case id, ascending
    std::unordered_map<std::string, Hook> hooks;   // by hook name
};

// One (group, case, hook) triple of the configuration with the hook's outcome.
struct HookRelationship {
    unsigned long group_id = HOOK_ID_NONE;
    std::string group_name;
    unsigned long case_id = HOOK_ID_NONE;
    std::string case_name;
    std::string hook_name;
    std::string result;  // empty while the hook was never installed or removed
    bool executed = false;
};

// A firmware fault-injection command.
struct HookFw {
    uint8_t cmd_id = 0;  // 0 inject, 1 remove, 2 clear all
    uint8_t cam_module_id = 0;
    uint8_t subdev_id = 0;
    uint8_t interface_id = 0;
    std::string param;

    bool operator==(const HookFw& other) const {
        return cmd_id == other.cmd_id && cam_module_id == other.cam_module_id &&
               subdev_id == other.subdev_id && interface_id == other.interface_id &&
               param == other.param;
    }
};

// What a replacement function tells the controller about itself.
constexpr int HOOK_MESSAGE_EXECUTED = 1;
struct HookMessage {
    std::string hookName;
    int kind = 0;  // HOOK_MESSAGE_EXECUTED: the replacement has run
};
