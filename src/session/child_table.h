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
};

struct ChildTable {
    std::mutex lock; // the child-table lock: guards `entries`
    std::list<ChildEntry> entries;
};

} // namespace Vexa
