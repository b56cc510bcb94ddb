#include "probe.h"

// Filled in with the process subsystem.
int probeProcess(int, char**) {
    return 2;
}
