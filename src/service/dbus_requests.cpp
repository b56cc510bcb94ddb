// Session requests from transports and administrators, and the login helper.

#include <chrono>
#include <cstring>
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

std::string DBusService::callerName() const {
    const auto* message = getObject().getCurrentlyProcessedMessage();
    return message ? message->getSender() : std::string();
}

WorkPool::Clock::time_point DBusService::throttleSlot(const char* method, const std::string& user,
                                                      const std::string& caller) {
    const auto now = WorkPool::Clock::now();
    const auto slot = throttle.admit(user, caller, now);
    if (slot.notBefore > now) {
        const auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(slot.notBefore - now);
        counters.throttled(Metrics::Throttle::Password);
        notice("%s: throttled, user: %s, caller: %s, failures: %u, delayed: %u ms", method, user.c_str(),
               caller.c_str(), slot.failures, static_cast<unsigned>(delay.count()));
    }
    return slot.notBefore;
}

void DBusService::throttleOutcome(const std::string& user, const std::string& caller, bool accepted) {
    if (accepted) {
        if (throttle.succeeded(user, caller)) {
            notice("%s: released, user: %s, caller: %s", "authThrottle", user.c_str(), caller.c_str());
        }
        return;
    }
    const auto failure = throttle.failed(user, caller, AuthThrottle::Clock::now());
    if (failure.engaged) {
        const auto defs = defaults();
        warning("%s: engaged, user: %s (%u failures), caller: %s (%u failures), further logins delayed by %u s, "
                "doubling up to %u s",
                "authThrottle", user.c_str(), failure.userFailures, caller.c_str(), failure.callerFailures,
                defs.throttleDelay, defs.throttleDelayMax);
    }
}

int32_t DBusService::requestSession(const StartSessionArgs& args, const std::string& caller, SessionPtr& session) {
    const auto begin = std::chrono::steady_clock::now();
    const auto started = startSession(args);
    if (args.password && (started.session || started.authFailed)) {
        throttleOutcome(args.user, caller, !started.authFailed);
    }
    const auto count = [&](Metrics::StartOutcome outcome) {
        counters.startFinished(outcome, std::chrono::steady_clock::now() - begin);
    };
    if (started.status != StartStatus::Success) {
        const bool limits = started.status == StartStatus::FullHouse || started.status == StartStatus::PolicyRefused ||
                            started.status == StartStatus::NotAllowed;
        count(started.authFailed ? Metrics::StartOutcome::WrongPassword
              : limits           ? Metrics::StartOutcome::Refused
                                 : Metrics::StartOutcome::Failed);
        return sessionRequestReply(started.status);
    }
    if (!started.session) {
        count(Metrics::StartOutcome::Failed);
        return noSession;
    }
    if (!sessionCheckPolicyConnection(*started.session)) {
        count(Metrics::StartOutcome::Refused);
        return connectRefused;
    }
    count(Metrics::StartOutcome::Success);
    session = started.session;
    return 0;
}

void DBusService::allowConnection(const Session& session) {
    const auto sid = session.sid;
    const auto uid = static_cast<uint32_t>(session.user->uid);
    emitSignal("signalProxyAllowConnection", [this, sid, uid] { emitSignalProxyAllowConnection(sid, uid); });
}

int32_t DBusService::requestAllowedSession(const StartSessionArgs& args, const std::string& caller) {
    SessionPtr session;
    if (const int32_t reply = requestSession(args, caller, session); reply != 0) {
        return reply;
    }
    allowConnection(*session);
    return static_cast<int32_t>(session->sid);
}

void DBusService::busSessionRequestAuthorized(sdbus::Result<int32_t>&& result, std::string user, std::string pass,
                                              uint8_t depth, uint16_t width, uint16_t height) {
    const char* self = "busSessionRequest";
    answerAsync(self, std::move(result), requestFailed, [&](const ReplyPtr<int32_t>& reply) {
        notice("%s: user: %s, depth: %u, width: %u, height: %u", self, user.c_str(), depth, width, height);
        auto args = defaultSessionArgs(user, pass, depth, width, height);
        const auto caller = callerName();
        replyFromWorker(
            self, reply, requestFailed,
            [this, args = std::move(args), caller] { return requestAllowedSession(args, caller); },
            throttleSlot(self, user, caller));
    });
}

void DBusService::busSessionRequest(sdbus::Result<int32_t>&& result, std::string user, std::string pass, uint8_t depth,
                                    uint16_t width, uint16_t height) {
    authorizedCallOr("busSessionRequest", std::move(result), {requestFailed}, &DBusService::busSessionRequestAuthorized,
                     std::move(user), std::move(pass), depth, width, height);
}

void DBusService::busSessionDomainRequestAuthorized(sdbus::Result<int32_t>&& result, std::string user,
                                                    std::string domain, std::string pass, uint8_t depth, uint16_t width,
                                                    uint16_t height) {
    const char* self = "busSessionDomainRequest";
    answerAsync(self, std::move(result), requestFailed, [&](const ReplyPtr<int32_t>& reply) {
        notice("%s: user: %s, domain: `%s', depth: %u, width: %u, height: %u", self, user.c_str(), domain.c_str(),
               depth, width, height);
        auto args = defaultSessionArgs(user, pass, depth, width, height);
        args.domain = domain;
        const auto caller = callerName();
        replyFromWorker(
            self, reply, requestFailed,
            [this, args = std::move(args), caller] { return requestAllowedSession(args, caller); },
            throttleSlot(self, user, caller));
    });
}

void DBusService::busSessionDomainRequest(sdbus::Result<int32_t>&& result, std::string user, std::string domain,
                                          std::string pass, uint8_t depth, uint16_t width, uint16_t height) {
    authorizedCallOr("busSessionDomainRequest", std::move(result), {requestFailed},
                     &DBusService::busSessionDomainRequestAuthorized, std::move(user), std::move(domain),
                     std::move(pass), depth, width, height);
}

int32_t DBusService::finishSessionRequest(const StartSessionArgs& args, const SessionRequest& request,
                                          const std::string& caller) {
    const char* self = "vexaSessionRequest";
    SessionPtr session;
    if (const int32_t reply = requestSession(args, caller, session); reply != 0) {
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
    if (request.transportRun) {
        allowConnection(*session);
    }
    return static_cast<int32_t>(session->sid);
}

void DBusService::vexaSessionRequestAuthorized(sdbus::Result<int32_t>&& result, std::string params) {
    const char* self = "vexaSessionRequest";
    answerAsync(self, std::move(result), requestFailed, [&](const ReplyPtr<int32_t>& reply) {
        // Parsing and the token check are quick: they run here, so their log lines keep their place.
        auto parsed = parseSessionRequest(params, [this](std::string_view name) { return programs.find(name); });
        explicit_bzero(params.data(), params.size());
        if (!parsed.request) {
            sendReply(self, *reply, parsed.reply);
            return;
        }
        auto& request = *parsed.request;
        const auto caller = callerName();
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
                throttleOutcome(request.username, caller, false);
                sendReply(self, *reply, requestFailed);
                return;
            }
            args.noauth = true;
            break;
        }
        case AuthMode::None:
            break;
        }
        const auto notBefore = args.password ? throttleSlot(self, args.user, caller) : WorkPool::Clock::time_point{};
        replyFromWorker(
            self, reply, requestFailed,
            [this, args = std::move(args), request = std::move(request), caller]() mutable {
                const int32_t answer = finishSessionRequest(args, request, caller);
                if (args.password) {
                    explicit_bzero(args.password->data(), args.password->size());
                }
                return answer;
            },
            notBefore);
    });
}

void DBusService::vexaSessionRequest(sdbus::Result<int32_t>&& result, std::string params) {
    authorizedCallOr("vexaSessionRequest", std::move(result), {requestFailed},
                     &DBusService::vexaSessionRequestAuthorized, std::move(params));
}

void DBusService::busProgramRequestAuthorized(sdbus::Result<int32_t>&& result, std::string user, std::string domain,
                                              std::string pass, uint16_t width, uint16_t height, std::string prog) {
    const char* self = "busProgramRequest";
    answerAsync(self, std::move(result), requestFailed, [&](const ReplyPtr<int32_t>& reply) {
        notice("%s: user: %s, domain: `%s', width: %u, height: %u, program: `%s'", self, user.c_str(), domain.c_str(),
               width, height, prog.c_str());
        const auto program = programs.find(prog);
        if (!program) {
            error("%s: program not registered, name: %s", self, prog.c_str());
            sendReply(self, *reply, programUnknown);
            return;
        }
        auto args = defaultSessionArgs(user, pass, 24, width, height);
        args.domain = domain;
        args.program = program->path.string();
        args.args = program->args;
        // A published program is a session of its own kind, reused like any user session of the same name.
        args.mode = RunMode::UserSession;
        const auto caller = callerName();
        replyFromWorker(
            self, reply, requestFailed,
            [this, args = std::move(args), caller] { return requestAllowedSession(args, caller); },
            throttleSlot(self, user, caller));
    });
}

void DBusService::busProgramRequest(sdbus::Result<int32_t>&& result, std::string user, std::string domain,
                                    std::string pass, uint16_t width, uint16_t height, std::string prog) {
    authorizedCallOr("busProgramRequest", std::move(result), {requestFailed}, &DBusService::busProgramRequestAuthorized,
                     std::move(user), std::move(domain), std::move(pass), width, height, std::move(prog));
}

void DBusService::vexaLoginAuthorized(sdbus::Result<bool>&& result, std::string user, std::string domain,
                                      std::string pass) {
    const char* self = "vexaLogin";
    answerAsync(self, std::move(result), false, [&](const ReplyPtr<bool>& reply) {
        notice("%s: user: %s, domain: `%s'", self, user.c_str(), domain.c_str());
        auto args = defaultSessionArgs(user, pass, 24, 1280, 1024);
        args.domain = domain;
        const auto caller = callerName();
        replyFromWorker(
            self, reply, false,
            [this, args = std::move(args), caller] {
                SessionPtr session;
                return requestSession(args, caller, session) == 0;
            },
            throttleSlot(self, user, caller));
    });
}

void DBusService::vexaLogin(sdbus::Result<bool>&& result, std::string user, std::string domain, std::string pass) {
    authorizedCall("vexaLogin", std::move(result), &DBusService::vexaLoginAuthorized, std::move(user),
                   std::move(domain), std::move(pass));
}

void DBusService::vexaTestConnectAuthorized(sdbus::Result<bool>&& result, std::string user, std::string domain,
                                            std::string pass) {
    const char* self = "vexaTestConnect";
    answerAsync(self, std::move(result), false, [&](const ReplyPtr<bool>& reply) {
        notice("%s: user: %s, domain: `%s'", self, user.c_str(), domain.c_str());
        const auto caller = callerName();
        replyPasswordCheck(self, reply, configuration()->getString("pam:service", "vexa"), user, std::move(pass),
                           caller);
    });
}

void DBusService::vexaTestConnect(sdbus::Result<bool>&& result, std::string user, std::string domain,
                                  std::string pass) {
    authorizedCall("vexaTestConnect", std::move(result), &DBusService::vexaTestConnectAuthorized, std::move(user),
                   std::move(domain), std::move(pass));
}

void DBusService::vexaLoginHelperStartAuthorized(sdbus::Result<sdbus::Struct<int32_t, std::string>>&& result,
                                                 std::string user, int32_t transportPid) {
    using Display = sdbus::Struct<int32_t, std::string>;
    const char* self = "vexaLoginHelperStart";
    const Display failed(-1, std::string());
    answerAsync(self, std::move(result), failed, [&](const ReplyPtr<Display>& reply) {
        info("%s: user: %s, transport pid: %d", self, user.c_str(), transportPid);
        StartSessionArgs args;
        args.user = user;
        args.sessionName = "LoginSession";
        args.program = configuration()->getString("helper:login", "/usr/libexec/vexa/vexa_login_helper");
        args.args = {"--transport", std::to_string(transportPid)};
        args.mode = RunMode::LoginHelper;
        replyFromWorker(self, reply, failed, [this, args = std::move(args)]() -> Display {
            const auto started = startSession(args);
            if (!started.session) {
                return {-1, std::string()};
            }
            return {started.session->display, started.session->xauthfile.string()};
        });
    });
}

void DBusService::vexaLoginHelperStart(sdbus::Result<sdbus::Struct<int32_t, std::string>>&& result, std::string user,
                                       int32_t transportPid) {
    authorizedCallOr("vexaLoginHelperStart", std::move(result), {{-1, std::string()}},
                     &DBusService::vexaLoginHelperStartAuthorized, std::move(user), transportPid);
}

std::string DBusService::vexaLoginHelperStarted(const int32_t& transportPid) {
    return serve("vexaLoginHelperStarted", std::string(), [&] {
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
    serve("vexaLoginHelperAllowConnectForTransportTo", [&] {
        info("%s: transport pid: %d, display: %d, xauthfile: `%s'", "vexaLoginHelperAllowConnectForTransportTo",
             transportPid, x11Display, xauthFile.c_str());
        // The transport leaves the login screen's session without ending: its slot there is freed without a
        // signal, so that the end of the login screen does not take the moved connection with it.
        sessions.locked([transportPid](SessionRegistry::Map& map) {
            for (const auto& [id, session] : map) {
                if (TransportInfo* slot = session->loginMode ? session->findConnectInfo(transportPid) : nullptr) {
                    slot->reset(true);
                }
            }
        });
        startWorker([this, transportPid, x11Display, xauthFile] {
            emitSignal("signalTransportDisplaySwitchTo",
                       [&] { emitSignalTransportDisplaySwitchTo(transportPid, x11Display, xauthFile); });
        });
    });
}

bool DBusService::vexaTransportPolicyShowLoginHelper() {
    return serve("vexaTransportPolicyShowLoginHelper", false, [this] { return defaults().loginHelper; });
}

bool DBusService::vexaLoginHelperPolicyShowSessions() {
    return serve("vexaLoginHelperPolicyShowSessions", false, [this] { return defaults().loginSessions; });
}

bool DBusService::vexaLoginHelperPolicyShowKeyboard() {
    return serve("vexaLoginHelperPolicyShowKeyboard", false, [this] { return defaults().loginKeyboard; });
}

} // namespace Vexa
