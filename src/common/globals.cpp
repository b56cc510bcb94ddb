#include "globals.h"

namespace Vexa {

char** programArgv = nullptr;
std::atomic<bool> serviceRunning{false};

static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler needs a lock-free flag");

} // namespace Vexa
