// Notifications and remote assistance inside a session.

#include <csignal>
#include <filesystem>

#include "dbus_service.h"
#include "start/session_command.h"

namespace Vexa {

namespace {

constexpr const char* notificationHelper = VEXA_LIBEXEC_DIR "/vexa_notify";

} // namespace

// The child-table lock is taken only to enter the child: the stop sequence ends the workers before it ends the
// children, so no child started here can be missed by it.
void DBusService::addChild(SessionCommand& started) {
    std::lock_guard guard(children.lock);
    children.entries.push_back(ChildEntry{started.pid, started.status.share()});
}

bool DBusService::sendNotify(uint32_t session, const std::string& header, const std::string& message, uint8_t level) {
    info("%s: session id: %u, level: %u, message: `%s'", "vexaSendNotify", session, level, message.c_str());
    const auto found = findSession(session);
    if (!found) {
        return false;
    }
    const auto program = configuration()->getString("helper:notification", notificationHelper);
    // An argument vector, not a command line: the texts reach the helper as they are, without quoting.
    const std::list<std::string> args{"--header", header, "--message", message, "--level", std::to_string(level)};
    // The helper looks for the session's notification service on the session's own bus.
    std::list<std::string> env;
    if (auto address = sessions.locked([&found](SessionRegistry::Map&) { return found->dbusAddress; });
        !address.empty()) {
        env.push_back("DBUS_SESSION_BUS_ADDRESS=" + address);
    }
    auto started = runSessionCommand(found.get(), program, args, env, false);
    addChild(started);
    return true;
}

void DBusService::vexaSendNotifyAuthorized(sdbus::Result<bool>&& result, uint32_t session, std::string header,
                                           std::string message, uint8_t level) {
    answerAsync("vexaSendNotify", std::move(result), false, [&](const ReplyPtr<bool>& reply) {
        replyFromWorker("vexaSendNotify", reply, false, [this, session, header, message, level] {
            return sendNotify(session, header, message, level);
        });
    });
}

void DBusService::vexaSendNotify(sdbus::Result<bool>&& result, uint32_t session, std::string header,
                                 std::string message, uint8_t level) {
    authorizedCall("vexaSendNotify", std::move(result), &DBusService::vexaSendNotifyAuthorized, session,
                   std::move(header), std::move(message), level);
}

bool DBusService::remoteAssistance(uint32_t session, bool start) {
    const char* self = "vexaSessionRemoteAssistance";
    info("%s: session id: %u, action: %s", self, session, start ? "start" : "stop");
    const auto config = configuration();
    const auto path = config->getString("assistance:path", "");
    if (path.empty()) {
        warning("%s: option not defined: %s", self, "assistance:path");
        return false;
    }
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
        warning("%s: path not found: %s", self, path.c_str());
        return false;
    }
    const auto found = findSession(session);
    if (!found) {
        error("%s: session id: %u, not found", self, session);
        return false;
    }
    std::lock_guard serial(assistanceLock);
    const bool running = sessions.locked([&found, start](SessionRegistry::Map&) {
        if (!Utils::processAlive(found->assistanceFd.get())) {
            return false;
        }
        if (!start) {
            Utils::signalProcess(found->assistanceFd.get(), SIGTERM);
            found->assistance = 0;
            found->assistanceFd.reset();
        }
        return true;
    });
    if (running || !start) {
        return running;
    }
    auto started = runSessionCommand(found.get(), path, config->getStringList("assistance:args"), {}, false);
    addChild(started);
    sessions.locked([&](SessionRegistry::Map&) {
        found->assistance = started.pid;
        found->assistanceFd = std::move(started.pidfd);
    });
    // A start answers false, a program found running or stopped answers true: what the callers expect.
    return false;
}

void DBusService::vexaSessionRemoteAssistanceAuthorized(sdbus::Result<bool>&& result, uint32_t session, bool start) {
    answerAsync("vexaSessionRemoteAssistance", std::move(result), false, [&](const ReplyPtr<bool>& reply) {
        replyFromWorker("vexaSessionRemoteAssistance", reply, false,
                        [this, session, start] { return remoteAssistance(session, start); });
    });
}

void DBusService::vexaSessionRemoteAssistance(sdbus::Result<bool>&& result, uint32_t session, bool start) {
    authorizedCall("vexaSessionRemoteAssistance", std::move(result),
                   &DBusService::vexaSessionRemoteAssistanceAuthorized, session, start);
}

} // namespace Vexa
