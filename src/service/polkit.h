#pragma once

// Asks polkit (org.freedesktop.PolicyKit1 on the system bus) whether a bus connection may perform an action, as
// logind does: subject "system-bus-name", no interaction. The answers are kept for a few seconds per connection
// and action, so that an administrator's burst of setters costs one round trip.
// Thread-safe; check() blocks (a worker's call, never the dispatcher's). `queryLock` guards the connection and
// the proxy (one query at a time); `cacheLock` guards `answers`.

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include <sdbus-c++/sdbus-c++.h>

namespace Vexa {

class PolkitAuthority {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr auto answerLifetime = std::chrono::seconds(5);

    struct Answer {
        bool authorized = false;
        std::string failure; // set when polkit could not be asked (then not authorized)
    };

    Answer check(const std::string& busName, const std::string& action);

private:
    std::optional<bool> cached(const std::string& busName, const std::string& action, Clock::time_point now);

    std::mutex queryLock;
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IProxy> authority;

    std::mutex cacheLock;
    std::map<std::pair<std::string, std::string>, std::pair<bool, Clock::time_point>> answers;
};

} // namespace Vexa
