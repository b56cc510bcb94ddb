// Who may call what: the caller's roles from the bus credentials of its connection, the role table, polkit for
// administrators, the rate limits of session requests.

#include <grp.h>

#include <array>

#include "dbus_service.h"

namespace Vexa {

namespace {

using Clock = std::chrono::steady_clock;
// Connections come and go; their entries are dropped after this long (looked up again on the next call).
constexpr auto callerLifetime = std::chrono::minutes(1);
constexpr size_t callersLimit = 1024;

gid_t groupId(std::string_view name) {
    group entry{};
    group* found = nullptr;
    std::array<char, 4096> buffer{};
    const std::string text(name);
    if (getgrnam_r(text.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) {
        return static_cast<gid_t>(-1);
    }
    return found->gr_gid;
}

} // namespace

DBusService::CallVerdict DBusService::admitCall(const char* method) {
    CallVerdict verdict;
    verdict.group = Access::findMethodGroup(method);
    const auto* message = getObject().getCurrentlyProcessedMessage();
    if (!message || !verdict.group) {
        error("%s: access denied, no caller or method unknown", method);
        return verdict;
    }
    verdict.caller = message->getSender();
    const auto now = Clock::now();
    auto known = callers.find(verdict.caller);
    if (known == callers.end() || now - known->second.seen >= callerLifetime) {
        // The first call of a connection asks the bus for its credentials: the bus answers at once from what it
        // noted when the connection was made.
        CallerInfo info;
        try {
            info.uid = message->getCredsUid();
            info.pid = message->getCredsPid();
            auto gids = message->getCredsSupplementaryGids();
            gids.push_back(message->getCredsGid());
            gid_t gidOf[std::size(Access::roleGroups)];
            for (size_t i = 0; i < std::size(Access::roleGroups); ++i) {
                gidOf[i] = groupId(Access::roleGroups[i].group);
            }
            info.roles = Access::rolesOfGroups(gids, gidOf);
        } catch (const sdbus::Error& err) {
            error("%s: access denied, caller: %s, credentials unknown: %s", method, verdict.caller.c_str(),
                  err.getMessage().c_str());
            return verdict;
        }
        info.seen = now;
        if (callers.size() >= callersLimit) {
            std::erase_if(callers, [now](const auto& entry) { return now - entry.second.seen >= callerLifetime; });
            if (callers.size() >= callersLimit) {
                callers.clear();
            }
        }
        known = callers.insert_or_assign(verdict.caller, info).first;
    }
    verdict.info = known->second;
    const auto& info = verdict.info;

    if (info.uid == 0) {
        verdict.decision = Access::Decision::Allowed;
        return verdict;
    }
    verdict.decision = Access::decide(*verdict.group, info.roles);
    if (verdict.decision == Access::Decision::Refused) {
        warning("%s: access denied, caller uid: %u, pid: %d, sender: %s", method, info.uid, info.pid,
                verdict.caller.c_str());
        return verdict;
    }
    if (verdict.group->requests) {
        auto admission = requestLimiter.admit(verdict.caller, Access::RateLimiter::Clock::now());
        if (!admission.ticket) {
            const auto defs = defaults();
            counters.throttled(Metrics::Throttle::Rate);
            warning("%s: rate limited, caller uid: %u, pid: %d, sender: %s, in flight: %u (limit %u), last minute: %u "
                    "(limit %u)",
                    method, info.uid, info.pid, verdict.caller.c_str(), admission.inFlight, defs.requestsInFlight,
                    admission.lastMinute, defs.requestsPerMinute);
            verdict.decision = Access::Decision::Refused;
            return verdict;
        }
        requestTicket = std::move(admission.ticket);
    }
    return verdict;
}

bool DBusService::callerSeesSecrets() {
    const auto* message = getObject().getCurrentlyProcessedMessage();
    if (!message) {
        return false;
    }
    // admitCall has looked at this caller already: the entry is there.
    const auto found = callers.find(message->getSender());
    return found != callers.end() && (found->second.uid == 0 || (found->second.roles & Access::Transport) != 0);
}

bool DBusService::polkitGrants(const char* method, const CallVerdict& verdict) {
    const std::string action(verdict.group->action);
    const auto answer = polkit.check(verdict.caller, action);
    if (!answer.failure.empty()) {
        error("%s: access denied, polkit unavailable, action: %s, caller uid: %u, pid: %d, error: %s", method,
              action.c_str(), verdict.info.uid, verdict.info.pid, answer.failure.c_str());
        return false;
    }
    if (!answer.authorized) {
        warning("%s: access denied by polkit, action: %s, caller uid: %u, pid: %d", method, action.c_str(),
                verdict.info.uid, verdict.info.pid);
    }
    return answer.authorized;
}

void DBusService::dispatchAuthorized(const char* method, const std::function<void()>& run,
                                     const std::function<void()>& refuse) noexcept {
    try {
        const auto verdict = admitCall(method);
        switch (verdict.decision) {
        case Access::Decision::Refused:
            refuse();
            return;
        case Access::Decision::Allowed:
            run();
            // A ticket the operation did not take (it answered at once) ends with the call.
            requestTicket.reset();
            return;
        case Access::Decision::AskPolkit:
            break;
        }
        auto check = [this, method, verdict, run, refuse] {
            if (polkitGrants(method, verdict)) {
                run();
            } else {
                refuse();
            }
        };
        if (!authPool.submit(check)) {
            error("%s: service stopping", method);
            refuse();
        }
    } catch (const std::exception& err) {
        error("%s: exception: %s", method, err.what());
        requestTicket.reset();
        refuse();
    }
}

} // namespace Vexa
