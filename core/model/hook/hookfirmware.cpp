// Firmware fault injection: commands forwarded to the firmware side on the bus topic "dynamic",
// pending commands kept in hook_firmware and replayed when the firmware boots ("bootinject"),
// acknowledgements ("FaultInjectAck") recorded in fault_inject_ack.
#include <algorithm>
#include <exception>

#include "core/controller/corvanesystemlog.h"
#include "core/database/hook/hookfwdboperations.h"
#include "core/messagecenter/messagecenterclient.h"
#include "core/model/hook/hookoperationimpl.h"
#include "platform/devicepath.h"

namespace {

constexpr uint8_t kCmdInject = 0;
constexpr uint8_t kCmdRemove = 1;
constexpr uint8_t kCmdClear = 2;
constexpr uint32_t kAckExecutedBit = 0x80000000u;
constexpr uint32_t kPayloadLength = 4;

// Bus topics and keys shared with the firmware side.
constexpr const char* kTopicDynamic = "dynamic";
constexpr const char* kTopicFaultInjectAck = "FaultInjectAck";
constexpr const char* kTopicBootInject = "bootinject";
constexpr const char* kTopicBootInjectAck = "bootInjectAck";
constexpr const char* kKeyPayload = "payload";
constexpr const char* kKeyParam = "param";
constexpr const char* kKeyLength = "length";
constexpr const char* kKeyParamPrefix = "param_";
constexpr const char* kKeyCameraId = "cameraid";
constexpr const char* kKeySensorId = "SensorId";
constexpr const char* kKeyInterfaceId = "InterfaceID";
constexpr const char* kKeyStatus = "status";

// The four command bytes in wire order: cmd_id, cam_module_id, subdev_id, interface_id.
Message DynamicMessage(const HookFw& hookFw, bool withLength) {
    Message message(kTopicDynamic);
    unsigned char payload[kPayloadLength] = {hookFw.cmd_id, hookFw.cam_module_id, hookFw.subdev_id,
                                             hookFw.interface_id};
    if (withLength) {
        message.data[kKeyLength] = MakeInt32Data(kPayloadLength);
    }
    message.data[kKeyPayload].Set(payload, kPayloadLength);
    message.data[kKeyParam] = MessageData(hookFw.param);
    return message;
}

void Send(const Message& message) {
    Message reply;
    MessageCenterClient::GetInstance()->SendMessage(message, &reply);
}

// An acknowledgement value: a 32-bit or 64-bit integer entry, of which the low 8 bits count.
uint8_t AckByte(const Message& message, const char* key) {
    uint32_t value32 = 0;
    if (GetInt32Data(message, key, &value32)) {
        return static_cast<uint8_t>(value32);
    }
    uint64_t value64 = 0;
    if (GetInt64Data(message, key, &value64)) {
        return static_cast<uint8_t>(value64);
    }
    return 0;
}

// Pending commands; a table this system did not write (a cell that is not a number) reads as
// none rather than taking the camera service down.
std::vector<HookFw> PendingCommands(HookFwDBOperations* database) {
    if (database == nullptr) {
        return {};
    }
    try {
        return database->GetHookAllItemToTable();
    } catch (const std::exception& error) {
        CORVANE_LOGE("pending firmware commands unreadable: %s", error.what());
        return {};
    }
}

}  // namespace

void HookOperationImpl::StartFirmware() {
    m_pHookFwDBOperations =
        HookFwDBOperations::Create(DevicePath(kHookDbPath), HOOK_FW_DB_TABLE_LIST);
    if (m_pHookFwDBOperations == nullptr) {
        CORVANE_LOGE("Failed to create HookFwOperationImpl");
        return;
    }
    CORVANE_LOGI("HookFwOperationImpl initialization successful");
    MessageCenterClient* client = MessageCenterClient::GetInstance();
    client->Subscribe(kTopicFaultInjectAck, FaultInjectAckCallback);
    client->Subscribe(kTopicBootInject, FastMsgSubscriberHandle);
    m_hookFwList = PendingCommands(m_pHookFwDBOperations);
}

void HookOperationImpl::StopFirmware() {
    if (m_pHookFwDBOperations == nullptr) {
        return;
    }
    MessageCenterClient* client = MessageCenterClient::GetInstance();
    client->Unsubscribe(kTopicFaultInjectAck);
    client->Unsubscribe(kTopicBootInject);
    HookFwDBOperations::Destroy(m_pHookFwDBOperations);
    m_pHookFwDBOperations = nullptr;
}

int HookOperationImpl::ProcessCmds(const HookFw& hookFw) {
    switch (hookFw.cmd_id) {
        case kCmdInject:
            return DoHook(hookFw);
        case kCmdRemove:
            return UnHook(hookFw);
        case kCmdClear:
            return ClearHook();
        default:
            return 0;
    }
}

int HookOperationImpl::DoHook(const HookFw& hookFw) {
    Message message = DynamicMessage(hookFw, false);
    int result = 0;
    if (m_pHookFwDBOperations != nullptr) {
        DBTable table;
        int nRow = 0;
        int nCol = 0;
        int lookup = m_pHookFwDBOperations->GetHookItemPrepare(hookFw, table, nRow, nCol);
        CORVANE_LOGI("DoHook nRow: %d nCol: %d", nRow, nCol);
        if (lookup != 0) {
            CORVANE_LOGE("DoHook Failed, result %d, nRow %d\n", lookup, nRow);
            result = lookup;
        } else {
            CORVANE_LOGI(
                "DoHook GetDB cmd_id %u, cam_module_id %u, subdev_id %u, interface_id %u, param "
                "%s\n",
                hookFw.cmd_id, hookFw.cam_module_id, hookFw.subdev_id, hookFw.interface_id,
                hookFw.param.c_str());
            m_pHookFwDBOperations->AddHookPrepare(hookFw);
        }
    }
    // The firmware hears of the command even when it could not be remembered.
    Send(message);
    return result;
}

int HookOperationImpl::UnHook(const HookFw& hookFw) {
    if (m_pHookFwDBOperations != nullptr) {
        DBTable table;
        int nRow = 0;
        int nCol = 0;
        int lookup = m_pHookFwDBOperations->GetHookItemPrepare(hookFw, table, nRow, nCol);
        if (lookup != 0 || nRow == 0) {
            CORVANE_LOGI("UnHook: current item not exist!\n");
        } else {
            CORVANE_LOGI("UnHook: erase current item!\n");
            m_pHookFwDBOperations->DeleteHookPrepare(hookFw);
            std::lock_guard<std::recursive_mutex> lock(m_mutex);
            // Compares the command id too, so a removal (id 1) matches no loaded command (id 0);
            // the list only mirrors the table as loaded at start.
            auto end = std::remove(m_hookFwList.begin(), m_hookFwList.end(), hookFw);
            m_hookFwList.erase(end, m_hookFwList.end());
        }
        std::string hookName = GetHookName(hookFw.subdev_id, hookFw.interface_id);
        DBTable acks;
        if (m_pHookFwDBOperations->GetFaultInjectAckItem(
                hookName, hookFw.cam_module_id, hookFw.subdev_id, hookFw.interface_id, acks) != 0) {
            CORVANE_LOGI("UnHook: current fault inject ack not exist!\n");
        } else {
            CORVANE_LOGI("UnHook: erase current fault inject ack!\n");
            m_pHookFwDBOperations->DeleteFaultInjectAck(hookName, hookFw.cam_module_id,
                                                        hookFw.subdev_id, hookFw.interface_id);
        }
    }
    CORVANE_LOGI("UnDoHook cmd_id %u, cam_module_id %u, subdev_id %u, interface_id %u, param %s\n",
                 hookFw.cmd_id, hookFw.cam_module_id, hookFw.subdev_id, hookFw.interface_id,
                 hookFw.param.c_str());
    Send(DynamicMessage(hookFw, true));
    return 0;
}

int HookOperationImpl::ClearHook() {
    if (m_pHookFwDBOperations == nullptr) {
        return 0;
    }
    m_pHookFwDBOperations->ClearHook();
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        m_hookFwList.clear();
    }
    HookFw clear;
    clear.cmd_id = kCmdClear;
    Message message = DynamicMessage(clear, true);
    message.data.erase(kKeyParam);
    Send(message);
    return 0;
}

int HookOperationImpl::AddFaultInjectAck(const std::string& hookName, unsigned char camModuleId,
                                         unsigned char subdevId, unsigned char interfaceId,
                                         unsigned char status) {
    if (m_pHookFwDBOperations != nullptr) {
        m_pHookFwDBOperations->AddFaultInjectAck(hookName, camModuleId, subdevId, interfaceId,
                                                 status);
    }
    return 0;
}

int HookOperationImpl::DeleteFaultInjectAck(const std::string& hookName, unsigned char camModuleId,
                                            unsigned char subdevId, unsigned char interfaceId) {
    if (m_pHookFwDBOperations != nullptr) {
        m_pHookFwDBOperations->DeleteFaultInjectAck(hookName, camModuleId, subdevId, interfaceId);
    }
    return 0;
}

int HookOperationImpl::GetFaultInjectAckItem(const std::string& hookName, int camModuleId,
                                             unsigned char subdevId, unsigned char interfaceId,
                                             std::vector<std::vector<std::string>>& result) {
    if (m_pHookFwDBOperations != nullptr) {
        m_pHookFwDBOperations->GetFaultInjectAckItem(hookName, camModuleId, subdevId, interfaceId,
                                                     result);
    }
    return 0;
}

void HookOperationImpl::FaultInjectAckCallback(Message request, Message* /*reply*/) {
    HookOperation* engine = CurrentHookOperation();
    if (engine == nullptr) {
        CORVANE_LOGI("pHookOperation is nullptr");
        return;
    }
    uint8_t cameraId = AckByte(request, kKeyCameraId);
    uint8_t sensorId = AckByte(request, kKeySensorId);
    uint8_t interfaceId = AckByte(request, kKeyInterfaceId);
    uint8_t status = AckByte(request, kKeyStatus);
    uint32_t code = (static_cast<uint32_t>(cameraId) << 24) |
                    (static_cast<uint32_t>(sensorId) << 16) |
                    (static_cast<uint32_t>(interfaceId) << 8) | status | kAckExecutedBit;
    engine->ModifyHookExecuteStatus(sensorId, interfaceId, code);
    std::string hookName = engine->GetHookName(sensorId, interfaceId);
    engine->AddFaultInjectAck(hookName, cameraId, sensorId, interfaceId, status);
    CORVANE_LOGI("hook_name: %s, cameraid: %d, SensorId: %d, InterfaceID: %d, status: 0x%X",
                 hookName.c_str(), cameraId, sensorId, interfaceId, status);
}

void HookOperationImpl::FastMsgSubscriberHandle(Message request, Message* reply) {
    CORVANE_LOGI("FastMsgSubscriberHandle\n");
    HookOperationImpl* engine = static_cast<HookOperationImpl*>(CurrentHookOperation());
    std::vector<HookFw> commands =
        PendingCommands(engine == nullptr ? nullptr : engine->GetHookFwDBOperations());
    CORVANE_LOGI("FastMsgSubscriberHandle tabLength %lu\n", commands.size());

    std::string context;
    std::vector<unsigned char> bytes;
    if (!GetStringData(request, kKeyPayload, &context) &&
        GetBytesData(request, kKeyPayload, &bytes)) {
        context.assign(bytes.begin(), bytes.end());
    }
    CORVANE_LOGI("request context  %s\n", context.c_str());

    std::vector<unsigned char> payload;
    for (size_t i = 0; i < commands.size(); ++i) {
        const HookFw& command = commands[i];
        payload.push_back(command.cam_module_id);
        payload.push_back(command.subdev_id);
        payload.push_back(command.interface_id);
        CORVANE_LOGI("payload %u, %u, %u\n", command.cam_module_id, command.subdev_id,
                     command.interface_id);
        if (reply != nullptr) {
            reply->data[kKeyParamPrefix + std::to_string(i)] = MessageData(command.param);
        }
        CORVANE_LOGI("param[%d]: %s", static_cast<int>(i), command.param.c_str());
    }
    if (reply != nullptr) {
        reply->topic = kTopicBootInjectAck;
        reply->data[kKeyLength] = MakeInt32Data(static_cast<uint32_t>(payload.size()));
        reply->data[kKeyPayload].Set(payload.data(), payload.size());
    }
    CORVANE_LOGI("llength %d\n",
                 static_cast<int>(payload.size()));  // spelt so, as log readers know it
}
