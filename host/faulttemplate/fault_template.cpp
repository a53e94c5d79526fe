// Template of a fault library in C++. Copy it, rename the function and the names below, give the
// function the signature of the one it replaces (with C linkage: the hook-case file names it by
// its plain symbol), and describe it in the hook-case file (fault_template_hook_case.json shows
// how). The camera service installs every hook in the inline-hook library's shared mode, whose
// rules a replacement follows:
//  - what was replaced is called through SHADOWHOOK_CALL_PREV, never through a saved pointer:
//    other replacements may be chained on the same function, and only this reaches them;
//  - SHADOWHOOK_STACK_SCOPE() opens the function: it pops the replacement's frame on every
//    return path (without it the replacement runs once per thread, then the thread skips it);
//  - no re-entry: while it runs, a call of the function it replaces (directly or through other
//    code) reaches the original, not the replacement again.
// Exceptions must not leave the function: the camera code calling it is not prepared for them.
#include <stdint.h>

#include "faultreport.h"
#include "shadowhook.h"

#define FAULT_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// The hook's and the group's names in the hook-case file.
constexpr const char* kHookName = "template_actuator_overshoot";
constexpr const char* kGroupName = "template_overshoot_fault";
// How far a move overshoots when the group gives no number as its first argument.
constexpr long kDefaultOvershoot = 100;

}  // namespace

// Replaces CameraActuatorMove of the sample sensor library. The move reports success but lands
// off target: every move goes further by the group's first argument, or by 100 steps.
FAULT_EXPORT int TemplateActuatorMoveOvershoot(int32_t position) {
    SHADOWHOOK_STACK_SCOPE();
    CorvaneFaultReportExecuted(kHookName);
    long overshoot = CorvaneFaultArgumentNumber(kGroupName, 0, kDefaultOvershoot);
    return SHADOWHOOK_CALL_PREV(TemplateActuatorMoveOvershoot,
                                static_cast<int32_t>(position + overshoot));
}
