// Session shutdown and disconnect requests. Requests only signal processes: a session leaves the registry
// when the stopped-children watcher sees its session manager gone.

#include <csignal>

#include "dbus_service.h"

namespace Vexa {

bool DBusService::busSessionShutdown(const std::string& username) {
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
                    kill(session->pid2, SIGTERM);
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

bool DBusService::vexaSessionShutdown(const uint32_t& id) {
    return boundary("vexaSessionShutdown", false, [&] {
        const char* self = "vexaSessionShutdown";
        notice("%s: session id: %u", self, id);
        const auto session = findSession(id);
        if (!session) {
            warning("%s: session not found: 0x%08x", self, id);
            return false;
        }
        const pid_t pid = sessions.locked([&session](SessionRegistry::Map&) { return session->pid2; });
        if (pid > 0) {
            info("%s: kill process: %d", self, pid);
            kill(pid, SIGTERM);
        }
        return true;
    });
}

bool DBusService::vexaDisconnect(const uint32_t&) {
    return notImplemented("vexaDisconnect", false);
}

void DBusService::vexaTransportDisplayShutdown(const uint32_t&) {
    notImplemented("vexaTransportDisplayShutdown");
}

} // namespace Vexa
