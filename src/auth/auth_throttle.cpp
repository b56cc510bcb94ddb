#include "auth_throttle.h"

#include <algorithm>

namespace Vexa {

namespace {

// Entries kept at most; beyond this the oldest quiet ones go first (a flood of invented user names must not
// grow the table without bound).
constexpr size_t maxEntries = 4096;

std::string userKey(const std::string& user) {
    return "user:" + user;
}

std::string callerKey(const std::string& caller) {
    return "caller:" + caller;
}

} // namespace

void AuthThrottle::configure(const ThrottleSettings& next) {
    std::lock_guard guard(lock);
    settings = next;
}

AuthThrottle::Entry* AuthThrottle::entry(const std::string& key, Clock::time_point now, bool make) {
    auto found = entries.find(key);
    if (found == entries.end()) {
        return make ? &entries[key] : nullptr;
    }
    if (now - found->second.lastFailure > settings.forget) {
        found->second = Entry{};
    }
    return &found->second;
}

AuthThrottle::Clock::duration AuthThrottle::delayFor(uint32_t failures) const {
    if (settings.failures == 0 || failures < settings.failures) {
        return Clock::duration::zero();
    }
    const uint32_t doublings = std::min<uint32_t>(failures - settings.failures, 16);
    const auto delay = std::chrono::duration_cast<Clock::duration>(settings.delay) * (uint64_t{1} << doublings);
    return std::min<Clock::duration>(delay, settings.maxDelay);
}

AuthThrottle::Slot AuthThrottle::admit(const std::string& user, const std::string& caller, Clock::time_point now) {
    std::lock_guard guard(lock);
    Slot slot{now, 0};
    for (const auto& key : {userKey(user), callerKey(caller)}) {
        auto* found = entry(key, now, false);
        const auto delay = found ? delayFor(found->failures) : Clock::duration::zero();
        if (delay == Clock::duration::zero()) {
            continue;
        }
        const auto at = std::max({now, found->lastFailure + delay, found->nextSlot});
        found->nextSlot = at + delay;
        slot.notBefore = std::max(slot.notBefore, at);
        slot.failures = std::max(slot.failures, found->failures);
    }
    return slot;
}

AuthThrottle::Failure AuthThrottle::failed(const std::string& user, const std::string& caller, Clock::time_point now) {
    std::lock_guard guard(lock);
    prune(now);
    const auto count = [&](const std::string& key) {
        auto* found = entry(key, now, true);
        ++found->failures;
        found->lastFailure = now;
        return found->failures;
    };
    Failure failure;
    failure.userFailures = count(userKey(user));
    failure.callerFailures = count(callerKey(caller));
    failure.engaged = settings.failures != 0 &&
                      (failure.userFailures == settings.failures || failure.callerFailures == settings.failures);
    return failure;
}

bool AuthThrottle::succeeded(const std::string& user, const std::string& caller) {
    std::lock_guard guard(lock);
    bool released = false;
    for (const auto& key : {userKey(user), callerKey(caller)}) {
        if (auto found = entries.find(key); found != entries.end()) {
            released = released || (settings.failures != 0 && found->second.failures >= settings.failures);
            entries.erase(found);
        }
    }
    return released;
}

void AuthThrottle::prune(Clock::time_point now) {
    if (entries.size() < maxEntries) {
        return;
    }
    std::erase_if(entries, [&](const auto& item) { return now - item.second.lastFailure > settings.forget; });
    while (entries.size() >= maxEntries) {
        auto oldest = std::min_element(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
            return a.second.lastFailure < b.second.lastFailure;
        });
        entries.erase(oldest);
    }
}

} // namespace Vexa
