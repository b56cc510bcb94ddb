// Session requests from transports and administrators, and the login helper.

#include <thread>

#include "dbus_service.h"
#include "start/pam_service.h"
#include "start/session_request.h"
#include "auth/ntlm.h"

namespace Vexa {

namespace {

// Reply of a session request that could not be made (bad arguments, no credentials, no session).
constexpr int32_t requestFailed = -4;
constexpr int32_t noSession = -7;
constexpr int32_t programUnknown = -9;
constexpr int32_t connectRefused = -5;

const char* boolText(bool value) {
    return value ? "true" : "false";
}

} // namespace

std::optional<bool> DBusService::consumeTransportToken(const std::string& user, const std::string& token) {
    // A transport's one-time token stands in for the password once; compared and cleared under the sessions
    // lock, which guards the user records.
    return sessions.locked([&](const SessionRegistry::Map& map) -> std::optional<bool> {
        for (const auto& [id, session] : map) {
            if (!session->user || session->user->name != user || session->user->transportToken.empty()) {
                continue;
            }
            auto& tokenHeld = session->user->transportToken;
            if (tokenHeld != token) {
                return false;
            }
            tokenHeld.clear();
            return true;
        }
        return std::nullopt;
    });
}

bool DBusService::sessionCheckPolicyConnection(const Session&) const {
    // Transports are registered under the session's connect policy when they attach; a request only asks
    // whether it may go ahead, and nothing here refuses it.
    return true;
}

StartSessionArgs DBusService::defaultSessionArgs(const std::string& user, const std::string& pass, uint8_t depth,
                                                 uint16_t width, uint16_t height) const {
    const auto config = configuration();
    StartSessionArgs args;
    args.user = user;
    args.depth = depth;
    args.width = width;
    args.height = height;
    args.sessionName = defaultSessionName;
    args.program = config->getString("session:path", terminalProgram);
    args.args = config->getStringList("session:args");
    args.mode = RunMode::UserSessionRequest;
    // An empty password is no password: such a request starts nothing.
    if (!pass.empty()) {
        args.password = pass;
    }
    return args;
}

int32_t DBusService::requestSession(const StartSessionArgs& args, SessionPtr& session) {
    const auto started = startSession(args);
    if (started.status != StartStatus::Success) {
        return sessionRequestReply(started.status);
    }
    if (!started.session) {
        return noSession;
    }
    if (!sessionCheckPolicyConnection(*started.session)) {
        return connectRefused;
    }
    session = started.session;
    return 0;
}

void DBusService::allowConnection(const Session& session) {
    const auto sid = session.sid;
    const auto uid = static_cast<uint32_t>(session.user->uid);
    emitSignal("signalProxyAllowConnection", [this, sid, uid] { emitSignalProxyAllowConnection(sid, uid); });
}

int32_t DBusService::requestAllowedSession(const StartSessionArgs& args) {
    SessionPtr session;
    if (const int32_t reply = requestSession(args, session); reply != 0) {
        return reply;
    }
    allowConnection(*session);
    return static_cast<int32_t>(session->sid);
}

int32_t DBusService::busSessionRequest(const std::string& user, const std::string& pass, const uint8_t& depth,
                                       const uint16_t& width, const uint16_t& height) {
    return boundary("busSessionRequest", requestFailed, [&] {
        notice("%s: user: %s, depth: %u, width: %u, height: %u", "busSessionRequest", user.c_str(), depth, width,
               height);
        auto args = defaultSessionArgs(user, pass, depth, width, height);
        return requestAllowedSession(args);
    });
}

int32_t DBusService::busSessionDomainRequest(const std::string& user, const std::string& domain,
                                             const std::string& pass, const uint8_t& depth, const uint16_t& width,
                                             const uint16_t& height) {
    return boundary("busSessionDomainRequest", requestFailed, [&] {
        notice("%s: user: %s, domain: `%s', depth: %u, width: %u, height: %u", "busSessionDomainRequest", user.c_str(),
               domain.c_str(), depth, width, height);
        auto args = defaultSessionArgs(user, pass, depth, width, height);
        args.domain = domain;
        return requestAllowedSession(args);
    });
}

int32_t DBusService::vexaSessionRequest(const std::string& params) {
    return boundary("vexaSessionRequest", requestFailed, [&] {
        const char* self = "vexaSessionRequest";
        auto parsed = parseSessionRequest(params, [this](std::string_view name) { return programs.find(name); });
        if (!parsed.request) {
            return parsed.reply;
        }
        auto& request = *parsed.request;

        StartSessionArgs args;
        args.user = request.username;
        args.domain = request.domain;
        args.depth = request.depth;
        args.width = request.width;
        args.height = request.height;
        args.sessionName = defaultSessionName;
        args.program = request.sessionPath;
        args.args = request.sessionArgs;
        args.mode = request.mode;
        switch (request.credentials.mode) {
        case AuthMode::PasswordEnc:
        case AuthMode::Password:
            args.password = std::move(request.credentials.password);
            break;
        case AuthMode::TransportToken: {
            const auto accepted = consumeTransportToken(request.username, request.credentials.transportToken);
            if (!accepted.value_or(false)) {
                error("%s: transport token not accepted, user: %s", self, request.username.c_str());
                return requestFailed;
            }
            args.noauth = true;
            break;
        }
        case AuthMode::None:
            break;
        }

        SessionPtr session;
        if (const int32_t reply = requestSession(args, session); reply != 0) {
            return reply;
        }
        sessions.locked([&](SessionRegistry::Map&) {
            session->secNla = request.secNla.value_or(session->secNla);
            session->secTls = request.secTls.value_or(session->secTls);
            session->secRdp = request.secRdp.value_or(session->secRdp);
            session->secAuth = request.secAuth.value_or(session->secAuth);
            session->uizr = request.uizr;
            session->user->domain = request.domain;
            if (request.gusId) {
                session->gusId = *request.gusId;
            }
            if (request.serverId) {
                session->serverId = *request.serverId;
            }
            if (args.password) {
                vexaCreateNTLMhashFile(session, *args.password, request.useNtlmv2);
            }
        });
        debug("%s: sec:nla = `%s'", self, boolText(session->secNla));
        debug("%s: sec:tls = `%s'", self, boolText(session->secTls));
        debug("%s: sec:rdp = `%s'", self, boolText(session->secRdp));
        debug("%s: sec:auth = `%s'", self, boolText(session->secAuth));
        debug("%s: use:ntlmv2 = `%s'", self, boolText(request.useNtlmv2));
        debug("%s: transport:run = `%s'", self, boolText(request.transportRun));
        if (args.password) {
            explicit_bzero(args.password->data(), args.password->size());
        }

        if (request.transportRun) {
            allowConnection(*session);
        }
        return static_cast<int32_t>(session->sid);
    });
}

int32_t DBusService::busProgramRequest(const std::string& user, const std::string& domain, const std::string& pass,
                                       const uint16_t& width, const uint16_t& height, const std::string& prog) {
    return boundary("busProgramRequest", requestFailed, [&] {
        notice("%s: user: %s, domain: `%s', width: %u, height: %u, program: `%s'", "busProgramRequest", user.c_str(),
               domain.c_str(), width, height, prog.c_str());
        const auto program = programs.find(prog);
        if (!program) {
            error("%s: program not registered, name: %s", "busProgramRequest", prog.c_str());
            return programUnknown;
        }
        auto args = defaultSessionArgs(user, pass, 24, width, height);
        args.domain = domain;
        args.program = program->path.string();
        args.args = program->args;
        // A published program is a session of its own kind, reused like any user session of the same name.
        args.mode = RunMode::UserSession;
        return requestAllowedSession(args);
    });
}

bool DBusService::vexaLogin(const std::string& user, const std::string& domain, const std::string& pass) {
    return boundary("vexaLogin", false, [&] {
        notice("%s: user: %s, domain: `%s'", "vexaLogin", user.c_str(), domain.c_str());
        auto args = defaultSessionArgs(user, pass, 24, 1280, 1024);
        args.domain = domain;
        SessionPtr session;
        return requestSession(args, session) == 0;
    });
}

bool DBusService::vexaTestConnect(const std::string& user, const std::string& domain, const std::string& pass) {
    return boundary("vexaTestConnect", false, [&] {
        notice("%s: user: %s, domain: `%s'", "vexaTestConnect", user.c_str(), domain.c_str());
        PamService pam(configuration()->getString("pam:service", "vexa"), user, pass);
        return pam.checkAuthenticate();
    });
}

sdbus::Struct<int32_t, std::string> DBusService::vexaLoginHelperStart(const std::string& user,
                                                                      const int32_t& transportPid) {
    const sdbus::Struct<int32_t, std::string> failed(-1, std::string());
    return boundary("vexaLoginHelperStart", failed, [&]() -> sdbus::Struct<int32_t, std::string> {
        info("%s: user: %s, transport pid: %d", "vexaLoginHelperStart", user.c_str(), transportPid);
        StartSessionArgs args;
        args.user = user;
        args.sessionName = "LoginSession";
        args.program = configuration()->getString("helper:login", "/usr/libexec/vexa/vexa_login_helper");
        args.args = {"--transport", std::to_string(transportPid)};
        args.mode = RunMode::LoginHelper;
        const auto started = startSession(args);
        if (!started.session) {
            return {-1, std::string()};
        }
        return sdbus::Struct<int32_t, std::string>(started.session->display, started.session->xauthfile.string());
    });
}

std::string DBusService::vexaLoginHelperStarted(const int32_t& transportPid) {
    return boundary("vexaLoginHelperStarted", std::string(), [&] {
        info("%s: transport pid: %d", "vexaLoginHelperStarted", transportPid);
        const std::list<std::string> helperArgs{"--transport", std::to_string(transportPid)};
        return sessions.locked([&](const SessionRegistry::Map& map) {
            for (const auto& [id, session] : map) {
                if (session->loginMode && session->xsessionArgs == helperArgs && session->user) {
                    return session->user->name;
                }
            }
            return std::string();
        });
    });
}

void DBusService::vexaLoginHelperAllowConnectForTransportTo(const int32_t& transportPid, const int32_t& x11Display,
                                                            const std::string& xauthFile) {
    boundary("vexaLoginHelperAllowConnectForTransportTo", [&] {
        info("%s: transport pid: %d, display: %d, xauthfile: `%s'", "vexaLoginHelperAllowConnectForTransportTo",
             transportPid, x11Display, xauthFile.c_str());
        startWorker([this, transportPid, x11Display, xauthFile] {
            emitSignal("signalTransportDisplaySwitchTo",
                       [&] { emitSignalTransportDisplaySwitchTo(transportPid, x11Display, xauthFile); });
        });
    });
}

bool DBusService::vexaTransportPolicyShowLoginHelper() {
    return boundary("vexaTransportPolicyShowLoginHelper", false, [this] { return defaults().loginHelper; });
}

bool DBusService::vexaLoginHelperPolicyShowSessions() {
    return boundary("vexaLoginHelperPolicyShowSessions", false, [this] { return defaults().loginSessions; });
}

bool DBusService::vexaLoginHelperPolicyShowKeyboard() {
    return boundary("vexaLoginHelperPolicyShowKeyboard", false, [this] { return defaults().loginKeyboard; });
}

} // namespace Vexa
