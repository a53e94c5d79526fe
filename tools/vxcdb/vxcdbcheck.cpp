#include "tools/vxcdb/vxcdbcheck.h"

#include <ctype.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "tools/vxcdb/vxcdbjsontree.h"
#include "tools/vxcdb/vxcdblibraries.h"
#include "utils/fileutils.h"

namespace vxcdb {

namespace {

using Kind = JsonNode::Kind;

// Configuration files are a few kilobytes; a larger file is refused rather than read whole.
constexpr off_t kMaxFileBytes = 64 * 1024 * 1024;
// Beyond this many problems the rest are only counted: the first ones are the ones to fix.
constexpr size_t kMaxPrintedProblems = 1000;
// Names longer than this get no suggestion: comparing two names costs the product of lengths.
constexpr size_t kMaxSuggestedLength = 256;
// Strings longer than this are described by their kind only, not quoted.
constexpr size_t kMaxQuotedValueLength = 40;

constexpr const char* kHookCaseKind = "hook-case file";
constexpr const char* kProtectionKind = "protection configuration";
constexpr const char* kHookCaseDevicePath = "/odm/etc/camera/corvanesystem_hook_case.json";
constexpr const char* kHookCaseFileName = "corvanesystem_hook_case.json";

constexpr const char* kGroupSection = "HOOK_GROUP";
constexpr const char* kCaseSection = "HOOK_CASE";
constexpr const char* kHookSection = "HOOK_FUNCTION";

constexpr const char* kSchemeKey = "protection_scheme";
constexpr const char* kGroupListKey = "hook_group_list";
// The schemes the service switches; "INVAILD" is spelt so in property names and files.
const std::vector<std::string> kSchemeNames = {"INVAILD", "SENSORI2C", "EEPROMI2C", "ACTUATORI2C",
                                               "OISI2C",  "KERNELI2C", "ZOOMI2C"};

// Only this hook type installs anything; 1 and 4 are accepted and install nothing.
constexpr int64_t kHookTypeSymbolAddress = 2;
constexpr int64_t kHookTypeProxyFunction = 1;
constexpr int64_t kHookTypeJumpTable = 4;

enum class ValueRule { kId, kInt32, kString, kIdOrIds, kStringOrStrings };

struct KeyRule {
    const char* name;
    ValueRule rule;
};

const std::vector<KeyRule> kGroupKeys = {{"group_id", ValueRule::kId},
                                         {"group_name", ValueRule::kString},
                                         {"case", ValueRule::kIdOrIds}};
const std::vector<KeyRule> kCaseKeys = {{"case_id", ValueRule::kId},
                                        {"case_name", ValueRule::kString},
                                        {"hook_function", ValueRule::kStringOrStrings}};
const std::vector<KeyRule> kHookKeys = {{"hook_id", ValueRule::kId},
                                        {"hook_name", ValueRule::kString},
                                        {"hook_type", ValueRule::kInt32},
                                        {"function_type", ValueRule::kInt32},
                                        {"source_lib_name", ValueRule::kString},
                                        {"target_lib_name", ValueRule::kString},
                                        {"source_function_symbol", ValueRule::kString},
                                        {"target_function_symbol", ValueRule::kString},
                                        {"proxy_function_symbol", ValueRule::kString}};

// The library and symbol keys a hook installed by symbol address needs, in pairs.
const std::vector<std::pair<const char*, const char*>> kHookLibraryKeys = {
    {"source_lib_name", "source_function_symbol"}, {"target_lib_name", "target_function_symbol"}};

std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

// A value as a message shows it: numbers as written, short strings quoted, the rest by kind.
std::string Describe(const JsonNode& node) {
    if (node.kind == Kind::kNumber) {
        return node.text;
    }
    if (node.kind == Kind::kString && node.text.size() <= kMaxQuotedValueLength) {
        return "the string \"" + node.text + "\"";
    }
    return DescribeKind(node);
}

std::string DidYouMean(const std::string& name, const std::vector<std::string>& candidates) {
    std::string nearest = NearestName(name, candidates);
    return nearest.empty() ? "" : "; did you mean " + Quoted(nearest) + "?";
}

std::vector<std::string> RuleNames(const std::vector<KeyRule>& rules) {
    std::vector<std::string> names;
    for (const KeyRule& rule : rules) {
        names.push_back(rule.name);
    }
    return names;
}

const char* Expectation(ValueRule rule) {
    switch (rule) {
        case ValueRule::kId:
            return "an unsigned 64-bit integer";
        case ValueRule::kInt32:
            return "a 32-bit integer";
        case ValueRule::kString:
            return "a string";
        case ValueRule::kIdOrIds:
            return "an unsigned 64-bit integer or an array of them";
        case ValueRule::kStringOrStrings:
            return "a string or an array of strings";
    }
    return "";
}

bool Fits(const JsonNode& node, ValueRule rule) {
    switch (rule) {
        case ValueRule::kId:
        case ValueRule::kIdOrIds:
            return node.kind == Kind::kNumber && node.isUint64;
        case ValueRule::kInt32:
            return node.kind == Kind::kNumber && node.isInt32;
        case ValueRule::kString:
        case ValueRule::kStringOrStrings:
            return node.kind == Kind::kString;
    }
    return false;
}

bool IsList(ValueRule rule) {
    return rule == ValueRule::kIdOrIds || rule == ValueRule::kStringOrStrings;
}

// One object of a hook-case section, with the values the service would take from it.
struct Entry {
    const JsonNode* object = nullptr;
    std::set<std::string> present;                  // every known key given, valid or not
    std::map<std::string, const JsonNode*> values;  // the last valid value of each scalar key
    std::vector<const JsonNode*> items;             // the valid items of the list key, in order

    const JsonNode* Value(const std::string& key) const {
        auto found = values.find(key);
        return found == values.end() ? nullptr : found->second;
    }
};

class FileChecker {
  public:
    FileChecker(const std::string& text, CheckResult* result)
        : m_positions(text), m_result(result) {}

    void Add(size_t offset, std::string message) {
        m_result->problems.push_back({offset, 0, 0, std::move(message)});
    }

    std::string Line(size_t offset) const {
        size_t line = 0, column = 0;
        m_positions.LineAndColumn(offset, &line, &column);
        return "line " + std::to_string(line);
    }

    void Finish() {
        std::stable_sort(
            m_result->problems.begin(), m_result->problems.end(),
            [](const CheckProblem& a, const CheckProblem& b) { return a.offset < b.offset; });
        for (CheckProblem& problem : m_result->problems) {
            m_positions.LineAndColumn(problem.offset, &problem.line, &problem.column);
        }
    }

    void CheckHookCase(const JsonNode& root, LibraryProbe& libraries);
    void CheckProtection(const JsonNode& root, const std::set<std::string>* groupNames,
                         const std::string& hookCasePath);

  private:
    // The members of `object` that name known keys, the first of each name, as the service looks
    // keys up by name: unknown and repeated keys are reported.
    std::map<std::string, const JsonMember*> KnownMembers(const JsonNode& object,
                                                          const std::vector<std::string>& known);
    std::vector<Entry> ReadSection(const JsonNode* section, const char* name,
                                   const std::vector<KeyRule>& rules);
    void CheckValue(const JsonMember& member, ValueRule rule, Entry* entry);
    std::map<uint64_t, const Entry*> CheckCases(const std::vector<Entry>& cases);
    std::map<std::string, const Entry*> CheckHooks(const std::vector<Entry>& hooks,
                                                   LibraryProbe& libraries);
    void CheckGroups(const std::vector<Entry>& groups,
                     const std::map<uint64_t, const Entry*>& cases);
    void CheckCaseHooks(const std::vector<Entry>& cases,
                        const std::map<std::string, const Entry*>& hooks);
    void CheckHookLibraries(const Entry& hook, LibraryProbe& libraries);

    TextPositions m_positions;
    CheckResult* m_result;
};

std::map<std::string, const JsonMember*> FileChecker::KnownMembers(
    const JsonNode& object, const std::vector<std::string>& known) {
    std::map<std::string, const JsonMember*> members;
    for (const JsonMember& member : object.members) {
        if (std::find(known.begin(), known.end(), member.name) == known.end()) {
            Add(member.offset, "unknown key " + Quoted(member.name) + ": the service ignores it" +
                                   DidYouMean(member.name, known));
            continue;
        }
        auto earlier = members.emplace(member.name, &member);
        if (!earlier.second) {
            Add(member.offset, Quoted(member.name) + " given twice in one object (first at " +
                                   Line(earlier.first->second->offset) +
                                   "): the service reads only the first");
        }
    }
    return members;
}

void FileChecker::CheckValue(const JsonMember& member, ValueRule rule, Entry* entry) {
    const JsonNode& value = member.value;
    if (IsList(rule) && value.kind == Kind::kArray) {
        for (const JsonNode& item : value.elements) {
            if (Fits(item, rule)) {
                entry->items.push_back(&item);
            } else {
                Add(item.offset,
                    "each element of " + Quoted(member.name) + " must be " +
                        (rule == ValueRule::kIdOrIds ? "an unsigned 64-bit integer" : "a string") +
                        ", not " + Describe(item));
            }
        }
        return;
    }
    if (!Fits(value, rule)) {
        Add(value.offset,
            Quoted(member.name) + " must be " + Expectation(rule) + ", not " + Describe(value));
        return;
    }
    if (IsList(rule)) {
        entry->items.push_back(&value);
    } else {
        entry->values[member.name] = &value;
    }
}

std::vector<Entry> FileChecker::ReadSection(const JsonNode* section, const char* name,
                                            const std::vector<KeyRule>& rules) {
    std::vector<Entry> entries;
    if (section == nullptr || section->kind != Kind::kArray) {
        return entries;
    }
    std::vector<std::string> known = RuleNames(rules);
    for (const JsonNode& element : section->elements) {
        if (element.kind != Kind::kObject) {
            Add(element.offset, "an element of " + Quoted(name) + " must be an object, not " +
                                    Describe(element) + ": the service ignores it");
            continue;
        }
        if (element.members.empty()) {
            Add(element.offset, "an empty object in " + Quoted(name) + ": the service ignores it");
            continue;
        }
        Entry entry;
        entry.object = &element;
        // Scalar keys given twice keep the later value; list keys add up, so they may repeat.
        for (const JsonMember& member : element.members) {
            auto rule = std::find_if(rules.begin(), rules.end(),
                                     [&](const KeyRule& each) { return member.name == each.name; });
            if (rule == rules.end()) {
                Add(member.offset, "unknown key " + Quoted(member.name) +
                                       ": the service ignores it" + DidYouMean(member.name, known));
                continue;
            }
            if (!IsList(rule->rule) && entry.present.count(member.name) != 0) {
                Add(member.offset,
                    Quoted(member.name) + " given twice in one object: the later value wins");
            }
            entry.present.insert(member.name);
            CheckValue(member, rule->rule, &entry);
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::map<uint64_t, const Entry*> FileChecker::CheckCases(const std::vector<Entry>& cases) {
    std::map<uint64_t, const Entry*> byId;
    std::map<std::string, const Entry*> byName;
    for (const Entry& hookCase : cases) {
        const JsonNode* id = hookCase.Value("case_id");
        if (hookCase.present.count("case_id") == 0) {
            Add(hookCase.object->offset,
                "case without \"case_id\": no group can name it (it is stored under "
                "18446744073709551615)");
        } else if (id != nullptr) {
            auto earlier = byId.find(id->uint64Value);
            if (earlier != byId.end()) {
                Add(id->offset, "case id " + id->text + " given twice (first at " +
                                    Line(earlier->second->Value("case_id")->offset) +
                                    "): this case replaces the earlier one");
            }
            byId[id->uint64Value] = &hookCase;
        }
        const JsonNode* name = hookCase.Value("case_name");
        if (name != nullptr) {
            auto earlier = byName.find(name->text);
            if (earlier != byName.end()) {
                Add(name->offset, "case name " + Quoted(name->text) + " given twice (first at " +
                                      Line(earlier->second->Value("case_name")->offset) + ")");
            } else {
                byName[name->text] = &hookCase;
            }
        }
    }
    return byId;
}

std::map<std::string, const Entry*> FileChecker::CheckHooks(const std::vector<Entry>& hooks,
                                                            LibraryProbe& libraries) {
    std::map<std::string, const Entry*> byName;
    for (const Entry& hook : hooks) {
        const JsonNode* name = hook.Value("hook_name");
        std::string label = name == nullptr ? "hook" : "hook " + Quoted(name->text);
        if (hook.present.count("hook_name") == 0) {
            Add(hook.object->offset, "hook without \"hook_name\": no case can name it");
        } else if (name != nullptr) {
            auto earlier = byName.find(name->text);
            if (earlier != byName.end()) {
                Add(name->offset, "hook name " + Quoted(name->text) + " given twice (first at " +
                                      Line(earlier->second->Value("hook_name")->offset) +
                                      "): this hook replaces the earlier one");
            }
            byName[name->text] = &hook;
        }
        const JsonNode* type = hook.Value("hook_type");
        if (hook.present.count("hook_type") == 0) {
            Add(hook.object->offset, label +
                                         " without \"hook_type\": it installs nothing (2 "
                                         "installs by symbol address)");
        } else if (type != nullptr && type->int64Value != kHookTypeSymbolAddress &&
                   type->int64Value != kHookTypeProxyFunction &&
                   type->int64Value != kHookTypeJumpTable) {
            Add(type->offset, "hook_type " + type->text +
                                  " is not a hook type: the hook installs nothing (2 installs by "
                                  "symbol address; 1 and 4 are accepted and install nothing)");
        }
        if (type != nullptr && type->int64Value == kHookTypeSymbolAddress) {
            for (const auto& keys : kHookLibraryKeys) {
                for (const char* key : {keys.first, keys.second}) {
                    if (hook.present.count(key) == 0) {
                        Add(hook.object->offset,
                            label + " without " + Quoted(key) + ": it cannot be installed");
                    }
                }
            }
        }
        CheckHookLibraries(hook, libraries);
    }
    return byName;
}

void FileChecker::CheckHookLibraries(const Entry& hook, LibraryProbe& libraries) {
    for (const auto& keys : kHookLibraryKeys) {
        const JsonNode* library = hook.Value(keys.first);
        if (library == nullptr) {
            continue;
        }
        std::string error = libraries.Load(library->text);
        if (!error.empty()) {
            Add(library->offset, "cannot load " + Quoted(library->text) + ": " + error);
            continue;
        }
        const JsonNode* symbol = hook.Value(keys.second);
        if (symbol == nullptr) {
            continue;
        }
        error = libraries.FindSymbol(library->text, symbol->text);
        if (!error.empty()) {
            Add(symbol->offset,
                Quoted(library->text) + " does not export " + Quoted(symbol->text) + ": " + error +
                    DidYouMean(symbol->text, libraries.ExportedSymbols(library->text)));
        }
    }
}

void FileChecker::CheckGroups(const std::vector<Entry>& groups,
                              const std::map<uint64_t, const Entry*>& cases) {
    std::map<uint64_t, const JsonNode*> byId;
    std::map<std::string, const JsonNode*> byName;
    for (const Entry& group : groups) {
        const JsonNode* id = group.Value("group_id");
        if (id != nullptr) {
            auto earlier = byId.emplace(id->uint64Value, id);
            if (!earlier.second) {
                Add(id->offset, "group id " + id->text + " given twice (first at " +
                                    Line(earlier.first->second->offset) + ")");
            }
        }
        const JsonNode* name = group.Value("group_name");
        if (group.present.count("group_name") == 0) {
            Add(group.object->offset, "group without \"group_name\": it cannot be injected");
        } else if (name != nullptr) {
            auto earlier = byName.emplace(name->text, name);
            if (!earlier.second) {
                Add(name->offset, "group name " + Quoted(name->text) + " given twice (first at " +
                                      Line(earlier.first->second->offset) +
                                      "): commands reach only the first");
            }
        }
        for (const JsonNode* caseId : group.items) {
            if (cases.count(caseId->uint64Value) == 0) {
                Add(caseId->offset, "no case has id " + caseId->text);
            }
        }
    }
}

void FileChecker::CheckCaseHooks(const std::vector<Entry>& cases,
                                 const std::map<std::string, const Entry*>& hooks) {
    std::vector<std::string> hookNames;
    for (const auto& hook : hooks) {
        hookNames.push_back(hook.first);
    }
    for (const Entry& hookCase : cases) {
        // The firmware addresses a hook by its case id and hook id: the first hook of the case
        // with that id is the one its acknowledgements reach.
        std::map<uint64_t, std::string> hookIds;
        for (const JsonNode* hookName : hookCase.items) {
            auto hook = hooks.find(hookName->text);
            if (hook == hooks.end()) {
                Add(hookName->offset, "no hook is named " + Quoted(hookName->text) +
                                          DidYouMean(hookName->text, hookNames));
                continue;
            }
            const JsonNode* hookId = hook->second->Value("hook_id");
            if (hookId == nullptr) {
                continue;
            }
            auto earlier = hookIds.emplace(hookId->uint64Value, hookName->text);
            if (!earlier.second && earlier.first->second != hookName->text) {
                Add(hookName->offset, "hooks " + Quoted(earlier.first->second) + " and " +
                                          Quoted(hookName->text) + " of one case share hook id " +
                                          hookId->text + ": firmware acknowledgements reach only " +
                                          Quoted(earlier.first->second));
            }
        }
    }
}

void FileChecker::CheckHookCase(const JsonNode& root, LibraryProbe& libraries) {
    const std::vector<std::string> sectionNames = {kGroupSection, kCaseSection, kHookSection};
    std::map<std::string, const JsonMember*> members = KnownMembers(root, sectionNames);
    std::map<std::string, const JsonNode*> sections;
    for (const std::string& name : sectionNames) {
        auto member = members.find(name);
        if (member == members.end()) {
            Add(root.offset, "no " + Quoted(name) + " section");
            continue;
        }
        const JsonNode& value = member->second->value;
        if (value.kind != Kind::kArray) {
            Add(value.offset, Quoted(name) + " must be an array of objects, not " +
                                  Describe(value) + ": the service reads nothing from it");
            continue;
        }
        sections[name] = &value;
    }
    std::vector<Entry> groups = ReadSection(sections[kGroupSection], kGroupSection, kGroupKeys);
    std::vector<Entry> cases = ReadSection(sections[kCaseSection], kCaseSection, kCaseKeys);
    std::vector<Entry> hooks = ReadSection(sections[kHookSection], kHookSection, kHookKeys);
    std::map<uint64_t, const Entry*> casesById = CheckCases(cases);
    std::map<std::string, const Entry*> hooksByName = CheckHooks(hooks, libraries);
    CheckGroups(groups, casesById);
    CheckCaseHooks(cases, hooksByName);
}

void FileChecker::CheckProtection(const JsonNode& root, const std::set<std::string>* groupNames,
                                  const std::string& hookCasePath) {
    const std::vector<std::string> keys = {kSchemeKey, kGroupListKey};
    std::vector<std::string> knownGroups;
    if (groupNames != nullptr) {
        knownGroups.assign(groupNames->begin(), groupNames->end());
    }
    std::map<std::string, size_t> schemes;                           // name, offset
    std::map<std::string, std::pair<std::string, size_t>> schemeOf;  // group: scheme, offset
    for (const JsonNode& element : root.elements) {
        if (element.kind != Kind::kObject) {
            Add(element.offset, "a protection scheme must be an object, not " + Describe(element) +
                                    ": the service skips it");
            continue;
        }
        std::map<std::string, const JsonMember*> members = KnownMembers(element, keys);
        auto nameMember = members.find(kSchemeKey);
        auto listMember = members.find(kGroupListKey);
        if (nameMember == members.end()) {
            Add(element.offset, "scheme without \"protection_scheme\": the service skips it");
            continue;
        }
        const JsonNode& nameValue = nameMember->second->value;
        if (nameValue.kind != Kind::kString) {
            Add(nameValue.offset, "\"protection_scheme\" must be a string, not " +
                                      Describe(nameValue) + ": the service skips the scheme");
            continue;
        }
        const std::string& scheme = nameValue.text;
        if (std::find(kSchemeNames.begin(), kSchemeNames.end(), scheme) == kSchemeNames.end()) {
            Add(nameValue.offset, Quoted(scheme) +
                                      " is not a protection scheme: it is never switched" +
                                      DidYouMean(scheme, kSchemeNames));
        }
        if (listMember == members.end()) {
            Add(element.offset,
                "scheme " + Quoted(scheme) + " without \"hook_group_list\": the service skips it");
            continue;
        }
        const JsonNode& list = listMember->second->value;
        if (list.kind != Kind::kArray) {
            Add(list.offset, "\"hook_group_list\" must be an array of objects, not " +
                                 Describe(list) + ": the service skips the scheme");
            continue;
        }
        auto earlierScheme = schemes.emplace(scheme, nameValue.offset);
        if (!earlierScheme.second) {
            Add(nameValue.offset, "scheme " + Quoted(scheme) + " given twice (first at " +
                                      Line(earlierScheme.first->second) +
                                      "): this entry replaces the earlier one");
        }
        std::map<std::string, size_t> groupsOfScheme;
        for (const JsonNode& groups : list.elements) {
            if (groups.kind != Kind::kObject) {
                Add(groups.offset, "an element of \"hook_group_list\" must be an object, not " +
                                       Describe(groups) + ": the service skips it");
                continue;
            }
            for (const JsonMember& group : groups.members) {
                const std::string label = "hook group " + Quoted(group.name);
                const JsonNode& arguments = group.value;
                if (arguments.kind != Kind::kArray) {
                    Add(arguments.offset, "the arguments of " + label +
                                              " must be an array of strings, not " +
                                              Describe(arguments) + ": it gets no arguments");
                }
                for (size_t i = 0; i < arguments.elements.size(); ++i) {
                    const JsonNode& argument = arguments.elements[i];
                    if (argument.kind != Kind::kString) {
                        Add(argument.offset,
                            "argument " + std::to_string(i + 1) + " of " + label + " is " +
                                Describe(argument) +
                                ", not a string: the service skips the whole group (write "
                                "numbers as strings)");
                    }
                }
                auto earlier = groupsOfScheme.emplace(group.name, group.offset);
                if (!earlier.second) {
                    Add(group.offset, label + " given twice in scheme " + Quoted(scheme) +
                                          " (first at " + Line(earlier.first->second) +
                                          "): its later arguments replace the earlier ones");
                }
                auto other = schemeOf.emplace(group.name, std::make_pair(scheme, group.offset));
                if (!other.second && other.first->second.first != scheme) {
                    Add(group.offset,
                        label + " also belongs to scheme " + Quoted(other.first->second.first) +
                            " (" + Line(other.first->second.second) +
                            "): when one scheme is on and the other off, the later one in "
                            "scheme order decides whether it stays installed");
                }
                if (groupNames != nullptr && groupNames->count(group.name) == 0) {
                    Add(group.offset, "no " + label + " in " + hookCasePath +
                                          DidYouMean(group.name, knownGroups));
                }
            }
        }
    }
}

// Reads the file for checking: false with the reason when it cannot be read.
bool ReadCheckedFile(const std::string& path, std::string* text, std::string* reason) {
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_size > kMaxFileBytes) {
        *reason = "larger than " + std::to_string(kMaxFileBytes) + " bytes";
        return false;
    }
    if (!ReadWholeFile(path, text)) {
        *reason = "cannot be read";
        return false;
    }
    return true;
}

// The group names of the hook-case file at `path`; false with a note when they are unknown.
bool ReadGroupNames(const std::string& path, std::set<std::string>* names, std::string* note) {
    std::string text, reason;
    JsonNode root;
    JsonParseFailure failure;
    if (!ReadCheckedFile(path, &text, &reason)) {
        *note = "hook group names not checked: " + path + " " + reason;
        return false;
    }
    if (!ParseJsonTree(text, &root, &failure)) {
        *note = "hook group names not checked: " + path + " is not valid JSON (check it first)";
        return false;
    }
    for (const JsonMember& section : root.members) {
        if (section.name != kGroupSection) {
            continue;
        }
        for (const JsonNode& group : section.value.elements) {
            for (const JsonMember& member : group.members) {
                if (member.name == "group_name" && member.value.kind == Kind::kString) {
                    names->insert(member.value.text);
                }
            }
        }
        break;  // the first section of the name is the one read
    }
    return true;
}

std::string Directory(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

size_t CommonSubsequenceLength(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1, 0);
    for (char ca : a) {
        size_t diagonal = 0;
        for (size_t j = 0; j < b.size(); ++j) {
            size_t above = row[j + 1];
            row[j + 1] =
                tolower(static_cast<unsigned char>(ca)) == tolower(static_cast<unsigned char>(b[j]))
                    ? diagonal + 1
                    : std::max(row[j], above);
            diagonal = above;
        }
    }
    return row[b.size()];
}

}  // namespace

std::string NearestName(const std::string& name, const std::vector<std::string>& candidates) {
    std::string nearest;
    if (name.empty() || name.size() > kMaxSuggestedLength) {
        return nearest;
    }
    size_t nearestDistance = SIZE_MAX;
    for (const std::string& candidate : candidates) {
        if (candidate == name || candidate.size() > kMaxSuggestedLength) {
            continue;
        }
        // Characters to drop from both to make them equal: a missing word costs its length, a
        // typo one or two. Names sharing less than 60% of their characters are not suggested.
        size_t common = CommonSubsequenceLength(name, candidate);
        size_t distance = name.size() + candidate.size() - 2 * common;
        if (common * 5 >= name.size() * 3 && common * 5 >= candidate.size() * 2 &&
            distance < nearestDistance) {
            nearest = candidate;
            nearestDistance = distance;
        }
    }
    return nearest;
}

CheckResult CheckConfigurationFile(const std::string& path, const std::string& sysroot,
                                   bool sysrootGiven) {
    CheckResult result;
    std::string text, reason;
    if (!ReadCheckedFile(path, &text, &reason)) {
        result.problems.push_back({0, 0, 0, "the file " + reason});
        return result;
    }
    FileChecker checker(text, &result);
    JsonNode root;
    JsonParseFailure failure;
    if (!ParseJsonTree(text, &root, &failure)) {
        // Nothing after a syntax error is read: the service reads no part of such a file. The
        // protection reader has no nesting bound, but nothing of its file nests this deep.
        checker.Add(failure.offset,
                    failure.tooDeep ? failure.message + " (no configuration file nests this deep)"
                                    : "not valid JSON: " + failure.message +
                                          " (the service reads nothing from this file)");
    } else if (root.kind == Kind::kObject) {
        result.kind = kHookCaseKind;
        LibraryProbe libraries(sysroot);
        checker.CheckHookCase(root, libraries);
    } else if (root.kind == Kind::kArray) {
        result.kind = kProtectionKind;
        std::string hookCasePath = sysrootGiven ? LibraryPathInSysroot(kHookCaseDevicePath, sysroot)
                                                : Directory(path) + "/" + kHookCaseFileName;
        std::set<std::string> groupNames;
        std::string note;
        bool known = ReadGroupNames(hookCasePath, &groupNames, &note);
        if (!known) {
            result.notes.push_back(note);
        }
        checker.CheckProtection(root, known ? &groupNames : nullptr, hookCasePath);
    } else {
        checker.Add(root.offset,
                    "the root must be an object (a hook-case file) or an array (a "
                    "protection configuration), not " +
                        Describe(root));
    }
    checker.Finish();
    return result;
}

int RunCheck(const std::string& path, const std::string& sysroot, std::ostream& out) {
    std::string root = sysroot;
    bool sysrootGiven = !root.empty();
    if (root.empty()) {
        const char* environment = getenv("CORVANE_SYSROOT");
        sysrootGiven = environment != nullptr && environment[0] != '\0';
        root = sysrootGiven ? environment : "/";
    }
    CheckResult result = CheckConfigurationFile(path, root, sysrootGiven);
    size_t printed = 0;
    for (const CheckProblem& problem : result.problems) {
        if (printed++ == kMaxPrintedProblems) {
            break;
        }
        out << path;
        if (problem.line != 0) {
            out << ':' << problem.line << ':' << problem.column;
        }
        out << ": " << problem.message << '\n';
    }
    if (result.problems.size() > kMaxPrintedProblems) {
        out << path << ": " << result.problems.size() - kMaxPrintedProblems
            << " more problem(s) not shown\n";
    }
    for (const std::string& note : result.notes) {
        out << path << ": note: " << note << '\n';
    }
    std::string kind = result.kind.empty() ? "" : " (" + result.kind + ")";
    if (result.problems.empty()) {
        out << path << kind << ": no problems found\n";
        return kCheckExitClean;
    }
    out << path << kind << ": " << result.problems.size() << " problem(s)\n";
    return kCheckExitProblems;
}

}  // namespace vxcdb
