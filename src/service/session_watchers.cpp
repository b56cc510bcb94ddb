// The watchers of connections and time limits: ended transports, and sessions past their limits.

#include <algorithm>

#include "dbus_service.h"
#include "session/lifetime.h"

namespace Vexa {

void DBusService::stoppedTransportWatcher() {
    const char* self = "stoppedTransportWatcher";
    struct Ended {
        SessionPtr session;
        uint32_t display;
        pid_t pid;
        std::string remoteaddr;
    };
    std::vector<Ended> ended;
    sessions.locked([&](SessionRegistry::Map& map) {
        for (auto& [id, session] : map) {
            // One ended transport per session and pass; the next one is found at the next pass.
            auto slot = std::find_if(session->transports.begin(), session->transports.end(),
                                     [](const TransportInfo& transport) { return transport.notAlive(); });
            if (slot == session->transports.end()) {
                continue;
            }
            debug("%s: transport ended, session id: %u, pid: %d, remoteaddr: `%s'", self, session->sid, slot->pid,
                  slot->remoteaddr.c_str());
            ended.push_back(Ended{session, static_cast<uint32_t>(session->display), slot->pid, slot->remoteaddr});
            slot->reset(true);
            // The freezer is a write to the session's cgroup file: it does not wait.
            if (!session->loginMode) {
                session->sessionFreeze(true);
            }
            session->disconnectedTimepoint = std::chrono::system_clock::now();
            if (session->seamlessMode && session->pid2 > 0) {
                session->seamlessStopTime = std::chrono::steady_clock::now();
            }
        }
    });
    for (auto& transport : ended) {
        startWorker([this, transport = std::move(transport)] {
            const auto& session = *transport.session;
            auditUserMessage(transport.display, transport.remoteaddr, auditUserSession, "VEXA:SessionDisconnect",
                             session.user ? session.user->name : std::string(), true);
            emitSignal("signalSessionDisconnected", [&] {
                emitSignalSessionDisconnected(session.sid, static_cast<uint32_t>(transport.pid), transport.remoteaddr);
            });
        });
    }
}

void DBusService::timeLimitSessionsWatcher() {
    const char* self = "timeLimitSessionsWatcher";
    sessions.locked([&](SessionRegistry::Map& map) {
        const auto now = std::chrono::system_clock::now();
        for (auto& [id, session] : map) {
            if (session->pid2 <= 0) {
                continue;
            }
            const auto fired = timeLimitTriggers(*session, now);
            if (fired.duration) {
                debug("%s: session id: %u, duration limit trigger: %u", self, session->sid, session->durationLimit);
            }
            if (fired.disconnect) {
                debug("%s: session id: %u, disconnect limit trigger: %u", self, session->sid, session->disconnectLimit);
            }
            // Without the user's check-timeouts flag a trigger is only logged, again at every pass.
            if (!fired.any() || !session->checkTimeouts) {
                continue;
            }
            notice("%s: stopped, session id: %u, display: %u", self, session->sid,
                   static_cast<uint32_t>(session->display));
            debug("%s: kill process: %d", self, session->pid2);
            // A signal, not a wait: the session leaves when the children watcher sees its session manager gone.
            session->terminate();
        }
    });
}

void DBusService::seamlessTimeoutWatcher() {
    const char* self = "seamlessTimeoutWatcher";
    sessions.locked([&](SessionRegistry::Map& map) {
        const auto now = std::chrono::steady_clock::now();
        for (auto& [id, session] : map) {
            uint64_t elapsed = 0;
            if (!seamlessLimitReached(*session, now, elapsed)) {
                continue;
            }
            notice("%s: stopped, session id: %u, display: %u, time pass: %u sec", self, session->sid,
                   static_cast<uint32_t>(session->display), static_cast<uint32_t>(elapsed));
            session->terminate();
            // Told once: the session is no longer treated as seamless.
            session->seamlessMode = false;
        }
    });
}

} // namespace Vexa
