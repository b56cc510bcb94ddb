#pragma once

// One attached RDP transport (a slot of a session). Not copyable: destroying a slot terminates its process.
// Reached through its session, so guarded by the sessions lock.

#include <string>
#include <sys/types.h>

namespace Vexa {

class TransportInfo {
public:
    TransportInfo() = default;
    ~TransportInfo();

    TransportInfo(const TransportInfo&) = delete;
    TransportInfo& operator=(const TransportInfo&) = delete;

    // The transport's process exists.
    bool isConnected() const noexcept;
    // The slot was used and its process has gone (a free slot is never "not alive").
    bool notAlive() const noexcept;
    // Frees the slot; unless `keepProcess`, a still-running transport receives SIGTERM first.
    void reset(bool keepProcess);

    pid_t pid = 0; // 0: the slot is free
    std::string remoteaddr;
};

} // namespace Vexa
