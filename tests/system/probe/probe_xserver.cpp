#include "probe.h"

// Filled in with the xserver subsystem.
int probeXserver(int, char**) {
    return 2;
}
