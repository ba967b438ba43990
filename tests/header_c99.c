/* Proves that the public header stands alone in C, that its enumerations have four bytes, and that a C program links
   and calls. Built as C99 and as C11. */
#include "tq_api.h"

#include <stdio.h>
#include <string.h>

#define FOUR_BYTES(type) typedef char type##HasFourBytes[sizeof(type) == 4 ? 1 : -1]

FOUR_BYTES(TqStatus);
FOUR_BYTES(TqBool);
FOUR_BYTES(TqMode);
FOUR_BYTES(TqPowerState);
FOUR_BYTES(TqDetector);
FOUR_BYTES(TqScale);
FOUR_BYTES(TqVideoUnits);
FOUR_BYTES(TqWindowType);
FOUR_BYTES(TqDataType);
FOUR_BYTES(TqTriggerEdge);
FOUR_BYTES(TqGPSState);
FOUR_BYTES(TqReference);
FOUR_BYTES(TqGPIOFunction);
FOUR_BYTES(TqAudioType);

int main(void) {
    TqMode mode = tqModeIdle;
    if (tqGetCurrentMode(0, &mode) != tqInvalidDeviceErr) {
        puts("a handle that was never opened is taken");
        return 1;
    }
    if (strcmp(tqGetErrorString(tqInvalidDeviceErr), "Invalid device specified") != 0) {
        puts("wrong text");
        return 1;
    }
    return tqGetAPIVersion() == NULL;
}
