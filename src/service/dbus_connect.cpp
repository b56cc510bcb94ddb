// Connection policy, the proxy handshake and transport queries.

#include "dbus_service.h"
#include "session/lifetime.h"

namespace Vexa {

using namespace std::chrono_literals;

namespace {

// How long a replaced transport gets to leave before its successor is registered.
constexpr auto replacePause = 100ms;
// The pause before an inactivity report is acted on.
constexpr auto inactivityPause = 100ms;

} // namespace

bool DBusService::sessionCheckPolicyConnection(const Session& session) {
    return sessions.locked([&session](SessionRegistry::Map&) { return Vexa::sessionCheckPolicyConnection(session); });
}

bool DBusService::vexaConnectRdpTransport(const uint32_t& session, const uint32_t& timeout) {
    return serve("vexaConnectRdpTransport", false, [&] {
        const auto found = findSession(session);
        if (!found) {
            return false;
        }
        info("%s: session id: %u, timeout: %u", "vexaConnectRdpTransport", session, timeout);
        if (!sessionCheckPolicyConnection(*found)) {
            return false;
        }
        if (timeout != 0) {
            emitSignal("signalProxyListenTimeout", [&] { emitSignalProxyListenTimeout(timeout); });
        }
        allowConnection(*found);
        return true;
    });
}

void DBusService::proxyListenStarted(const uint32_t& session, const bool& status) {
    serve("proxyListenStarted", [&] {
        if (!findSession(session)) {
            return;
        }
        info("%s: session id: %u, status: %s", "proxyListenStarted", session, status ? "success" : "failed");
        // The proxy listens (or tried to): the flag is raised whatever the outcome, as the proxy expects.
        proxyListen.store(true);
    });
}

bool DBusService::vexaCheckProxyListen() {
    return serve("vexaCheckProxyListen", false, [this] { return proxyListen.load(); });
}

void DBusService::proxyListenTimeout(const uint32_t& timeout) {
    serve("proxyListenTimeout", [&] {
        info("%s: set timeout: %u", "proxyListenTimeout", timeout);
        emitSignal("signalProxyListenTimeout", [&] { emitSignalProxyListenTimeout(timeout); });
    });
}

void DBusService::proxyClientConnected(const uint32_t& session, const std::string& ipaddr) {
    serve("proxyClientConnected", [&] {
        const auto found = findSession(session);
        if (!found) {
            return;
        }
        info("%s: session id: %u, ipaddr: %s", "proxyClientConnected", session, ipaddr.c_str());
        proxyListen.store(false);
        std::string message = "There was an attempt to connect from a remote address: " + ipaddr;
        startWorker([this, session, message = std::move(message)] {
            boundary("proxyClientConnected", [&] { sendNotify(session, "", message, 0); });
        });
    });
}

Utils::UniqueFd DBusService::acceptTransportPid(uint32_t session, uint32_t pid) {
    const auto* message = getObject().getCurrentlyProcessedMessage();
    TransportCaller caller;
    std::string name;
    if (message) {
        name = message->getSender();
        caller.pid = message->getCredsPid();
        caller.uid = message->getCredsUid();
    }
    // The pidfd first: a process that is still alive after the check below is the one the check looked at,
    // since its pid cannot have been handed to another process meanwhile.
    const auto transportPid = static_cast<pid_t>(pid);
    auto pidfd = Utils::processFd(transportPid);
    if (pidfd && transportPidAccepted(transportPid, caller, Utils::parentPid) && Utils::processAlive(pidfd.get())) {
        return pidfd;
    }
    warning("%s: session id: %u, transport pid: %u, refused: not the caller or its descendant, caller: %s, "
            "caller pid: %d",
            "proxySessionConnected", session, pid, name.c_str(), caller.pid);
    return {};
}

void DBusService::completeTransportRegistration(const SessionPtr& session, uint32_t sid, pid_t pid,
                                                Utils::UniqueFd pidfd, const std::string& ipaddr) {
    sessions.locked([&](SessionRegistry::Map&) {
        registerTransport(*session, pid, std::move(pidfd), ipaddr, std::chrono::system_clock::now());
    });
    saveRecordLater(session);
    emitSignal("signalSessionConnected", [&] { emitSignalSessionConnected(sid, static_cast<uint32_t>(pid), ipaddr); });
}

void DBusService::proxySessionConnectedAuthorized(sdbus::Result<>&& result, uint32_t session, uint32_t pid,
                                                  std::string ipaddr) {
    const char* self = "proxySessionConnected";
    // The reply carries no value: it says that the registration is over (after a replaced transport's pause).
    auto reply = std::make_shared<PendingReply<>>(std::move(result));
    const bool deferred = boundary(self, false, [&] {
        const auto found = findSession(session);
        if (!found) {
            return false;
        }
        info("%s: session id: %u, transport pid: %u, ipaddr: %s", self, session, pid, ipaddr.c_str());
        auto pidfd = acceptTransportPid(session, pid);
        if (!pidfd) {
            return false;
        }
        const auto admission = sessions.locked([&found](SessionRegistry::Map&) { return admitTransport(*found); });
        if (admission == TransportAdmission::Refused) {
            return false;
        }
        if (admission == TransportAdmission::Register) {
            completeTransportRegistration(found, session, static_cast<pid_t>(pid), std::move(pidfd), ipaddr);
            return false;
        }
        // The replaced transports have been told to end; the new one is registered after a pause that holds
        // no thread, and the call is answered then.
        auto fd = std::make_shared<Utils::UniqueFd>(std::move(pidfd));
        startWorker(
            [this, self, reply, found, session, pid, ipaddr, fd] {
                boundary(self, [&] {
                    completeTransportRegistration(found, session, static_cast<pid_t>(pid), std::move(*fd), ipaddr);
                });
                sendReply(self, *reply);
            },
            replacePause);
        return true;
    });
    if (!deferred) {
        sendReply(self, *reply);
    }
}

void DBusService::proxySessionConnected(sdbus::Result<>&& result, uint32_t session, uint32_t pid, std::string ipaddr) {
    authorizedCall("proxySessionConnected", std::move(result), &DBusService::proxySessionConnectedAuthorized, session,
                   pid, std::move(ipaddr));
}

void DBusService::vexaSessionPolicyConnectAuthorized(const int32_t& session, const uint32_t& policy) {
    boundary("vexaSessionPolicyConnect", [&] {
        info("%s: session id: %d, policy: %u", "vexaSessionPolicyConnect", session, policy);
        if (policy == 0 || policy > static_cast<uint32_t>(ConnectPolicy::MultiAllow)) {
            warning("%s: incorrect policy: %u", "vexaSessionPolicyConnect", policy);
            return;
        }
        const auto value = static_cast<ConnectPolicy>(policy);
        setSessionPolicy(
            session, true, [value](Session& entry) { entry.policyConnect = value; },
            [value](ServiceDefaults& defs) { defs.connectPolicy = value; });
    });
}

void DBusService::vexaSessionPolicyConnect(sdbus::Result<>&& result, int32_t session, uint32_t policy) {
    authorizedCall("vexaSessionPolicyConnect", std::move(result), &DBusService::vexaSessionPolicyConnectAuthorized,
                   session, policy);
}

uint32_t DBusService::vexaPolicyConnectDefault() {
    return serve("vexaPolicyConnectDefault", 0u, [this] { return static_cast<uint32_t>(defaults().connectPolicy); });
}

uint32_t DBusService::vexaTransportDisplayInactivity(const uint32_t& display) {
    return serve("vexaTransportDisplayInactivity", 0u, [&] {
        info("%s: display id: %u", "vexaTransportDisplayInactivity", display);
        const auto found = findDisplaySession(display);
        if (!found) {
            return 0u;
        }
        return sessions.locked([&found](SessionRegistry::Map&) { return found->inactivityLimit; });
    });
}

void DBusService::vexaTransportDisplayInactivityEvent(const uint32_t& display) {
    serve("vexaTransportDisplayInactivityEvent", [&] {
        info("%s: display id: %u", "vexaTransportDisplayInactivityEvent", display);
        auto found = findDisplaySession(display);
        if (!found) {
            return;
        }
        startWorker(
            [this, found] {
                boundary("vexaTransportDisplayInactivityEvent", [&] {
                    // A login screen left alone is not disconnected here: its disconnect limit, counted as
                    // reached now, ends it at the next check of the limits.
                    const bool login = sessions.locked([&found](SessionRegistry::Map&) {
                        if (found->loginMode) {
                            found->disconnectedTimepoint =
                                std::chrono::system_clock::now() - std::chrono::seconds(found->disconnectLimit);
                        }
                        return found->loginMode;
                    });
                    if (!login) {
                        vexaDisconnectAuthorized(found->sid);
                    }
                });
            },
            inactivityPause);
    });
}

} // namespace Vexa
