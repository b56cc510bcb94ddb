// Session status reports: read-only answers built from the registry.

#include <fstream>
#include <optional>
#include <set>
#include <thread>

#include "common/utils.h"
#include "dbus_service.h"
#include "session/report.h"

namespace Vexa {

std::vector<sdbus::Struct<std::string, uint32_t>> DBusService::vexaSessions() {
    using Pairs = std::vector<sdbus::Struct<std::string, uint32_t>>;
    return serve("vexaSessions", Pairs(), [this] {
        return sessions.locked([](const SessionRegistry::Map& map) {
            Pairs pairs;
            pairs.reserve(map.size());
            for (const auto& [id, session] : map) {
                pairs.emplace_back(session->user ? session->user->name : std::string(), id);
            }
            return pairs;
        });
    });
}

// The display geometry is not reported until the service has an X connection to a session's display.
std::string DBusService::vexaSessionInfoJson(const uint32_t& session) {
    return serve("vexaSessionInfoJson", std::string("{}"), [this, session] {
        debug("%s: session id: %d", "vexaSessionInfoJson", static_cast<int>(session));
        const bool withNtlm = callerSeesSecrets();
        auto json = sessions.locked([session, withNtlm](const SessionRegistry::Map& map) -> std::optional<std::string> {
            const auto found = map.find(session);
            if (found == map.end()) {
                return std::nullopt;
            }
            return sessionJson(*found->second, std::nullopt, withNtlm);
        });
        if (!json) {
            warning("%s: session not found: 0x%08x", "vexaSessionInfoJson", session);
            return std::string("{}");
        }
        return std::move(*json);
    });
}

std::string DBusService::vexaUserInfoJson(const std::string& user) {
    return serve("vexaUserInfoJson", std::string("[]"), [this, &user] {
        debug("%s: user: %s", "vexaUserInfoJson", user.c_str());
        const bool withNtlm = callerSeesSecrets();
        return sessions.locked([&user, withNtlm](const SessionRegistry::Map& map) {
            std::string array = "[";
            for (const auto& [id, session] : map) {
                if (session->user && session->user->name == user) {
                    if (array.size() > 1) {
                        array += ',';
                    }
                    array += sessionJson(*session, std::nullopt, withNtlm);
                }
            }
            return array + ']';
        });
    });
}

double DBusService::vexaLoadAverage() {
    return serve("vexaLoadAverage", 0.0, [] {
        double one = 0;
        double five = 0;
        double fifteen = 0;
        std::ifstream("/proc/loadavg") >> one >> five >> fifteen;
        const auto threads = std::thread::hardware_concurrency();
        // The five-minute average, as a share of the host's capacity.
        return five > 0 && threads > 0 ? five * 100 / threads : 0.0;
    });
}

uint32_t DBusService::zabbixSessionsTotal() {
    return serve("zabbixSessionsTotal", 0u, [this] {
        return sessions.locked([](const SessionRegistry::Map& map) {
            uint32_t count = 0;
            for (const auto& [id, session] : map) {
                count += session->pid2 > 0 ? 1 : 0;
            }
            return count;
        });
    });
}

uint32_t DBusService::zabbixSessionsOnline() {
    return serve("zabbixSessionsOnline", 0u, [this] {
        return sessions.locked([](const SessionRegistry::Map& map) {
            uint32_t count = 0;
            for (const auto& [id, session] : map) {
                count += session->haveActiveConnects() ? 1 : 0;
            }
            return count;
        });
    });
}

// Every process of the session's user counts, also those of the user's other sessions.
std::string DBusService::vexaSessionProcess(const uint32_t& session) {
    return serve("vexaSessionProcess", std::string(), [this, session] {
        const auto owner = sessions.locked([session](const SessionRegistry::Map& map) -> std::optional<uid_t> {
            const auto found = map.find(session);
            if (found == map.end() || !found->second->user || found->second->user->uid < 0) {
                return std::nullopt;
            }
            return static_cast<uid_t>(found->second->user->uid);
        });
        if (!owner) {
            warning("%s: session not found: 0x%08x", "vexaSessionProcess", session);
            return std::string();
        }
        // The walk over /proc reads many files; it runs outside the sessions lock.
        return userProcessesJson(*owner);
    });
}

std::string DBusService::vexaTransportDisplayDBusAddress(const uint32_t& display) {
    return serve("vexaTransportDisplayDBusAddress", std::string(), [this, display] {
        const auto session = findDisplaySession(display);
        if (!session) {
            warning("%s: display not found: %u", "vexaTransportDisplayDBusAddress", display);
            return std::string();
        }
        auto address = sessions.locked([&session](const SessionRegistry::Map&) { return session->dbusAddress; });
        info("%s: display: %u, session dbus address: `%s'", "vexaTransportDisplayDBusAddress", display,
             address.c_str());
        return address;
    });
}

std::string DBusService::metricsText() {
    return serve("metricsText", std::string(), [this] {
        Metrics::Gauges gauges;
        std::vector<SessionPtr> quiet; // started and without a transport: frozen or not, read outside the lock
        std::set<std::string> users;
        sessions.locked([&](const SessionRegistry::Map& map) {
            gauges.sessions = static_cast<uint32_t>(map.size());
            for (const auto& [id, session] : map) {
                users.insert(session->user ? session->user->name : std::string());
                for (const auto& slot : session->transports) {
                    gauges.transports += slot.isConnected() ? 1 : 0;
                }
                if (session->haveActiveConnects()) {
                    ++gauges.connected;
                } else if (session->pid2 > 0) {
                    ++gauges.disconnected;
                    quiet.push_back(session);
                }
            }
        });
        gauges.users = static_cast<uint32_t>(users.size());
        // The cgroup's own state file: the freezer may be mid-way, and reading it is I/O the sessions lock must
        // not wait for. The cgroup path is set once logind knows the session and never changes afterwards.
        for (const auto& session : quiet) {
            gauges.frozen += session->frozen() ? 1 : 0;
        }
        const double uptime = std::chrono::duration<double>(std::chrono::steady_clock::now() - startedAt).count();
        return Metrics::render(counters.snapshot(), gauges, uptime, productVersion("SERVICE"));
    });
}

} // namespace Vexa
