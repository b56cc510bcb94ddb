#pragma once

// One attached RDP transport (a slot of a session). Not copyable: destroying a slot terminates its process.
// Reached through its session, so guarded by the sessions lock.
// The process is known by a pidfd taken when it registered: liveness and signals go through it, so a pid
// that the kernel hands to another process after the transport ended is never signalled.

#include <cstdint>
#include <string>
#include <sys/types.h>

#include "common/events.h"

namespace Vexa {

class TransportInfo {
public:
    TransportInfo() = default;
    ~TransportInfo();

    TransportInfo(const TransportInfo&) = delete;
    TransportInfo& operator=(const TransportInfo&) = delete;

    // Takes the slot for a registered transport.
    void attach(pid_t transportPid, Utils::UniqueFd transportFd, const std::string& address);
    // Takes the slot for a transport of a session taken back by a restarted daemon: `transportFd` empty when the
    // recorded process has gone (the slot is then reported ended by the transport watcher).
    void adopt(pid_t transportPid, uint64_t transportStart, Utils::UniqueFd transportFd, const std::string& address);

    // The transport's process still runs (a slot without a pidfd never does).
    bool isConnected() const noexcept;
    // The slot was used and its process has gone (a free slot is never "not alive").
    bool notAlive() const noexcept;
    // Frees the slot; unless `keepProcess`, a still-running transport receives SIGTERM first.
    void reset(bool keepProcess);

    pid_t pid = 0; // 0: the slot is free
    // The start time of `pid` (session/record.h), taken at registration while the pidfd held the process.
    uint64_t startTime = 0;
    std::string remoteaddr;

private:
    Utils::UniqueFd pidfd; // of `pid`, from its registration
};

// Whether a caller of the transport registration may register `pid` as its transport: root may register any
// process; anyone else only itself or one of its descendants (`parentOf` walks up the process tree). Whether
// the process still runs is checked through its pidfd, taken before this check.
struct TransportCaller {
    pid_t pid = -1;
    uid_t uid = static_cast<uid_t>(-1);
};
template <typename ParentOf>
bool transportPidAccepted(pid_t pid, const TransportCaller& caller, ParentOf&& parentOf) {
    if (pid <= 0) {
        return false;
    }
    if (caller.uid == 0) {
        return true;
    }
    if (caller.pid <= 0) {
        return false;
    }
    // The kernel's pid_max bounds the depth of any real tree; a loop in made-up data must still end.
    constexpr int maxDepth = 4096;
    pid_t current = pid;
    for (int depth = 0; depth < maxDepth && current > 1; ++depth) {
        if (current == caller.pid) {
            return true;
        }
        const auto parent = parentOf(current);
        if (!parent) {
            return false;
        }
        current = *parent;
    }
    return current == caller.pid;
}

} // namespace Vexa
