// Resource limits of user slices and session scopes, session freezing, and their defaults.

#include "dbus_service.h"

namespace Vexa {

uint32_t DBusService::vexaCpuWeightDefault() {
    return static_cast<uint32_t>(resourceDefaults().cpuWeight);
}

void DBusService::vexaSessionLimitCpuWeight(const int32_t&, const uint32_t&) {
    notImplemented("vexaSessionLimitCpuWeight");
}

void DBusService::vexaUserLimitCpuWeight(const std::string&, const uint32_t&) {
    notImplemented("vexaUserLimitCpuWeight");
}

uint32_t DBusService::vexaCpuQuotaDefault() {
    return static_cast<uint32_t>(resourceDefaults().cpuQuota);
}

void DBusService::vexaSessionLimitCpuQuota(const int32_t&, const uint32_t&) {
    notImplemented("vexaSessionLimitCpuQuota");
}

void DBusService::vexaUserLimitCpuQuota(const std::string&, const uint32_t&) {
    notImplemented("vexaUserLimitCpuQuota");
}

std::string DBusService::vexaMemoryHighDefault() {
    return boundary("vexaMemoryHighDefault", std::string(), [this] { return resourceDefaults().memoryHigh; });
}

void DBusService::vexaSessionLimitMemoryHigh(const int32_t&, const std::string&) {
    notImplemented("vexaSessionLimitMemoryHigh");
}

void DBusService::vexaUserLimitMemoryHigh(const std::string&, const std::string&) {
    notImplemented("vexaUserLimitMemoryHigh");
}

std::string DBusService::vexaMemoryMaxDefault() {
    return boundary("vexaMemoryMaxDefault", std::string(), [this] { return resourceDefaults().memoryMax; });
}

void DBusService::vexaSessionLimitMemoryMax(const int32_t&, const std::string&) {
    notImplemented("vexaSessionLimitMemoryMax");
}

void DBusService::vexaUserLimitMemoryMax(const std::string&, const std::string&) {
    notImplemented("vexaUserLimitMemoryMax");
}

uint32_t DBusService::vexaTasksMaxDefault() {
    return static_cast<uint32_t>(resourceDefaults().tasksMax);
}

void DBusService::vexaSessionLimitTasksMax(const int32_t&, const uint32_t&) {
    notImplemented("vexaSessionLimitTasksMax");
}

void DBusService::vexaUserLimitTasksMax(const std::string&, const uint32_t&) {
    notImplemented("vexaUserLimitTasksMax");
}

std::string DBusService::vexaNetworkDenyDefault() {
    return boundary("vexaNetworkDenyDefault", std::string(), [this] { return resourceDefaults().networkDeny; });
}

void DBusService::vexaSessionNetworkDeny(const int32_t&, const std::string&) {
    notImplemented("vexaSessionNetworkDeny");
}

void DBusService::vexaUserNetworkDeny(const std::string&, const std::string&) {
    notImplemented("vexaUserNetworkDeny");
}

std::string DBusService::vexaNetworkAllowDefault() {
    return boundary("vexaNetworkAllowDefault", std::string(), [this] { return resourceDefaults().networkAllow; });
}

void DBusService::vexaSessionNetworkAllow(const int32_t&, const std::string&) {
    notImplemented("vexaSessionNetworkAllow");
}

void DBusService::vexaUserNetworkAllow(const std::string&, const std::string&) {
    notImplemented("vexaUserNetworkAllow");
}

bool DBusService::vexaSessionDisconnectedFreezeDefault() {
    return boundary("vexaSessionDisconnectedFreezeDefault", false, [this] { return defaults().disconnectedFreeze; });
}

void DBusService::vexaSessionDisconnectedFreeze(const int32_t& session, const bool& val) {
    boundary("vexaSessionDisconnectedFreeze", [&] {
        info("%s: session id: %d, policy: %s", "vexaSessionDisconnectedFreeze", session, val ? "true" : "false");
        // Takes effect at the next freeze request: nothing is frozen or thawed now.
        setSessionPolicy(
            session, false, [val](Session& entry) { entry.disconnectedFreeze = val; },
            [val](ServiceDefaults& defs) { defs.disconnectedFreeze = val; });
    });
}

} // namespace Vexa
