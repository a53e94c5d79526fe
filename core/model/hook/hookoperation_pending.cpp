// Placeholder until the hook engine lands: no engine exists.
#include "core/model/hook/hookoperation.h"

HookOperation* HookOperation::Create(HookOperationCreateInputData) {
    return nullptr;
}

HookOperation* HookOperation::GetInstance() {
    return nullptr;
}

void HookOperation::Destroy(HookOperation* hookOperation) {
    delete hookOperation;
}
