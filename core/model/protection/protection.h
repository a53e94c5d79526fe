// Protection schemes backed by hook groups, switched by properties; records and reports what
// protected functions call back.
#pragma once

#include <string>
#include <vector>

#include "core/model/protection/protectionscheme.h"

class HookOperation;

class Protection {
  public:
    virtual ~Protection() = default;
    virtual bool IsSwitchOpened(ProtectionScheme scheme) = 0;
    virtual int GetSchemeState(ProtectionScheme scheme) = 0;
    virtual int RecordProtectionFunctionCallback(CallbackMessage message) = 0;
    virtual void ProtectionConfig(ProtectionScheme scheme, std::vector<std::string> arguments) = 0;
    virtual int InitializeProtectionScheme() = 0;

    // `hookOperation` may be null; `hookInitResult` is the inline-hook library's init result.
    static Protection* Create(HookOperation* hookOperation, int hookInitResult);
    static void Destroy(Protection* protection);
};
