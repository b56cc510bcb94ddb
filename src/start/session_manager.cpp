#include "session_manager.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <grp.h>
#include <memory>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/globals.h"
#include "common/json_config.h"
#include "common/logger.h"
#include "common/process.h"
#include "common/utils.h"
#include "common/vexa_error.h"
#include "pam_service.h"
#include "session/session.h"
#include "xserver.h"

namespace Vexa {

namespace {

constexpr const char* self = "runSessionManager";

volatile sig_atomic_t stopRequested = 0;

Json::Value listValue(const std::list<std::string>& items) {
    Json::Value list(Json::arrayValue);
    for (const auto& item : items) {
        list.append(item);
    }
    return list;
}

const Json::Value& member(const Json::Value& json, const char* name, bool (Json::Value::*isType)() const) {
    const Json::Value* value = json.isObject() ? json.find(name, name + std::strlen(name)) : nullptr;
    if (!value || !(value->*isType)()) {
        throw vexa_error("decodePlan");
    }
    return *value;
}

std::list<std::string> stringList(const Json::Value& json, const char* name) {
    std::list<std::string> items;
    for (const auto& item : member(json, name, &Json::Value::isArray)) {
        if (!item.isString()) {
            throw vexa_error("decodePlan");
        }
        items.push_back(item.asString());
    }
    return items;
}

template <typename Number>
Number number(const Json::Value& json, const char* name, Number low, Number high) {
    const auto value = member(json, name, &Json::Value::isUInt).asUInt();
    if (value < low || value > high) {
        throw vexa_error("decodePlan");
    }
    return static_cast<Number>(value);
}

void logFailure(const char* call, int err) {
    Syslog::warning("%s: %s failed, error: %s, code: %d", self, call, Utils::errnoText(err).c_str(), err);
}

// Waits for the child; a stop request while waiting is passed on to it once as SIGTERM, and so is the end of
// `companion` (the X server the child's programs draw on), which is reaped here and reported in
// `companionEnded`. The stop signals and SIGCHLD stay blocked except inside sigsuspend, so a request that comes
// between the check and the wait still wakes the wait.
int waitChild(pid_t pid, bool forwardStop, pid_t companion = -1, bool* companionEnded = nullptr) {
    sigset_t wake;
    sigset_t previous;
    sigemptyset(&wake);
    for (const int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
        sigaddset(&wake, sig);
    }
    pthread_sigmask(SIG_BLOCK, &wake, &previous);
    sigset_t during = previous;
    for (const int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
        sigdelset(&during, sig);
    }
    int status = -1;
    bool forwarded = false;
    while (true) {
        if (companion > 0 && !*companionEnded) {
            int companionStatus = 0;
            if (waitpid(companion, &companionStatus, WNOHANG) == companion) {
                *companionEnded = true;
                Syslog::warning("%s: x server ended, pid: %d, the session ends", self, companion);
                Utils::syslogWaitStatus(companionStatus, self, companion);
                if (!forwarded) {
                    kill(pid, SIGTERM);
                    forwarded = true;
                }
            }
        }
        if (forwardStop && stopRequested && !forwarded) {
            kill(pid, SIGTERM);
            forwarded = true;
        }
        const pid_t ended = waitpid(pid, &status, WNOHANG);
        if (ended == pid) {
            break;
        }
        if (ended < 0 && errno != EINTR) {
            logFailure("waitpid", errno);
            status = -1;
            break;
        }
        sigsuspend(&during); // NOLINT(concurrency-mt-unsafe): the session manager has a single thread
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return status;
}

std::string joinCommand(const SessionManagerPlan& plan) {
    std::string text = std::string(xsessionScript) + " " + plan.program.string();
    for (const auto& arg : plan.args) {
        text += " " + arg;
    }
    return text;
}

} // namespace

void signalHandlerSessionManager(int sig) {
    // SIGCHLD only wakes the wait for a child.
    if (sig == SIGTERM || sig == SIGINT || sig == SIGHUP) {
        stopRequested = 1;
        // Also ends the waits that poll the stop descriptor (the X server's socket).
        requestServiceStop();
    }
}

std::string encodePlan(const SessionManagerPlan& plan) {
    Json::Value json(Json::objectValue);
    json["session"] = plan.sessionId;
    json["user"] = plan.user;
    json["pam:service"] = plan.pamService;
    if (plan.password) {
        json["password"] = *plan.password;
    }
    json["display"] = plan.display;
    json["xauthfile"] = plan.xauthfile.string();
    json["runtimedir"] = plan.runtimeDir.string();
    json["dbus:file"] = plan.dbusSessionFile.string();
    json["cookie"] = plan.cookie;
    json["depth"] = plan.depth;
    json["width"] = plan.width;
    json["height"] = plan.height;
    json["xvfb:path"] = plan.xorgPath.string();
    json["xvfb:args"] = listValue(plan.xorgArgs);
    json["xvfb:sock"] = plan.xorgSocket;
    json["program"] = plan.program.string();
    json["args"] = listValue(plan.args);
    json["keyboard"] = plan.onScreenKeyboard;
    json["debug:level"] = plan.debugLevel;
    return compactJson(json);
}

SessionManagerPlan decodePlan(std::string_view text) {
    const auto json = parseJsonStrict(text);
    const auto string = [&json](const char* name) { return member(json, name, &Json::Value::isString).asString(); };
    SessionManagerPlan plan;
    plan.sessionId = number<uint32_t>(json, "session", 1, UINT32_MAX);
    plan.user = string("user");
    plan.pamService = string("pam:service");
    if (json.isMember("password")) {
        plan.password = string("password");
    }
    plan.display = number<uint32_t>(json, "display", 0, INT32_MAX);
    plan.xauthfile = string("xauthfile");
    plan.runtimeDir = string("runtimedir");
    plan.dbusSessionFile = string("dbus:file");
    plan.cookie = string("cookie");
    plan.depth = number<uint8_t>(json, "depth", 0, UINT8_MAX);
    plan.width = number<uint16_t>(json, "width", 0, UINT16_MAX);
    plan.height = number<uint16_t>(json, "height", 0, UINT16_MAX);
    plan.xorgPath = string("xvfb:path");
    plan.xorgArgs = stringList(json, "xvfb:args");
    plan.xorgSocket = string("xvfb:sock");
    plan.program = string("program");
    plan.args = stringList(json, "args");
    plan.onScreenKeyboard = member(json, "keyboard", &Json::Value::isBool).asBool();
    plan.debugLevel = string("debug:level");
    if (plan.user.empty() || plan.pamService.empty() || plan.program.empty()) {
        throw vexa_error("decodePlan");
    }
    return plan;
}

std::string encodePasswordCheck(const PasswordCheck& check) {
    Json::Value json(Json::objectValue);
    json["user"] = check.user;
    json["pam:service"] = check.pamService;
    json["password"] = check.password;
    json["debug:level"] = check.debugLevel;
    return compactJson(json);
}

PasswordCheck decodePasswordCheck(std::string_view text) {
    const auto json = parseJsonStrict(text);
    const auto string = [&json](const char* name) { return member(json, name, &Json::Value::isString).asString(); };
    PasswordCheck check{string("user"), string("pam:service"), string("password"), string("debug:level")};
    if (check.user.empty() || check.pamService.empty()) {
        throw vexa_error("decodePasswordCheck");
    }
    return check;
}

int runPasswordCheck(const PasswordCheck& check) {
    PamService pam(check.pamService, check.user, check.password);
    return pam.checkAuthenticate() ? EXIT_SUCCESS : exitAuthFailed;
}

std::string pamTtyItem(uint32_t display) {
    return "X11:" + std::to_string(display);
}

std::list<std::string> sessionManagerEnvironment(const SessionManagerPlan& plan) {
    char sid[16];
    std::snprintf(sid, sizeof(sid), "%08x", plan.sessionId);
    std::list<std::string> env{
        std::string("VEXA_SESSION=") + sid,
        "XCB_AUTH_COOKIE=" + plan.cookie,
        "VEXA_DBUS_SESSION_FILE=" + plan.dbusSessionFile.string(),
    };
    if (plan.onScreenKeyboard) {
        env.emplace_back("QT_IM_MODULE=qtvirtualkeyboard");
    }
    return env;
}

int runSessionManagerProcess(SessionManagerPlan plan) {
    const auto account = Utils::getUserInfo(plan.user, false);
    if (!account) {
        Syslog::error("%s: user not found: `%s'", self, plan.user.c_str());
        return EXIT_FAILURE;
    }

    std::unique_ptr<PamService> pam;
    {
        const std::string password = plan.password.value_or(std::string());
        pam = std::make_unique<PamService>(plan.pamService, plan.user, password);
        if (plan.password) {
            explicit_bzero(plan.password->data(), plan.password->size());
        }
    }
    pam->setItem(PAM_TTY, pamTtyItem(plan.display));
    pam->setItem(PAM_XDISPLAY, ":" + std::to_string(plan.display));

    if (plan.password && !pam->checkAuthenticate()) {
        Syslog::error("%s: pam checkAuthenticate failed", self);
        return exitAuthFailed;
    }
    if (!pam->validateAccount()) {
        Syslog::error("%s: pam validateAccount failed", self);
        return EXIT_FAILURE;
    }
    if (chdir(account->home.c_str()) != 0 && chdir("/tmp") != 0) {
        logFailure("chdir", errno);
    }
    if (!pam->openSession()) {
        Syslog::error("%s: pam session failed", self);
        return EXIT_FAILURE;
    }
    // logind knows the session now: the daemon's wait for it need not wait for anything else. Standard input
    // then goes to /dev/null, so that nothing of the session inherits the daemon's socket.
    [[maybe_unused]] const auto noted =
        send(STDIN_FILENO, sessionOpenedNote.data(), sessionOpenedNote.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (const int null = open("/dev/null", O_RDONLY | O_CLOEXEC); null >= 0) {
        dup2(null, STDIN_FILENO);
        close(null);
    }
    if (initgroups(account->name.c_str(), static_cast<gid_t>(account->gid)) != 0) {
        logFailure("initgroups", errno);
    }
    if (stopRequested) {
        // Asked to stop while PAM was at work (the service stops during the start): no X server for nothing.
        pam->closeSession();
        return EXIT_FAILURE;
    }

    // The session record as the environment and the X server see it.
    auto user = std::make_shared<UserEx>(*account);
    user->runtimedir = plan.runtimeDir;
    Session session(plan.sessionId, user, ServiceDefaults{});
    session.display = static_cast<int32_t>(plan.display);
    session.xauthfile = plan.xauthfile;
    session.xsessionProg = plan.program.string();

    auto env = session.environments();
    env.splice(env.end(), pam->getEnvironments());
    env.splice(env.end(), sessionManagerEnvironment(plan));

    int result = EXIT_FAILURE;
    pid_t xorg = -1;
    bool xorgEnded = false;
    try {
        xorg = runXorgDisplay(&session, plan.xorgArgs, plan.xorgPath, env, plan.depth, plan.width, plan.height);
        waitXorgSocket(plan.xorgSocket, plan.display, xorg, serviceStopFd());
        if (!stopRequested) {
            // The server may start at a size of its own (Xorg's dummy driver does): the session's programs start
            // at the client's. A server that cannot take it keeps its size; the session still runs.
            const auto layout = Xcb::screenLayout(plan.width, plan.height);
            if (const auto* wanted = std::get_if<Xcb::Layout>(&layout); !wanted || !session.updateGeometry(*wanted)) {
                Syslog::error("%s: %s failed, display: %u, width: %u, height: %u", self, "waitSessionGeometryUpdate",
                              plan.display, plan.width, plan.height);
            }
            std::list<std::string> args{plan.program.string()};
            args.insert(args.end(), plan.args.begin(), plan.args.end());
            const pid_t child = Utils::runChildProcess(xsessionScript, args, env, plan.user.c_str(), nullptr);
            Syslog::info("%s: display: %u, username: %s, cmd: `%s', pid: %d", self, plan.display, plan.user.c_str(),
                         joinCommand(plan).c_str(), child);
            if (stopRequested) {
                kill(child, SIGTERM);
            }
            // A session whose display has gone has nothing left to show: it ends the ordinary way.
            const int status = waitChild(child, true, xorg, &xorgEnded);
            Utils::syslogWaitStatus(status, self, child);
            Syslog::debug("%s: wait pid: %d", self, child);
            result = EXIT_SUCCESS;
        }
    } catch (const std::exception& err) {
        Syslog::error("%s: exception: %s", self, err.what());
    }

    pam->closeSession();
    if (xorgEnded) {
        removeDeadServerFiles(plan.xorgSocket, plan.display, xorg);
    }
    if (xorg > 0 && !xorgEnded) {
        kill(xorg, SIGTERM);
        waitChild(xorg, false);
    }
    return result;
}

} // namespace Vexa
