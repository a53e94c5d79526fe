// The tables with which the inject sub-commands answer: a "list" type entry followed by one entry
// whose options is the comma-separated header and whose arguments are the comma-separated rows.
// Cells are joined as they are: a cell holding a comma is not quoted (the tool then sees an extra
// column), which keeps the rows readable by the simple split the tool does.
#include "core/controller/corvanesystemimpl.h"
#include "core/controller/corvanesystemlog.h"
#include "core/controller/vxcdbprotocol.h"
#include "core/model/hook/hookoperation.h"
#include "utils/stringutils.h"

namespace {

constexpr const char* kQueryHeader = "group name,hook case,hook name";
constexpr const char* kResultHeader = "group name,hook case,hook name,result,executed";
constexpr const char* kGroupResultHeader = "group name,result,executed";
constexpr const char* kGroupStatusHeader =
    "group name,hook name,camera id,sensor id,interface id,status";
constexpr const char* kStatusHeader = "hook name,camera id,sensor id,interface id,status";
constexpr const char* kClearHeader = "result";

constexpr const char* kExecuted = "<executed>";
constexpr const char* kNotExecuted = "<not executed>";
constexpr const char* kSuccessfullyHooked = "<Successfully hooked>";
constexpr const char* kUnhook = "<unhook>";
constexpr const char* kNotFind = "<not find>";
constexpr const char* kUnknown =
    "<unkonwn>";  // misspelt on purpose: part of the reply format, keep it
constexpr const char* kCleared = "<cleared>";

// Columns of a fault_inject_ack row (row 0 of the table is the header, or one empty row when
// nothing matched).
enum AckColumn { kAckHookName, kAckCamModuleId, kAckSubdevId, kAckInterfaceId, kAckStatus };

// Firmware acknowledgements address a hook by (case id, hook id) as two bytes.
constexpr unsigned long kMaxFirmwareAddress = 255;

VXCDBMessage_CDBCmd* AddTable(VXCDBMessage& reply, const char* header) {
    CorvaneSystemImpl::SetVXCDBMessageType(VXCDB_TYPE_LIST, reply);
    VXCDBMessage_CDBCmd* table = reply.add_cmds();
    table->set_options(header);
    return table;
}

std::string CellOrUnknown(const std::vector<std::string>& row, size_t column) {
    if (column >= row.size() || row[column].empty()) {
        return kUnknown;
    }
    return row[column];
}

// Appends one row per acknowledgement of `hookName` at the given address, each preceded by
// `leading` cells. When none matched, one row of what was asked: the hook name (or "<unkonwn>"
// when there is none), the camera id ("<unkonwn>" when any camera was asked), the sensor and
// interface ids, and "<not find>" as status.
void AppendAckRows(HookOperation* engine, const std::vector<std::string>& leading,
                   const std::string& hookName, int camModuleId, unsigned char subdevId,
                   unsigned char interfaceId, VXCDBMessage_CDBCmd* table) {
    std::vector<std::vector<std::string>> rows;
    engine->GetFaultInjectAckItem(hookName, camModuleId, subdevId, interfaceId, rows);
    bool found = false;
    for (size_t i = 1; i < rows.size(); ++i) {
        const std::vector<std::string>& row = rows[i];
        std::vector<std::string> cells = leading;
        cells.push_back(CellOrUnknown(row, kAckHookName));
        cells.push_back(CellOrUnknown(row, kAckCamModuleId));
        cells.push_back(CellOrUnknown(row, kAckSubdevId));
        cells.push_back(CellOrUnknown(row, kAckInterfaceId));
        cells.push_back(CellOrUnknown(row, kAckStatus));
        CORVANE_LOGI(
            "GetFaultInjectAckItem cam_module_id: %s, subdev_id: %s, interface_id: %s, status: "
            "%s\n",
            cells[leading.size() + 1].c_str(), cells[leading.size() + 2].c_str(),
            cells[leading.size() + 3].c_str(), cells[leading.size() + 4].c_str());
        table->add_arguments(StringJoin(cells, ","));
        found = true;
    }
    if (!found) {
        std::vector<std::string> cells = leading;
        cells.push_back(hookName.empty() ? kUnknown : hookName);
        cells.push_back(camModuleId < 0 ? kUnknown : std::to_string(camModuleId));
        cells.push_back(std::to_string(subdevId));
        cells.push_back(std::to_string(interfaceId));
        cells.push_back(kNotFind);
        table->add_arguments(StringJoin(cells, ","));
    }
}

}  // namespace

void CorvaneSystemImpl::SetQueryVXCDBMessage(VXCDBMessage& reply) {
    if (m_pHookOperation == nullptr) {
        return;
    }
    VXCDBMessage_CDBCmd* table = AddTable(reply, kQueryHeader);
    for (const HookRelationship& relation : m_pHookOperation->GetHookRelationshipList()) {
        table->add_arguments(
            StringJoin({relation.group_name, relation.case_name, relation.hook_name}, ","));
    }
}

void CorvaneSystemImpl::SetResultVXCDBMessage(VXCDBMessage& reply) {
    if (m_pHookOperation == nullptr) {
        return;
    }
    VXCDBMessage_CDBCmd* table = AddTable(reply, kResultHeader);
    std::vector<HookRelationship> relations = m_pHookOperation->GetHookRelationshipList();
    CORVANE_LOGI("hookRelationship size: %d", static_cast<int>(relations.size()));
    for (const HookRelationship& relation : relations) {
        table->add_arguments(
            StringJoin({relation.group_name, relation.case_name, relation.hook_name,
                        relation.result.empty() ? kUnhook : relation.result,
                        relation.executed ? kExecuted : kNotExecuted},
                       ","));
    }
}

void CorvaneSystemImpl::SetResultVXCDBMessage(std::string groupName, VXCDBMessage& reply) {
    if (m_pHookOperation == nullptr) {
        return;
    }
    VXCDBMessage_CDBCmd* table = AddTable(reply, kGroupResultHeader);
    const char* executed =
        m_pHookOperation->IsHookGroupExecuted(groupName) ? kExecuted : kNotExecuted;
    const char* result =
        m_pHookOperation->IsHookGroupReady(groupName) ? kSuccessfullyHooked : kUnhook;
    table->add_arguments(StringJoin({groupName, result, executed}, ","));
}

// Rows follow the group's hooks in the engine's relationship order (cases in group order, hooks
// in case order, duplicates kept); each hook is looked up at (its case id, its hook id) for every
// camera module. A hook whose ids cannot be addressed, and a group with no hooks at all, give
// one "<not find>" row with "<unkonwn>" in the cells that are not known.
void CorvaneSystemImpl::SetStatusVXCDBMessage(const std::string& groupName, VXCDBMessage& reply) {
    if (m_pHookOperation == nullptr) {
        CORVANE_LOGE("m_pHookOperation addr: 0x%p", static_cast<void*>(m_pHookOperation));
        return;
    }
    VXCDBMessage_CDBCmd* table = AddTable(reply, kGroupStatusHeader);
    bool anyHook = false;
    for (const HookRelationship& relation : m_pHookOperation->GetHookRelationshipList()) {
        if (relation.group_name != groupName) {
            continue;
        }
        anyHook = true;
        unsigned long caseId = relation.case_id;
        unsigned long hookId = m_pHookOperation->GetCaseAndHookId(relation.hook_name).second;
        if (caseId > kMaxFirmwareAddress || hookId > kMaxFirmwareAddress) {
            table->add_arguments(StringJoin(
                {groupName, relation.hook_name, kUnknown, kUnknown, kUnknown, kNotFind}, ","));
            continue;
        }
        AppendAckRows(m_pHookOperation, {groupName}, relation.hook_name, -1,
                      static_cast<unsigned char>(caseId), static_cast<unsigned char>(hookId),
                      table);
    }
    if (!anyHook) {
        table->add_arguments(
            StringJoin({groupName, kUnknown, kUnknown, kUnknown, kUnknown, kNotFind}, ","));
    }
}

void CorvaneSystemImpl::SetStatusVXCDBMessage(int camModuleId, unsigned char subdevId,
                                              unsigned char interfaceId, VXCDBMessage& reply) {
    if (m_pHookOperation == nullptr) {
        CORVANE_LOGE("m_pHookOperation addr: 0x%p", static_cast<void*>(m_pHookOperation));
        return;
    }
    VXCDBMessage_CDBCmd* table = AddTable(reply, kStatusHeader);
    std::string hookName = m_pHookOperation->GetHookName(subdevId, interfaceId);
    if (hookName.empty()) {
        CORVANE_LOGI("hook_name is empty");
    }
    CORVANE_LOGI("cam_module_id: %d, subdev_id: %d, interface_id: %d", camModuleId, subdevId,
                 interfaceId);
    AppendAckRows(m_pHookOperation, {}, hookName, camModuleId, subdevId, interfaceId, table);
}

void CorvaneSystemImpl::ClearVXCDBMessage(VXCDBMessage& reply) {
    VXCDBMessage_CDBCmd* table = AddTable(reply, kClearHeader);
    table->add_arguments(kCleared);
}
