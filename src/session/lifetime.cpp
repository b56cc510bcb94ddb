#include "lifetime.h"

#include <algorithm>

#include "common/logger.h"

namespace Vexa {

namespace {

constexpr const char* checkPolicy = "sessionCheckPolicyConnection";
constexpr const char* registration = "proxySessionConnected";

size_t runningTransports(const Session& session) {
    return static_cast<size_t>(std::count_if(session.transports.begin(), session.transports.end(),
                                             [](const TransportInfo& slot) { return slot.isConnected(); }));
}

const TransportInfo* firstRunning(const Session& session) {
    const auto found = std::find_if(session.transports.begin(), session.transports.end(),
                                    [](const TransportInfo& slot) { return slot.isConnected(); });
    return found != session.transports.end() ? &*found : nullptr;
}

} // namespace

bool sessionCheckPolicyConnection(const Session& session) {
    const auto policy = session.policyConnect;
    const char* name = connectPolicyName(policy);
    switch (policy) {
    case ConnectPolicy::NextDeny:
        if (const auto* running = firstRunning(session)) {
            Syslog::warning("%s: session id: %u, %s, connect policy - `%s', transport pid: %d", checkPolicy,
                            session.sid, "transport also running", name, running->pid);
            return false;
        }
        break;
    case ConnectPolicy::PrevReplace:
        break;
    case ConnectPolicy::MultiAllow:
        if (runningTransports(session) >= transportSlots) {
            Syslog::error("%s: session id: %u, %s, connect policy - `%s', max limit: %u", checkPolicy, session.sid,
                          "full house connections", name, static_cast<uint32_t>(transportSlots));
            return false;
        }
        break;
    default:
        Syslog::error("%s: session id: %u, %s", checkPolicy, session.sid, "failed: unknown policy");
        return false;
    }
    Syslog::debug("%s: session id: %u, %s, connect policy - `%s'", checkPolicy, session.sid, "allow connection", name);
    return true;
}

TransportAdmission admitTransport(Session& session) {
    const auto policy = session.policyConnect;
    const char* name = connectPolicyName(policy);
    const auto running = runningTransports(session);
    switch (policy) {
    case ConnectPolicy::NextDeny:
        if (running > 0) {
            Syslog::error("%s: session id: %u, %s, connect policy - `%s'", registration, session.sid,
                          "abnormal situation", name);
            return TransportAdmission::Refused;
        }
        return TransportAdmission::Register;
    case ConnectPolicy::PrevReplace:
        if (running == 0) {
            return TransportAdmission::Register;
        }
        if (running > 1) {
            Syslog::warning("%s: session id: %u, %s, connect policy - `%s'", registration, session.sid,
                            "abnormal situation", name);
        }
        session.resetAllConnects();
        return TransportAdmission::ReplaceFirst;
    case ConnectPolicy::MultiAllow:
        if (running >= transportSlots) {
            Syslog::error("%s: session id: %u, %s, connect policy - `%s'", registration, session.sid,
                          "abnormal situation", name);
            return TransportAdmission::Refused;
        }
        return TransportAdmission::Register;
    }
    Syslog::error("%s: session id: %u, %s", registration, session.sid, "failed: unknown policy");
    return TransportAdmission::Refused;
}

void registerTransport(Session& session, pid_t pid, Utils::UniqueFd pidfd, const std::string& remoteaddr,
                       Session::SystemTime now) {
    session.sessionFreeze(false);
    session.addConnectInfo(pid, remoteaddr, std::move(pidfd));
    session.onlinedTimepoint = now;
    session.disconnectedTimepoint = {};
}

LimitTriggers timeLimitTriggers(const Session& session, Session::SystemTime now) {
    LimitTriggers fired;
    const bool connected = session.haveActiveConnects();
    if (connected || session.loginMode) {
        fired.duration = limitReached(now, session.onlinedTimepoint, session.durationLimit);
    }
    if (!connected) {
        fired.disconnect = limitReached(now, session.disconnectedTimepoint, session.disconnectLimit);
    }
    return fired;
}

bool seamlessLimitReached(const Session& session, Session::SteadyTime now, uint64_t& elapsed) {
    if (session.pid2 <= 0 || !session.seamlessMode || !session.checkTimeouts || session.seamlessLimit == 0 ||
        session.seamlessStopTime == Session::SteadyTime{} || session.haveActiveConnects()) {
        return false;
    }
    elapsed = elapsedSeconds(now, session.seamlessStopTime);
    return elapsed > session.seamlessLimit;
}

} // namespace Vexa
