#pragma once

// Throttling of repeated failed logins, per user name and per caller (the bus connection that asks). Below the
// threshold nothing is delayed; from the threshold on, every new attempt of that user or caller is given a time
// slot: not before the previous attempt's slot plus a delay that doubles with each further failure, up to a
// maximum. So a guesser waits longer and longer, several attempts at once are spaced out, and a delayed attempt
// holds no worker while it waits. A success clears its user and caller; failures are forgotten after a quiet
// time. Thread-safe.

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

namespace Vexa {

struct ThrottleSettings {
    uint32_t failures = 3;             // "auth:throttle:failures": failures before delays begin; 0: never
    std::chrono::seconds delay{2};     // "auth:throttle:delay": the first delay
    std::chrono::seconds maxDelay{30}; // "auth:throttle:delay:max"
    std::chrono::seconds forget{300};  // "auth:throttle:forget": quiet time after which failures are forgotten
};

class AuthThrottle {
public:
    using Clock = std::chrono::steady_clock;

    struct Slot {
        Clock::time_point notBefore; // now or later
        uint32_t failures = 0;       // the larger count of the user and the caller
    };

    void configure(const ThrottleSettings& next);

    // Takes the slot of a new attempt of `user` from `caller` at `now`.
    Slot admit(const std::string& user, const std::string& caller, Clock::time_point now);

    struct Failure {
        uint32_t userFailures = 0;
        uint32_t callerFailures = 0;
        bool engaged = false; // this failure brought the user or the caller to the threshold
    };

    // Records the attempt's outcome.
    Failure failed(const std::string& user, const std::string& caller, Clock::time_point now);
    // True when the user or the caller was throttled until now.
    bool succeeded(const std::string& user, const std::string& caller);

private:
    struct Entry {
        uint32_t failures = 0;
        Clock::time_point lastFailure;
        Clock::time_point nextSlot;
    };

    // The entry of a key with its failures forgotten after the quiet time; made when `make`, else null if none.
    Entry* entry(const std::string& key, Clock::time_point now, bool make);
    Clock::duration delayFor(uint32_t failures) const;
    void prune(Clock::time_point now);

    mutable std::mutex lock; // guards everything below
    ThrottleSettings settings;
    std::unordered_map<std::string, Entry> entries; // "user:<name>" and "caller:<bus name>"
};

} // namespace Vexa
