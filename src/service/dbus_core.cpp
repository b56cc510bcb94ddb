// Service core operations: lifecycle, log level, liveness, version and the API limits.

#include "common/globals.h"
#include "common/utils.h"
#include "dbus_service.h"

namespace Vexa {

void DBusService::busServiceShutdown() {
    boundary("busServiceShutdown", [] {
        notice("%s: process is initiated", "busServiceShutdown");
        requestServiceStop();
    });
}

void DBusService::busSetDebugLevel(const std::string& value) {
    boundary("busSetDebugLevel", [&value] {
        info("%s: level: %s", "busSetDebugLevel", value.c_str());
        Syslog::setDebugLevel(value);
    });
}

bool DBusService::vexaStatus() {
    return boundary("vexaStatus", false, [] {
        debug("%s", "vexaStatus");
        return true;
    });
}

std::string DBusService::vexaTest() {
    return boundary("vexaTest", std::string(), [] {
        info("%s send ping version success", "vexaTest");
        return productVersion("SERVICE");
    });
}

uint32_t DBusService::vexaApiVersion() {
    return apiVersion;
}

void DBusService::vexaSessionsLimit(const uint32_t& limit) {
    apiSessionsLimit.store(limit);
}

void DBusService::vexaUsersLimit(const uint32_t& limit) {
    apiUsersLimit.store(limit);
}

} // namespace Vexa
