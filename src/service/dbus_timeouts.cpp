// Session time limits and their service-wide defaults.

#include "dbus_service.h"

namespace Vexa {

void DBusService::vexaSessionDurationLimit(const int32_t&, const uint32_t&) {
    notImplemented("vexaSessionDurationLimit");
}

void DBusService::vexaSessionInactivityLimit(const int32_t&, const uint32_t&) {
    notImplemented("vexaSessionInactivityLimit");
}

void DBusService::vexaSessionDisconnectLimit(const int32_t&, const uint32_t&) {
    notImplemented("vexaSessionDisconnectLimit");
}

void DBusService::vexaSessionSeamlessLimit(const int32_t&, const uint32_t&) {
    notImplemented("vexaSessionSeamlessLimit");
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

void DBusService::vexaUserSessionsCheckTimeouts(const std::string&, const bool&) {
    notImplemented("vexaUserSessionsCheckTimeouts");
}

} // namespace Vexa
