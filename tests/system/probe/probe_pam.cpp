#include "probe.h"

// Filled in with the pam subsystem.
int probePam(int, char**) {
    return 2;
}
