// Resource limits of user slices and session scopes, session freezing, and their defaults.

#include <string>
#include <utility>
#include <vector>

#include "dbus_service.h"
#include "limits/systemctl.h"

namespace Vexa {

namespace {

constexpr uint32_t cpuWeightMax = 10000;

// The value of a numeric setter: 0 resets the property.
std::string numberText(uint32_t value) {
    return value == 0 ? std::string() : std::to_string(value);
}

// A CPU quota is stored as systemd takes it, in percent.
std::string percentText(uint32_t value) {
    return value == 0 ? std::string() : std::to_string(value) + '%';
}

// The service default of a control, from the value its all-sessions setter was given.
void setLimitsDefault(LimitsDefaults& defaults, ResourceControl control, const std::string& value) {
    const auto number = [&value] { return value.empty() ? 0 : static_cast<int32_t>(std::stoul(value)); };
    switch (control) {
    case ResourceControl::CpuQuota:
        defaults.cpuQuota = number();
        break;
    case ResourceControl::CpuWeight:
        defaults.cpuWeight = number();
        break;
    case ResourceControl::TasksMax:
        defaults.tasksMax = number();
        break;
    case ResourceControl::MemoryHigh:
        defaults.memoryHigh = value;
        break;
    case ResourceControl::MemoryMax:
        defaults.memoryMax = value;
        break;
    case ResourceControl::NetworkDeny:
        defaults.networkDeny = value;
        break;
    case ResourceControl::NetworkAllow:
        defaults.networkAllow = value;
        break;
    }
}

// A session that logind does not know yet has no scope: its value is kept and reported, and the scope gets it
// with the next change.
void applyScopeProperty(const std::string& unit, ResourceControl control, const std::string& value) {
    if (!unit.empty()) {
        systemctlSetProperty(unit, control, value);
    }
}

} // namespace

void DBusService::answerAfterResourceJob(sdbus::Result<>&& result, const char* method, std::function<void()> job) {
    auto reply = std::make_shared<PendingReply<>>(std::move(result));
    if (job) {
        auto run = [this, method, reply, job = std::move(job)] {
            boundary(method, job);
            sendReply(method, *reply);
        };
        if (resourcePool.submit(std::move(run))) {
            return;
        }
        error("%s: service stopping", method);
    }
    sendReply(method, *reply);
}

std::function<void()> DBusService::sessionResourceJob(const char* method, int32_t session, ResourceControl control,
                                                      const std::string& value) {
    return boundary(method, std::function<void()>(), [&]() -> std::function<void()> {
        if (session >= 0) {
            auto found = findSession(static_cast<uint32_t>(session));
            if (!found) {
                return {};
            }
            return [this, found = std::move(found), control, value] {
                const auto [unit, applied] = sessions.locked([&](SessionRegistry::Map&) {
                    found->resourceControlSet(control, value, false);
                    return std::pair(found->scopeUnit(), found->resourceControlValue(control, false));
                });
                applyScopeProperty(unit, control, applied);
            };
        }
        {
            std::lock_guard guard(defaultsLock);
            setLimitsDefault(limitsDefaults, control, value);
        }
        // Every session's value is stored under the sessions lock, then its scope's systemctl runs outside it: the
        // runs of one call come one after the other in the order of the sessions, and those of later calls after
        // them (one resource worker), so every scope ends with the value stored last, as if the lock had been held
        // throughout; meanwhile the registry keeps answering. A session that ends in between gets a run on a scope
        // that is gone, which systemctl refuses (logged) and which changes nothing. The call does not wait for it.
        if (!resourcePool.submit([this, control, value] {
                const auto all = sessions.locked([&](SessionRegistry::Map& map) {
                    std::vector<std::pair<std::string, std::string>> units;
                    for (auto& [id, entry] : map) {
                        entry->resourceControlSet(control, value, false);
                        units.emplace_back(entry->scopeUnit(), entry->resourceControlValue(control, false));
                    }
                    return units;
                });
                for (const auto& [unit, applied] : all) {
                    applyScopeProperty(unit, control, applied);
                }
            })) {
            error("%s: service stopping", method);
        }
        return {};
    });
}

std::function<void()> DBusService::userResourceJob(const char* method, const std::string& login,
                                                   ResourceControl control, const std::string& value) {
    return boundary(method, std::function<void()>(), [&]() -> std::function<void()> {
        auto found = findUserSessions(login);
        if (found.empty()) {
            return {};
        }
        return [this, found = std::move(found), control, value] {
            // One run per session of the user, on the slice they share: the last one leaves the value set.
            for (const auto& session : found) {
                const auto [uid, applied] = sessions.locked([&](SessionRegistry::Map&) {
                    session->resourceControlSet(control, value, true);
                    return std::pair(static_cast<uid_t>(session->user->uid),
                                     session->resourceControlValue(control, true));
                });
                systemctlSetProperty(userSliceName(uid), control, applied);
            }
        };
    });
}

std::function<void()> DBusService::refuseCpuWeight(const char* method, uint32_t weight) {
    warning("%s: incorrect value: %u", method, weight);
    return {};
}

uint32_t DBusService::vexaCpuWeightDefault() {
    return serve("vexaCpuWeightDefault", 0u, [this] { return static_cast<uint32_t>(resourceDefaults().cpuWeight); });
}

void DBusService::vexaSessionLimitCpuWeightAuthorized(sdbus::Result<>&& result, int32_t session, uint32_t weight) {
    const char* self = "vexaSessionLimitCpuWeight";
    info("%s: session id: %d, value: %u", self, session, weight);
    answerAfterResourceJob(std::move(result), self,
                           weight > cpuWeightMax
                               ? refuseCpuWeight(self, weight)
                               : sessionResourceJob(self, session, ResourceControl::CpuWeight, numberText(weight)));
}

void DBusService::vexaSessionLimitCpuWeight(sdbus::Result<>&& result, int32_t session, uint32_t weight) {
    authorizedCall("vexaSessionLimitCpuWeight", std::move(result), &DBusService::vexaSessionLimitCpuWeightAuthorized,
                   session, weight);
}

void DBusService::vexaUserLimitCpuWeightAuthorized(sdbus::Result<>&& result, const std::string& login,
                                                   uint32_t weight) {
    const char* self = "vexaUserLimitCpuWeight";
    info("%s: login: `%s', value: %u", self, login.c_str(), weight);
    answerAfterResourceJob(std::move(result), self,
                           weight > cpuWeightMax
                               ? refuseCpuWeight(self, weight)
                               : userResourceJob(self, login, ResourceControl::CpuWeight, numberText(weight)));
}

void DBusService::vexaUserLimitCpuWeight(sdbus::Result<>&& result, std::string login, uint32_t weight) {
    authorizedCall("vexaUserLimitCpuWeight", std::move(result), &DBusService::vexaUserLimitCpuWeightAuthorized,
                   std::move(login), weight);
}

uint32_t DBusService::vexaCpuQuotaDefault() {
    return serve("vexaCpuQuotaDefault", 0u, [this] { return static_cast<uint32_t>(resourceDefaults().cpuQuota); });
}

void DBusService::vexaSessionLimitCpuQuotaAuthorized(sdbus::Result<>&& result, int32_t session, uint32_t quota) {
    const char* self = "vexaSessionLimitCpuQuota";
    info("%s: session id: %d, value: %u", self, session, quota);
    answerAfterResourceJob(std::move(result), self,
                           sessionResourceJob(self, session, ResourceControl::CpuQuota, percentText(quota)));
}

void DBusService::vexaSessionLimitCpuQuota(sdbus::Result<>&& result, int32_t session, uint32_t quota) {
    authorizedCall("vexaSessionLimitCpuQuota", std::move(result), &DBusService::vexaSessionLimitCpuQuotaAuthorized,
                   session, quota);
}

void DBusService::vexaUserLimitCpuQuotaAuthorized(sdbus::Result<>&& result, const std::string& login, uint32_t quota) {
    const char* self = "vexaUserLimitCpuQuota";
    info("%s: login: `%s', value: %u", self, login.c_str(), quota);
    answerAfterResourceJob(std::move(result), self,
                           userResourceJob(self, login, ResourceControl::CpuQuota, percentText(quota)));
}

void DBusService::vexaUserLimitCpuQuota(sdbus::Result<>&& result, std::string login, uint32_t quota) {
    authorizedCall("vexaUserLimitCpuQuota", std::move(result), &DBusService::vexaUserLimitCpuQuotaAuthorized,
                   std::move(login), quota);
}

std::string DBusService::vexaMemoryHighDefault() {
    return serve("vexaMemoryHighDefault", std::string(), [this] { return resourceDefaults().memoryHigh; });
}

void DBusService::vexaSessionLimitMemoryHighAuthorized(sdbus::Result<>&& result, int32_t session,
                                                       const std::string& memory) {
    const char* self = "vexaSessionLimitMemoryHigh";
    info("%s: session id: %d, value: `%s'", self, session, memory.c_str());
    answerAfterResourceJob(std::move(result), self,
                           sessionResourceJob(self, session, ResourceControl::MemoryHigh, memory));
}

void DBusService::vexaSessionLimitMemoryHigh(sdbus::Result<>&& result, int32_t session, std::string memory) {
    authorizedCall("vexaSessionLimitMemoryHigh", std::move(result), &DBusService::vexaSessionLimitMemoryHighAuthorized,
                   session, std::move(memory));
}

void DBusService::vexaUserLimitMemoryHighAuthorized(sdbus::Result<>&& result, const std::string& login,
                                                    const std::string& memory) {
    const char* self = "vexaUserLimitMemoryHigh";
    info("%s: login: `%s', value: `%s'", self, login.c_str(), memory.c_str());
    answerAfterResourceJob(std::move(result), self, userResourceJob(self, login, ResourceControl::MemoryHigh, memory));
}

void DBusService::vexaUserLimitMemoryHigh(sdbus::Result<>&& result, std::string login, std::string memory) {
    authorizedCall("vexaUserLimitMemoryHigh", std::move(result), &DBusService::vexaUserLimitMemoryHighAuthorized,
                   std::move(login), std::move(memory));
}

std::string DBusService::vexaMemoryMaxDefault() {
    return serve("vexaMemoryMaxDefault", std::string(), [this] { return resourceDefaults().memoryMax; });
}

void DBusService::vexaSessionLimitMemoryMaxAuthorized(sdbus::Result<>&& result, int32_t session,
                                                      const std::string& memory) {
    const char* self = "vexaSessionLimitMemoryMax";
    info("%s: session id: %d, value: `%s'", self, session, memory.c_str());
    answerAfterResourceJob(std::move(result), self,
                           sessionResourceJob(self, session, ResourceControl::MemoryMax, memory));
}

void DBusService::vexaSessionLimitMemoryMax(sdbus::Result<>&& result, int32_t session, std::string memory) {
    authorizedCall("vexaSessionLimitMemoryMax", std::move(result), &DBusService::vexaSessionLimitMemoryMaxAuthorized,
                   session, std::move(memory));
}

void DBusService::vexaUserLimitMemoryMaxAuthorized(sdbus::Result<>&& result, const std::string& login,
                                                   const std::string& memory) {
    const char* self = "vexaUserLimitMemoryMax";
    info("%s: login: `%s', value: `%s'", self, login.c_str(), memory.c_str());
    answerAfterResourceJob(std::move(result), self, userResourceJob(self, login, ResourceControl::MemoryMax, memory));
}

void DBusService::vexaUserLimitMemoryMax(sdbus::Result<>&& result, std::string login, std::string memory) {
    authorizedCall("vexaUserLimitMemoryMax", std::move(result), &DBusService::vexaUserLimitMemoryMaxAuthorized,
                   std::move(login), std::move(memory));
}

uint32_t DBusService::vexaTasksMaxDefault() {
    return serve("vexaTasksMaxDefault", 0u, [this] { return static_cast<uint32_t>(resourceDefaults().tasksMax); });
}

void DBusService::vexaSessionLimitTasksMaxAuthorized(sdbus::Result<>&& result, int32_t session, uint32_t tasks) {
    const char* self = "vexaSessionLimitTasksMax";
    info("%s: session id: %d, value: %u", self, session, tasks);
    answerAfterResourceJob(std::move(result), self,
                           sessionResourceJob(self, session, ResourceControl::TasksMax, numberText(tasks)));
}

void DBusService::vexaSessionLimitTasksMax(sdbus::Result<>&& result, int32_t session, uint32_t tasks) {
    authorizedCall("vexaSessionLimitTasksMax", std::move(result), &DBusService::vexaSessionLimitTasksMaxAuthorized,
                   session, tasks);
}

void DBusService::vexaUserLimitTasksMaxAuthorized(sdbus::Result<>&& result, const std::string& login, uint32_t tasks) {
    const char* self = "vexaUserLimitTasksMax";
    info("%s: login: `%s', value: %u", self, login.c_str(), tasks);
    answerAfterResourceJob(std::move(result), self,
                           userResourceJob(self, login, ResourceControl::TasksMax, numberText(tasks)));
}

void DBusService::vexaUserLimitTasksMax(sdbus::Result<>&& result, std::string login, uint32_t tasks) {
    authorizedCall("vexaUserLimitTasksMax", std::move(result), &DBusService::vexaUserLimitTasksMaxAuthorized,
                   std::move(login), tasks);
}

std::string DBusService::vexaNetworkDenyDefault() {
    return serve("vexaNetworkDenyDefault", std::string(), [this] { return resourceDefaults().networkDeny; });
}

void DBusService::vexaSessionNetworkDenyAuthorized(sdbus::Result<>&& result, int32_t session,
                                                   const std::string& rules) {
    const char* self = "vexaSessionNetworkDeny";
    info("%s: session id: %d, value: `%s'", self, session, rules.c_str());
    answerAfterResourceJob(std::move(result), self,
                           sessionResourceJob(self, session, ResourceControl::NetworkDeny, rules));
}

void DBusService::vexaSessionNetworkDeny(sdbus::Result<>&& result, int32_t session, std::string rules) {
    authorizedCall("vexaSessionNetworkDeny", std::move(result), &DBusService::vexaSessionNetworkDenyAuthorized, session,
                   std::move(rules));
}

void DBusService::vexaUserNetworkDenyAuthorized(sdbus::Result<>&& result, const std::string& login,
                                                const std::string& rules) {
    const char* self = "vexaUserNetworkDeny";
    info("%s: login: `%s', value: `%s'", self, login.c_str(), rules.c_str());
    answerAfterResourceJob(std::move(result), self, userResourceJob(self, login, ResourceControl::NetworkDeny, rules));
}

void DBusService::vexaUserNetworkDeny(sdbus::Result<>&& result, std::string login, std::string rules) {
    authorizedCall("vexaUserNetworkDeny", std::move(result), &DBusService::vexaUserNetworkDenyAuthorized,
                   std::move(login), std::move(rules));
}

std::string DBusService::vexaNetworkAllowDefault() {
    return serve("vexaNetworkAllowDefault", std::string(), [this] { return resourceDefaults().networkAllow; });
}

void DBusService::vexaSessionNetworkAllowAuthorized(sdbus::Result<>&& result, int32_t session,
                                                    const std::string& rules) {
    const char* self = "vexaSessionNetworkAllow";
    info("%s: session id: %d, value: `%s'", self, session, rules.c_str());
    answerAfterResourceJob(std::move(result), self,
                           sessionResourceJob(self, session, ResourceControl::NetworkAllow, rules));
}

void DBusService::vexaSessionNetworkAllow(sdbus::Result<>&& result, int32_t session, std::string rules) {
    authorizedCall("vexaSessionNetworkAllow", std::move(result), &DBusService::vexaSessionNetworkAllowAuthorized,
                   session, std::move(rules));
}

void DBusService::vexaUserNetworkAllowAuthorized(sdbus::Result<>&& result, const std::string& login,
                                                 const std::string& rules) {
    const char* self = "vexaUserNetworkAllow";
    info("%s: login: `%s', value: `%s'", self, login.c_str(), rules.c_str());
    answerAfterResourceJob(std::move(result), self, userResourceJob(self, login, ResourceControl::NetworkAllow, rules));
}

void DBusService::vexaUserNetworkAllow(sdbus::Result<>&& result, std::string login, std::string rules) {
    authorizedCall("vexaUserNetworkAllow", std::move(result), &DBusService::vexaUserNetworkAllowAuthorized,
                   std::move(login), std::move(rules));
}

bool DBusService::vexaSessionDisconnectedFreezeDefault() {
    return serve("vexaSessionDisconnectedFreezeDefault", false, [this] { return defaults().disconnectedFreeze; });
}

void DBusService::vexaSessionDisconnectedFreezeAuthorized(const int32_t& session, const bool& val) {
    boundary("vexaSessionDisconnectedFreeze", [&] {
        info("%s: session id: %d, policy: %s", "vexaSessionDisconnectedFreeze", session, val ? "true" : "false");
        // Takes effect at the next freeze request: nothing is frozen or thawed now.
        setSessionPolicy(
            session, false, [val](Session& entry) { entry.disconnectedFreeze = val; },
            [val](ServiceDefaults& defs) { defs.disconnectedFreeze = val; });
    });
}

void DBusService::vexaSessionDisconnectedFreeze(sdbus::Result<>&& result, int32_t session, bool val) {
    authorizedCall("vexaSessionDisconnectedFreeze", std::move(result),
                   &DBusService::vexaSessionDisconnectedFreezeAuthorized, session, val);
}

} // namespace Vexa
