// The end of sessions: the session manager's exit noticed by the watcher, the announcement of the end, and the
// audit records of logins and logouts.

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <libaudit.h>

#include "common/process.h"
#include "common/utils.h"
#include "dbus_service.h"
#include "limits/systemctl.h"

namespace Vexa {

using namespace std::chrono_literals;

void DBusService::stoppedChildsWatcher() {
    std::vector<SessionPtr> ended;
    sessions.lockedWith(children.lock, [&](SessionRegistry::Map& map) {
        for (auto& child : children.entries) {
            if (!child.status.valid()) {
                continue;
            }
            // A child that has not ended costs no wait at all: its result is looked at, not waited for.
            if (child.status.wait_for(0ms) != std::future_status::ready) {
                continue;
            }
            // A session that ends while it starts is its start's to take out and to answer for; it was never
            // announced, so its end is not either. The child is looked at again once that start is over.
            const bool starting = std::any_of(map.begin(), map.end(), [&](const auto& entry) {
                return entry.second->pid2 == child.pid && starter.startingLocked(entry.first);
            });
            if (starting) {
                continue;
            }
            const int status = child.status.get();
            child.status = {};
            if (child.ownChild) {
                Utils::syslogWaitStatus(status, "stoppedChildsWatcher", child.pid);
            } else {
                // Taken back from an earlier run: its parent, not this service, learnt how it ended.
                debug("%s: child ended, pid: %d, not our child", "stoppedChildsWatcher", child.pid);
            }

            for (auto it = map.begin(); it != map.end();) {
                auto& session = it->second;
                if (session->pid2 != child.pid) {
                    ++it;
                    continue;
                }
                notice("%s: stopped, session id: %u, display: %u", "stoppedChildsWatcher", session->sid,
                       static_cast<uint32_t>(session->display));
                session->pid2 = 0;
                ended.push_back(std::move(session));
                it = map.erase(it);
            }
        }
        children.entries.remove_if([](const ChildEntry& child) { return !child.status.valid(); });
    });
    for (auto& session : ended) {
        startWorker([this, session = std::move(session)]() mutable { announceSessionEnd(std::move(session)); });
    }
}

void DBusService::announceSessionEnd(SessionPtr session) {
    session->sessionFreeze(false);
    if (session->policiesChanged) {
        sessionSaveState(session.get());
    }
    if (session->haveActiveConnects()) {
        for (const auto& slot : session->transports) {
            if (slot.pid <= 0) {
                continue;
            }
            auditUserMessage(static_cast<uint32_t>(session->display), slot.remoteaddr, auditUserSession,
                             "VEXA:SessionLogout", session->user ? session->user->name : std::string(), true);
            emitSignal("signalSessionDisconnected", [&] {
                emitSignalSessionDisconnected(session->sid, static_cast<uint32_t>(slot.pid), slot.remoteaddr);
            });
        }
    }
    emitSignal("signalSessionShutdown", [&] { emitSignalSessionShutdown(session->sid); });
    // The last reference goes here: the destructor tears the rest down on this thread.
    session.reset();
}

void DBusService::auditUserMessage(uint32_t display, const std::string& remoteaddr, int type,
                                   const std::string& message, const std::string& user, bool result) const {
    if (auditFd < 0) {
        return;
    }
    char* encoded = audit_encode_nv_string(message.c_str(), user.c_str(), static_cast<unsigned>(user.size()));
    if (!encoded) {
        return;
    }
    const std::string terminal = ":" + std::to_string(display);
    if (audit_log_user_message(auditFd, type, encoded, nullptr, remoteaddr.c_str(), terminal.c_str(), result ? 1 : 0) <=
        0) {
        const int err = errno;
        warning("%s: %s failed, error: %s, code: %d", "auditUserMessage", "audit_log_user_message",
                Utils::errnoText(err).c_str(), err);
    }
    std::free(encoded);
}

void DBusService::applyFileLimits(const SessionPtr& session) {
    if (!session->user) {
        return;
    }
    const auto uid = static_cast<uid_t>(session->user->uid);
    const auto& name = session->user->name;
    auto join = [this, &session](const ResourceLimits& limits) {
        sessions.locked([&](SessionRegistry::Map&) { session->resourceLimitsJoin(limits, true); });
    };
    for (const auto& [group, limits] : getScopeLimits("groups")) {
        const auto members = Utils::getGroupMembers(group);
        if (std::find(members.begin(), members.end(), name) != members.end()) {
            systemctlSetUserProperties(uid, limits);
            join(limits);
        }
    }
    const auto users = getScopeLimits("users");
    if (const auto found = users.find(name); found != users.end()) {
        systemctlSetUserProperties(uid, found->second);
        join(found->second);
    }
}

void DBusService::startWorker(const std::function<void()>& work, std::chrono::milliseconds delay) {
    if (!backgroundPool.submit(work, WorkPool::Clock::now() + delay)) {
        // The stop sequence has waited for the workers already: nothing is left to run this but the caller.
        work();
    }
}

void DBusService::waitWorkers() {
    resourcePool.stop();
    backgroundPool.stop();
}

} // namespace Vexa
