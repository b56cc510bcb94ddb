#pragma once

// The children the service started and waits for in the background: pid and the future of the task that
// reaps it. Guarded by its own mutex (the child-table lock); code that needs it together with the sessions
// lock takes both with SessionRegistry::lockedWith.

#include <future>
#include <list>
#include <mutex>
#include <sys/types.h>

namespace Vexa {

struct ChildEntry {
    pid_t pid = 0;
    std::shared_future<int> status; // raw wait status of the child
    // Started by this run of the service. A session manager taken back from an earlier run is not: it is known
    // by its pidfd only (its session's), never signalled by pid, and its status is -1.
    bool ownChild = true;
};

struct ChildTable {
    std::mutex lock; // the child-table lock: guards `entries`
    std::list<ChildEntry> entries;
};

} // namespace Vexa
