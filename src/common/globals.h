#pragma once

#include <atomic>

namespace Vexa {

// The process's initial argument vector, set first thing in main.
extern char** programArgv;

// True while the service runs; cleared by SIGTERM/SIGINT and by busServiceShutdown.
// Lock-free, shared with the signal handler; every write is a sequentially consistent store.
extern std::atomic<bool> serviceRunning;

} // namespace Vexa
