// Placeholder until firmware fault injection lands: commands are accepted and do nothing.
#include "core/model/hook/hookoperationimpl.h"

void HookOperationImpl::StartFirmware() {}
void HookOperationImpl::StopFirmware() {}
int HookOperationImpl::ProcessCmds(const HookFw&) {
    return 0;
}
int HookOperationImpl::DoHook(const HookFw&) {
    return 0;
}
int HookOperationImpl::UnHook(const HookFw&) {
    return 0;
}
int HookOperationImpl::ClearHook() {
    return 0;
}
int HookOperationImpl::AddFaultInjectAck(const std::string&, unsigned char, unsigned char,
                                         unsigned char, unsigned char) {
    return 0;
}
int HookOperationImpl::DeleteFaultInjectAck(const std::string&, unsigned char, unsigned char,
                                            unsigned char) {
    return 0;
}
int HookOperationImpl::GetFaultInjectAckItem(const std::string&, int, unsigned char, unsigned char,
                                             std::vector<std::vector<std::string>>&) {
    return 0;
}
