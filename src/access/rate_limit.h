#pragma once

// Per-caller limits on session requests: at most `inFlight` unanswered at once and `perMinute` started in any
// 60 seconds. A caller is a bus connection (its unique name), as for the wrong-password throttle.
// Thread-safe: admitted on the D-Bus thread, released from the worker that answers; `lock` guards `callers`.

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Vexa::Access {

struct RateSettings {
    uint32_t inFlight = 4;   // 0: no limit
    uint32_t perMinute = 30; // 0: no limit
};

class RateLimiter {
public:
    using Clock = std::chrono::steady_clock;

    // Held while an admitted request is under way; its destruction ends the request.
    class Ticket {
    public:
        Ticket(RateLimiter& limiter, std::string caller) : owner(&limiter), name(std::move(caller)) {}
        ~Ticket() { owner->release(name); }
        Ticket(const Ticket&) = delete;
        Ticket& operator=(const Ticket&) = delete;

    private:
        RateLimiter* owner;
        std::string name;
    };

    struct Admission {
        std::shared_ptr<Ticket> ticket; // empty: refused
        uint32_t inFlight = 0;          // the caller's requests under way, this one not counted
        uint32_t lastMinute = 0;        // the caller's requests started in the last minute, this one not counted
    };

    void configure(const RateSettings& next);
    Admission admit(const std::string& caller, Clock::time_point now);
    // Callers known (a request under way or started in the last minute).
    size_t size() const;

private:
    void release(const std::string& caller);

    struct Caller {
        uint32_t inFlight = 0;
        std::deque<Clock::time_point> started;
    };
    mutable std::mutex lock;
    RateSettings settings;
    std::map<std::string, Caller, std::less<>> callers;
};

} // namespace Vexa::Access
