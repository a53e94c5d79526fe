// What a fault library tells the camera service, callable from C and C++: that a replacement
// ran (so that "vxcdb corvane --inject result" shows it <executed>), and the arguments its hook
// group was injected with. The controller's own interface is C++; these wrap it. Outside the
// camera service (no controller in the process) reports do nothing and groups have no arguments.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Marks the hook `hookName` (its "hook_name" in the hook-case file) as executed.
void CorvaneFaultReportExecuted(const char* hookName);

// Whether one of the arguments of the group `groupName` reads as the number `value` (with its
// base inferred: "0x0042", "0102" and "66" all read as 66).
int CorvaneFaultHasArgumentValue(const char* groupName, unsigned long value);

// Argument `index` (from 0) of the group `groupName` read as a number, or `fallback` when the
// group has no such argument or it is not a number.
long CorvaneFaultArgumentNumber(const char* groupName, size_t index, long fallback);

#ifdef __cplusplus
}
#endif
