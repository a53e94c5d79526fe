// A fault library with a bug: its fault function crashes the camera service at its first call.
// It aborts rather than dereferencing null because the host supervisor, like init for the
// reload path, restarts the service only after signals 1 and 6; on a device init restarts it
// after any crash, and the outcome is the same.
#include <stdint.h>
#include <stdlib.h>

__attribute__((visibility("default"))) int FaultActuatorMoveCrash(int32_t position) {
    (void)position;
    abort();
}
