#include "globals.h"

#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace Vexa {

char** programArgv = nullptr;
std::atomic<bool> serviceRunning{false};

static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler needs a lock-free flag");

namespace {
// Made before main, so that the signal handler never creates it.
const int stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
} // namespace

void requestServiceStop() noexcept {
    serviceRunning.store(false);
    const uint64_t one = 1;
    // Nobody reads the counter, so it stays readable; a full counter is readable too.
    [[maybe_unused]] const auto written = write(stopFd, &one, sizeof(one));
}

int serviceStopFd() noexcept {
    return stopFd;
}

} // namespace Vexa
