#pragma once

#include <atomic>

namespace Vexa {

// The process's initial argument vector, set first thing in main.
extern char** programArgv;

// True while the service runs; cleared by SIGTERM/SIGINT and by busServiceShutdown (requestServiceStop).
// Lock-free, shared with the signal handler; every write is a sequentially consistent store.
extern std::atomic<bool> serviceRunning;

// The process is asked to stop (the service, or a session manager by its stop signals): clears serviceRunning
// and makes serviceStopFd() readable for good. Async-signal-safe.
void requestServiceStop() noexcept;

// An eventfd that becomes readable, and stays so, once the service is asked to stop: waits that must end then
// (the watcher's sleep, the waits of a session start) poll it beside what they wait for.
int serviceStopFd() noexcept;

} // namespace Vexa
