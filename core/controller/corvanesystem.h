// The public face of the library: the camera service obtains the one controller through
// CorvaneSystemGetInstance() and talks to it through this interface.
#pragma once

#include <string>
#include <vector>

#include "core/controller/vxcdbmessagestring.h"
#include "core/model/hook/hook.h"
#include "core/model/protection/protectionscheme.h"

#define CORVANE_EXPORT __attribute__((visibility("default")))

class CorvaneSystem {
  public:
    virtual ~CorvaneSystem() = default;
    virtual bool IsSwitchOpened(ProtectionScheme scheme) = 0;
    virtual void ProtectionCallback(CallbackMessage message) = 0;
    virtual void ProtectionConfig(ProtectionScheme scheme, std::vector<std::string> arguments) = 0;
    virtual std::vector<std::string> GetHookArguments(std::string groupName) = 0;
    // Answers one debug request frame with one reply frame: 0 framed, 4 reply too large,
    // 5 a null frame.
    virtual int ExecuteCommand(VXCDBMessageString* request, VXCDBMessageString* response) = 0;
    virtual void NotifyHookMessage(HookMessage message) = 0;
    virtual void Reload() = 0;
    virtual bool NeedReload() = 0;
    virtual void RaiseSignal(int signal) = 0;
    virtual void RecordProbeMessage(std::string message, bool result) = 0;

    // For hosts that manage the controller themselves; the singleton path never destroys it.
    CORVANE_EXPORT static CorvaneSystem* Create();
    CORVANE_EXPORT static void Destroy(CorvaneSystem* system);
};

// The one controller of the process, created and started on first call.
extern "C" CORVANE_EXPORT CorvaneSystem* CorvaneSystemGetInstance();
