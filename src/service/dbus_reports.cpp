// Session status reports: read-only answers built from the registry.

#include <fstream>
#include <thread>

#include "dbus_service.h"

namespace Vexa {

std::vector<sdbus::Struct<std::string, uint32_t>> DBusService::vexaSessions() {
    using Pairs = std::vector<sdbus::Struct<std::string, uint32_t>>;
    return boundary("vexaSessions", Pairs(), [this] {
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

std::string DBusService::vexaSessionInfoJson(const uint32_t&) {
    return notImplemented("vexaSessionInfoJson", std::string("{}"));
}

std::string DBusService::vexaUserInfoJson(const std::string&) {
    return notImplemented("vexaUserInfoJson", std::string("[]"));
}

double DBusService::vexaLoadAverage() {
    return boundary("vexaLoadAverage", 0.0, [] {
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
    return boundary("zabbixSessionsTotal", 0u, [this] {
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
    return boundary("zabbixSessionsOnline", 0u, [this] {
        return sessions.locked([](const SessionRegistry::Map& map) {
            uint32_t count = 0;
            for (const auto& [id, session] : map) {
                count += session->haveActiveConnects() ? 1 : 0;
            }
            return count;
        });
    });
}

std::string DBusService::vexaSessionProcess(const uint32_t&) {
    return notImplemented("vexaSessionProcess", std::string());
}

std::string DBusService::vexaTransportDisplayDBusAddress(const uint32_t&) {
    return notImplemented("vexaTransportDisplayDBusAddress", std::string());
}

} // namespace Vexa
