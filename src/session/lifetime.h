#pragma once

// The rules of a session's life that need no bus: whether one more connection may attach under the connect
// policy, what registering a transport does, and when a time limit is reached. Stateless; every function
// reads or writes the session's fields without taking the sessions lock, so the caller holds it.

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/types.h>

#include "common/events.h"
#include "session.h"

namespace Vexa {

// Whether one more connection may attach to the session under its connect policy; the decision is logged.
// A slot whose process has ended counts as free.
bool sessionCheckPolicyConnection(const Session& session);

enum class TransportAdmission {
    Refused,      // the policy keeps the new transport out (logged)
    Register,     // register it now
    ReplaceFirst, // the transports attached before have been told to end (SIGTERM): register after a pause
};
// What the connect policy says about a transport that registers itself; under PrevReplace the slots are reset
// here already.
TransportAdmission admitTransport(Session& session);

// Registration of an admitted transport: the session is thawed, the transport takes the first free slot (with
// four slots taken it is not stored, but the session still counts as online from now).
void registerTransport(Session& session, pid_t pid, Utils::UniqueFd pidfd, const std::string& remoteaddr,
                       Session::SystemTime now);

// Whole seconds from `since` to `now`, truncated; 0 when `now` is not later.
template <typename TimePoint>
uint64_t elapsedSeconds(TimePoint now, TimePoint since) {
    if (now <= since) {
        return 0;
    }
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now - since).count());
}

// A limit of L seconds counted from `since` is reached when more than L whole seconds have passed. A limit of
// 0 is no limit, and a time point at the clock's epoch is "never".
template <typename TimePoint>
bool limitReached(TimePoint now, TimePoint since, uint32_t limit) {
    return limit != 0 && since != TimePoint{} && elapsedSeconds(now, since) > limit;
}

struct LimitTriggers {
    bool duration = false;
    bool disconnect = false;
    bool any() const { return duration || disconnect; }
};
// The duration limit counts while a transport is attached (or the session shows the login screen), the
// disconnect limit while none is; a login screen left alone is tested for both.
LimitTriggers timeLimitTriggers(const Session& session, Session::SystemTime now);

// A seamless session left without a transport has passed its seamless limit; `elapsed` receives the seconds
// since its last transport ended. Only sessions whose limits are enforced (check-timeouts flag) qualify.
bool seamlessLimitReached(const Session& session, Session::SteadyTime now, uint64_t& elapsed);

} // namespace Vexa
