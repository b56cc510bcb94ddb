// Service core operations: lifecycle, log level, liveness, version and the API limits.

#include "common/globals.h"
#include "common/utils.h"
#include "dbus_service.h"

namespace Vexa {

void DBusService::busServiceShutdown() {
    serve("busServiceShutdown", [] {
        notice("%s: process is initiated", "busServiceShutdown");
        requestServiceStop();
    });
}

void DBusService::busSetDebugLevelAuthorized(const std::string& value) {
    boundary("busSetDebugLevel", [&value] {
        info("%s: level: %s", "busSetDebugLevel", value.c_str());
        Syslog::setDebugLevel(value);
    });
}

void DBusService::busSetDebugLevel(sdbus::Result<>&& result, std::string value) {
    authorizedCall("busSetDebugLevel", std::move(result), &DBusService::busSetDebugLevelAuthorized, std::move(value));
}

bool DBusService::vexaStatus() {
    return serve("vexaStatus", false, [] {
        debug("%s", "vexaStatus");
        return true;
    });
}

std::string DBusService::vexaTest() {
    return serve("vexaTest", std::string(), [] {
        info("%s send ping version success", "vexaTest");
        return productVersion("SERVICE");
    });
}

uint32_t DBusService::vexaApiVersion() {
    return serve("vexaApiVersion", 0u, [] { return apiVersion; });
}

void DBusService::vexaSessionsLimitAuthorized(const uint32_t& limit) {
    apiSessionsLimit.store(limit);
}

void DBusService::vexaSessionsLimit(sdbus::Result<>&& result, uint32_t limit) {
    authorizedCall("vexaSessionsLimit", std::move(result), &DBusService::vexaSessionsLimitAuthorized, limit);
}

void DBusService::vexaUsersLimitAuthorized(const uint32_t& limit) {
    apiUsersLimit.store(limit);
}

void DBusService::vexaUsersLimit(sdbus::Result<>&& result, uint32_t limit) {
    authorizedCall("vexaUsersLimit", std::move(result), &DBusService::vexaUsersLimitAuthorized, limit);
}

} // namespace Vexa
