// Where the dynamic symbols of a loaded object start, to find an entry point that another
// function's hook would overwrite.
#pragma once

#include <stdint.h>

namespace corvane::inlinehook {

// The lowest address in (after, before) at which a dynamic symbol of the object holding `after`
// starts; 0 when there is none, or `after` lies in no loaded object.
uintptr_t FirstSymbolBetween(uintptr_t after, uintptr_t before);

}  // namespace corvane::inlinehook
