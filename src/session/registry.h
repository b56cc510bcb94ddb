#pragma once

// The session registry: session id to session, guarded by one mutex (the sessions lock).
// The sessions lock is a leaf lock: no D-Bus calls, fork, PAM, systemctl or sleeping while it is held.
// It is not recursive: code running under it (forEach, locked) must not call a lookup.
// Lookups hold it only while they search, and hand out shared pointers that keep the record alive.

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "session.h"

namespace Vexa {

class SessionRegistry {
public:
    using SessionPtr = std::shared_ptr<Session>;
    using Map = std::unordered_map<uint32_t, SessionPtr>;

    SessionPtr findSession(const uint32_t& id) const;
    // First session (map order) on that display.
    SessionPtr findDisplaySession(const uint32_t& display) const;
    // User record of the first session whose user name equals `name` exactly.
    std::shared_ptr<UserEx> findUserInfo(std::string_view name) const;
    std::list<SessionPtr> findUserSessions(std::string_view name) const;

    // Registers a session; false when its id is 0 or already taken.
    bool add(SessionPtr session);
    // Removes and returns the session; the caller decides where the record is destroyed.
    SessionPtr remove(uint32_t id);
    // Empties the registry and hands the records out, so that they are destroyed outside the lock.
    std::vector<SessionPtr> takeAll();

    size_t size() const;

    // Runs `walk` with the map under the sessions lock.
    template <typename Walk>
    decltype(auto) locked(Walk&& walk) {
        std::lock_guard guard(lock);
        return std::forward<Walk>(walk)(sessions);
    }
    template <typename Walk>
    decltype(auto) locked(Walk&& walk) const {
        std::lock_guard guard(lock);
        return std::forward<Walk>(walk)(static_cast<const Map&>(sessions));
    }

    // Runs `walk` with the map while holding both the sessions lock and `other`, taken together with
    // deadlock avoidance (both or neither).
    template <typename Walk>
    decltype(auto) lockedWith(std::mutex& other, Walk&& walk) {
        std::scoped_lock guard(lock, other);
        return std::forward<Walk>(walk)(sessions);
    }

private:
    mutable std::mutex lock; // the sessions lock: guards `sessions` and every Session reached through it
    Map sessions;
};

} // namespace Vexa
