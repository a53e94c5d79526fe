// Template of a fault library in C. Copy it, rename the function and the names below, give the
// function the signature of the one it replaces, and describe it in the hook-case file
// (fault_template_hook_case.json shows how). The camera service installs every hook in the
// inline-hook library's shared mode, whose rules a replacement follows:
//  - what was replaced is called through SHADOWHOOK_CALL_PREV, never through a saved pointer:
//    other replacements may be chained on the same function, and only this reaches them;
//  - SHADOWHOOK_POP_STACK() runs before every return, whatever the path: a replacement that
//    does not pop runs once per thread, and after that the thread's calls skip it;
//  - no re-entry: while it runs, a call of the function it replaces (directly or through other
//    code) reaches the original, not the replacement again.
#include <errno.h>
#include <stdint.h>

#include "faultreport.h"
#include "shadowhook.h"

#define FAULT_EXPORT __attribute__((visibility("default")))

// The hook's and the group's names in the hook-case file.
#define HOOK_NAME "template_i2c_read_fail"
#define GROUP_NAME "template_read_fault"

// Replaces CameraSensorI2CRead of the sample sensor library. Reads of the registers given as the
// group's arguments fail with an I/O error ("vxcdb corvane --inject template_read_fault 0x0042");
// every other read goes to the sensor.
FAULT_EXPORT int TemplateSensorI2CReadFail(uint16_t slaveAddress, uint16_t reg, uint16_t* value) {
    int result;
    if (CorvaneFaultHasArgumentValue(GROUP_NAME, reg)) {
        // Reported only when the fault happens: "executed" then means the fault was seen.
        CorvaneFaultReportExecuted(HOOK_NAME);
        result = -EIO;
    } else {
        result =
            SHADOWHOOK_CALL_PREV(TemplateSensorI2CReadFail, int (*)(uint16_t, uint16_t, uint16_t*),
                                 slaveAddress, reg, value);
    }
    SHADOWHOOK_POP_STACK();
    return result;
}
