// Session shutdown and disconnect requests. Requests only signal processes: a session leaves the registry
// when the stopped-children watcher sees its session manager gone.

#include "dbus_service.h"

namespace Vexa {

bool DBusService::busSessionShutdownAuthorized(const std::string& username) {
    return boundary("busSessionShutdown", false, [&] {
        const char* self = "busSessionShutdown";
        notice("%s: username: %s", self, username.c_str());
        const bool found = sessions.locked([&](SessionRegistry::Map& map) {
            for (auto& [id, session] : map) {
                if (!session->user || session->user->name != username) {
                    continue;
                }
                if (session->pid2 > 0) {
                    info("%s: kill process: %d", self, session->pid2);
                    session->terminate();
                }
                return true;
            }
            return false;
        });
        if (!found) {
            warning("%s: session not found: %s", self, username.c_str());
        }
        return found;
    });
}

void DBusService::busSessionShutdown(sdbus::Result<bool>&& result, std::string username) {
    authorizedCall("busSessionShutdown", std::move(result), &DBusService::busSessionShutdownAuthorized,
                   std::move(username));
}

bool DBusService::vexaSessionShutdownAuthorized(const uint32_t& id) {
    return boundary("vexaSessionShutdown", false, [&] {
        const char* self = "vexaSessionShutdown";
        notice("%s: session id: %u", self, id);
        const auto session = findSession(id);
        if (!session) {
            warning("%s: session not found: 0x%08x", self, id);
            return false;
        }
        sessions.locked([&](SessionRegistry::Map&) {
            if (session->pid2 > 0) {
                info("%s: kill process: %d", self, session->pid2);
                session->terminate();
            }
        });
        return true;
    });
}

void DBusService::vexaSessionShutdown(sdbus::Result<bool>&& result, uint32_t session) {
    authorizedCall("vexaSessionShutdown", std::move(result), &DBusService::vexaSessionShutdownAuthorized, session);
}

bool DBusService::disconnectTransports(const SessionPtr& session) {
    return sessions.locked([&session](SessionRegistry::Map&) {
        if (!session->haveActiveConnects()) {
            return false;
        }
        // The transports report their own end; their slots are empty by then, so nobody announces it twice.
        session->resetAllConnects();
        return true;
    });
}

bool DBusService::vexaDisconnectAuthorized(const uint32_t& id) {
    return boundary("vexaDisconnect", false, [&] {
        notice("%s: session id: %u", "vexaDisconnect", id);
        const auto session = findSession(id);
        if (!session) {
            warning("%s: session not found: 0x%08x", "vexaDisconnect", id);
            return false;
        }
        return disconnectTransports(session);
    });
}

void DBusService::vexaDisconnect(sdbus::Result<bool>&& result, uint32_t session) {
    authorizedCall("vexaDisconnect", std::move(result), &DBusService::vexaDisconnectAuthorized, session);
}

void DBusService::vexaTransportDisplayShutdown(const uint32_t& display) {
    serve("vexaTransportDisplayShutdown", [&] {
        debug("%s: display id: %u", "vexaTransportDisplayShutdown", display);
        const auto session = findDisplaySession(display);
        if (!session) {
            return;
        }
        sessions.locked([&session](SessionRegistry::Map&) {
            session->disconnectedTimepoint = std::chrono::system_clock::now();
            if (session->seamlessMode && session->pid2 > 0) {
                session->seamlessStopTime = std::chrono::steady_clock::now();
            }
        });
    });
}

} // namespace Vexa
