// Session time limits and their service-wide defaults.

#include "dbus_service.h"

namespace Vexa {

void DBusService::setSessionLimit(const char* method, int32_t session, uint32_t limit, uint32_t Session::*field,
                                  uint32_t ServiceDefaults::*defaultField) {
    boundary(method, [&] {
        info("%s: session id: %d, limit: %u sec", method, session, limit);
        // A limit is not a policy: changing it does not make the session's state saved at its end.
        setSessionPolicy(
            session, false, [&](Session& entry) { entry.*field = limit; },
            [&](ServiceDefaults& defs) { defs.*defaultField = limit; });
    });
}

void DBusService::vexaSessionDurationLimit(const int32_t& session, const uint32_t& countsec) {
    setSessionLimit("vexaSessionDurationLimit", session, countsec, &Session::durationLimit,
                    &ServiceDefaults::durationTimeout);
}

void DBusService::vexaSessionInactivityLimit(const int32_t& session, const uint32_t& countsec) {
    setSessionLimit("vexaSessionInactivityLimit", session, countsec, &Session::inactivityLimit,
                    &ServiceDefaults::inactivityTimeout);
}

void DBusService::vexaSessionDisconnectLimit(const int32_t& session, const uint32_t& countsec) {
    setSessionLimit("vexaSessionDisconnectLimit", session, countsec, &Session::disconnectLimit,
                    &ServiceDefaults::disconnectTimeout);
}

void DBusService::vexaSessionSeamlessLimit(const int32_t& session, const uint32_t& countsec) {
    setSessionLimit("vexaSessionSeamlessLimit", session, countsec, &Session::seamlessLimit,
                    &ServiceDefaults::seamlessTimeout);
}

uint32_t DBusService::vexaSeamlessTimeoutDefault() {
    return boundary("vexaSeamlessTimeoutDefault", 0u, [this] { return defaults().seamlessTimeout; });
}

uint32_t DBusService::vexaDurationTimeoutDefault() {
    return boundary("vexaDurationTimeoutDefault", 0u, [this] { return defaults().durationTimeout; });
}

uint32_t DBusService::vexaInactivityTimeoutDefault() {
    return boundary("vexaInactivityTimeoutDefault", 0u, [this] { return defaults().inactivityTimeout; });
}

uint32_t DBusService::vexaDisconnectTimeoutDefault() {
    return boundary("vexaDisconnectTimeoutDefault", 0u, [this] { return defaults().disconnectTimeout; });
}

void DBusService::vexaUserSessionsCheckTimeouts(const std::string& username, const bool& check) {
    boundary("vexaUserSessionsCheckTimeouts", [&] {
        const auto found = findUserSessions(username);
        sessions.locked([&](SessionRegistry::Map&) {
            for (const auto& session : found) {
                session->checkTimeouts = check;
            }
        });
    });
}

} // namespace Vexa
