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

void DBusService::vexaSessionDurationLimitAuthorized(const int32_t& session, const uint32_t& countsec) {
    setSessionLimit("vexaSessionDurationLimit", session, countsec, &Session::durationLimit,
                    &ServiceDefaults::durationTimeout);
}

void DBusService::vexaSessionDurationLimit(sdbus::Result<>&& result, int32_t session, uint32_t countsec) {
    authorizedCall("vexaSessionDurationLimit", std::move(result), &DBusService::vexaSessionDurationLimitAuthorized,
                   session, countsec);
}

void DBusService::vexaSessionInactivityLimitAuthorized(const int32_t& session, const uint32_t& countsec) {
    setSessionLimit("vexaSessionInactivityLimit", session, countsec, &Session::inactivityLimit,
                    &ServiceDefaults::inactivityTimeout);
}

void DBusService::vexaSessionInactivityLimit(sdbus::Result<>&& result, int32_t session, uint32_t countsec) {
    authorizedCall("vexaSessionInactivityLimit", std::move(result), &DBusService::vexaSessionInactivityLimitAuthorized,
                   session, countsec);
}

void DBusService::vexaSessionDisconnectLimitAuthorized(const int32_t& session, const uint32_t& countsec) {
    setSessionLimit("vexaSessionDisconnectLimit", session, countsec, &Session::disconnectLimit,
                    &ServiceDefaults::disconnectTimeout);
}

void DBusService::vexaSessionDisconnectLimit(sdbus::Result<>&& result, int32_t session, uint32_t countsec) {
    authorizedCall("vexaSessionDisconnectLimit", std::move(result), &DBusService::vexaSessionDisconnectLimitAuthorized,
                   session, countsec);
}

void DBusService::vexaSessionSeamlessLimitAuthorized(const int32_t& session, const uint32_t& countsec) {
    setSessionLimit("vexaSessionSeamlessLimit", session, countsec, &Session::seamlessLimit,
                    &ServiceDefaults::seamlessTimeout);
}

void DBusService::vexaSessionSeamlessLimit(sdbus::Result<>&& result, int32_t session, uint32_t countsec) {
    authorizedCall("vexaSessionSeamlessLimit", std::move(result), &DBusService::vexaSessionSeamlessLimitAuthorized,
                   session, countsec);
}

uint32_t DBusService::vexaSeamlessTimeoutDefault() {
    return serve("vexaSeamlessTimeoutDefault", 0u, [this] { return defaults().seamlessTimeout; });
}

uint32_t DBusService::vexaDurationTimeoutDefault() {
    return serve("vexaDurationTimeoutDefault", 0u, [this] { return defaults().durationTimeout; });
}

uint32_t DBusService::vexaInactivityTimeoutDefault() {
    return serve("vexaInactivityTimeoutDefault", 0u, [this] { return defaults().inactivityTimeout; });
}

uint32_t DBusService::vexaDisconnectTimeoutDefault() {
    return serve("vexaDisconnectTimeoutDefault", 0u, [this] { return defaults().disconnectTimeout; });
}

void DBusService::vexaUserSessionsCheckTimeoutsAuthorized(const std::string& username, const bool& check) {
    boundary("vexaUserSessionsCheckTimeouts", [&] {
        const auto found = findUserSessions(username);
        sessions.locked([&](SessionRegistry::Map&) {
            for (const auto& session : found) {
                session->checkTimeouts = check;
            }
        });
    });
}

void DBusService::vexaUserSessionsCheckTimeouts(sdbus::Result<>&& result, std::string username, bool check) {
    authorizedCall("vexaUserSessionsCheckTimeouts", std::move(result),
                   &DBusService::vexaUserSessionsCheckTimeoutsAuthorized, std::move(username), check);
}

} // namespace Vexa
