// The controller: starts the sub-modules in a fixed order according to their switches, owns
// them, forwards the host's calls to them and tears them down in a fixed order. Any sub-module
// may be missing; every forward then gives its neutral result. It also answers the debug
// channel's requests (ExecuteCommand) with text replies and tables.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "core/controller/corvanesystem.h"
#include "vxcdbmessage.pb.h"

class HookOperation;
class Protection;
class Server;
class Monitor;

class CorvaneSystemImpl : public CorvaneSystem {
  public:
    // Where the debug channel listens, and where the hook-case file lives (device paths).
    static constexpr const char* kSocketPath = "/data/vendor/camera/vxcdb_socket";
    static constexpr const char* kHookCasePath = "/odm/etc/camera/corvanesystem_hook_case.json";
    static constexpr int kServerBacklog = 10;

    // The usage text that "help" and every error reply carry (exact bytes, see the definition).
    static const char kHelpText[];

    // Result codes of ExecuteCommand and FormatSocketMsg.
    static constexpr int kCommandOk = 0;
    static constexpr int kReplyTooLarge = 4;
    static constexpr int kNullFrame = 5;
    // Result of a handler that answered with an error entry.
    static constexpr int kCommandRejected = 4;

    CorvaneSystemImpl() = default;
    ~CorvaneSystemImpl() override;

    int Initialize();
    // Misspelt on purpose (the system's name). Ignores its argument, works on the own engine.
    int InitilizeHook(HookOperation* hookOperation);

    bool IsSwitchOpened(ProtectionScheme scheme) override;
    void ProtectionCallback(CallbackMessage message) override;
    void ProtectionConfig(ProtectionScheme scheme, std::vector<std::string> arguments) override;
    std::vector<std::string> GetHookArguments(std::string groupName) override;
    int ExecuteCommand(VXCDBMessageString* request, VXCDBMessageString* response) override;
    void NotifyHookMessage(HookMessage message) override;
    void Reload() override;
    bool NeedReload() override;
    void RaiseSignal(int signal) override;
    void RecordProbeMessage(std::string message, bool result) override;

    // Frames a reply: 0, or 4 (frame untouched) when it serialises to more than 4095 bytes.
    int FormatSocketMsg(VXCDBMessage& message, VXCDBMessageString* frame);

    // The reply convention: a "type" entry naming the kind of content, then keyed entries.
    static void SetVXCDBMessageType(std::string type, VXCDBMessage& reply);
    static int AddCommandResponse(VXCDBMessage& reply, const std::string& key,
                                  const std::vector<std::string>& values);
    // A "string" reply carrying the error and the help text.
    static void BuildErrorResponse(VXCDBMessage& reply, std::string error);

  private:
    friend class CorvaneSystemImplTestPeer;  // tests put a stand-in hook engine in place

    // The controller's methods live in several source files but log as one unit: every line of
    // theirs names the main source file, so log readers and filters see one controller file.
    static constexpr const char* CorvaneLogFile(const char*) { return "corvanesystem.cpp"; }

    // Command dispatch (corvanesystemcommand.cpp). Each handler appends its answer to `reply`
    // and returns 0, or kCommandRejected after appending an error entry.
    int HandleCorvaneCommand(const VXCDBMessage_CDBCmd& command, VXCDBMessage& reply);
    int HandleDebugCommand(const VXCDBMessage_CDBCmd& command, VXCDBMessage& reply);
    int HandleHelpCommand(std::vector<std::string> arguments, VXCDBMessage& reply);
    int HandleSignalCommand(std::vector<std::string> arguments, VXCDBMessage& reply);
    int HandleInjectCommand(std::vector<std::string> arguments, VXCDBMessage& reply);
    int HandleStatusCommand(std::vector<std::string> arguments, VXCDBMessage& reply);
    int HandleFirmwareCommand(std::vector<std::string> arguments, VXCDBMessage& reply);
    int HandleKernelCommand(std::vector<std::string> arguments, VXCDBMessage& reply);
    int HandleHookGroupCommand(const std::string& name, const std::vector<std::string>& arguments,
                               VXCDBMessage& reply);
    // Asks the camera stack over the message bus to dump its image-sensor module data.
    void RequestImageSensorModuleDump(const std::vector<std::string>& arguments);

    // Tables of the inject sub-commands (corvanesystemtables.cpp).
    void SetQueryVXCDBMessage(VXCDBMessage& reply);
    void SetResultVXCDBMessage(VXCDBMessage& reply);
    void SetResultVXCDBMessage(std::string groupName, VXCDBMessage& reply);
    void SetStatusVXCDBMessage(const std::string& groupName, VXCDBMessage& reply);
    void SetStatusVXCDBMessage(int camModuleId, unsigned char subdevId, unsigned char interfaceId,
                               VXCDBMessage& reply);
    void ClearVXCDBMessage(VXCDBMessage& reply);

    std::vector<HookCase> m_hookCases;  // kept for layout; never filled by the controller
    int m_hookInitResult = -1;
    HookOperation* m_pHookOperation = nullptr;
    Protection* m_pProtection = nullptr;
    std::recursive_mutex m_mutex;
    Server* m_pServer = nullptr;
    Monitor* m_pMonitor = nullptr;
    bool m_hookConfigExists = false;
};
