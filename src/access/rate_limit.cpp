#include "access/rate_limit.h"

namespace Vexa::Access {

namespace {

constexpr auto window = std::chrono::minutes(1);

} // namespace

void RateLimiter::configure(const RateSettings& next) {
    std::lock_guard guard(lock);
    settings = next;
}

RateLimiter::Admission RateLimiter::admit(const std::string& caller, Clock::time_point now) {
    std::lock_guard guard(lock);
    // Callers with nothing under way and nothing recent are forgotten, so the map stays as small as the traffic.
    for (auto it = callers.begin(); it != callers.end();) {
        auto& started = it->second.started;
        while (!started.empty() && now - started.front() >= window) {
            started.pop_front();
        }
        it = it->second.inFlight == 0 && started.empty() ? callers.erase(it) : std::next(it);
    }
    auto& entry = callers[caller];
    Admission admission;
    admission.inFlight = entry.inFlight;
    admission.lastMinute = static_cast<uint32_t>(entry.started.size());
    if ((settings.inFlight && entry.inFlight >= settings.inFlight) ||
        (settings.perMinute && entry.started.size() >= settings.perMinute)) {
        if (entry.inFlight == 0 && entry.started.empty()) {
            callers.erase(caller);
        }
        return admission;
    }
    ++entry.inFlight;
    entry.started.push_back(now);
    admission.ticket = std::make_shared<Ticket>(*this, caller);
    return admission;
}

size_t RateLimiter::size() const {
    std::lock_guard guard(lock);
    return callers.size();
}

void RateLimiter::release(const std::string& caller) {
    std::lock_guard guard(lock);
    if (const auto found = callers.find(caller); found != callers.end() && found->second.inFlight > 0) {
        --found->second.inFlight;
    }
}

} // namespace Vexa::Access
