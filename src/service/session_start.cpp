// The start of a session: admission, the session record, the session manager process, and the waits for
// systemd-logind and for the session's own bus.

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <systemd/sd-login.h>

#include "common/process.h"
#include "common/utils.h"
#include "common/vexa_error.h"
#include "dbus_service.h"
#include "limits/systemctl.h"
#include "start/pam_service.h"
#include "start/session_manager.h"
#include "start/xserver.h"

namespace Vexa {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr const char* self = "startSession";
constexpr int auditUserLogin = 1198;

// Fixed limits of a session that shows the login screen.
constexpr uint32_t loginDurationLimit = 300;
constexpr uint32_t loginInactivityLimit = 60;
constexpr uint32_t loginDisconnectLimit = 30;

struct CFree {
    void operator()(char* text) const noexcept { std::free(text); }
};
using CText = std::unique_ptr<char, CFree>;

// The environment of the session manager: the daemon's own, without what belongs to the service manager's
// conversation with the daemon.
std::vector<std::string> sessionManagerEnvironment() {
    std::vector<std::string> env;
    for (char** entry = environ; entry && *entry; ++entry) {
        const std::string_view text(*entry);
        if (!text.starts_with("NOTIFY_SOCKET=") && !text.starts_with("LISTEN_") && !text.starts_with("WATCHDOG_")) {
            env.emplace_back(text);
        }
    }
    return env;
}

bool sendAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        text.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

std::string readAddress(const fs::path& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

} // namespace

uint32_t DBusService::nextSessionId(const SessionRegistry::Map& map) {
    // Ids are handed out in turn from a counter that lives as long as the service, skipping 0 and every id
    // still registered; a session id is therefore not reused while the service runs unless the counter wraps.
    // The logind session number is not used: it is known only after the record is registered.
    do {
        ++lastSessionId;
    } while (lastSessionId == 0 || map.contains(lastSessionId));
    return lastSessionId;
}

StartSessionResult DBusService::startSession(const StartSessionArgs& args) {
    notice("%s: depth: %u, width: %u, height: %u, username: `%s', session: `%s'", self, args.depth, args.width,
           args.height, args.user.c_str(), args.sessionName.c_str());
    try {
        return startSessionSteps(args);
    } catch (const std::system_error& err) {
        error("%s: system error: %s", self, err.what());
    } catch (const std::exception& err) {
        error("%s: exception: %s", self, err.what());
    }
    return {nullptr, StartStatus::StartFailed};
}

StartSessionResult DBusService::startSessionSteps(const StartSessionArgs& args) {
    // A user session is never opened on the strength of a bus call alone: the caller proves the user with a
    // password (checked by PAM) or with a transport token that was already accepted.
    if (args.mode != RunMode::LoginHelper && !args.noauth && !args.password) {
        error("%s: no password and no accepted transport token, user: %s", self, args.user.c_str());
        return {nullptr, StartStatus::StartFailed};
    }
    const auto config = configuration();
    const auto defs = defaults();

    AdmissionPolicy policy;
    policy.sessionsLimit = apiSessionsLimit.load() ? static_cast<int32_t>(apiSessionsLimit.load())
                                                   : config->getInteger("sessions:limit", 1000);
    policy.usersLimit = config->getInteger("users:limit", 200);
    policy.apiUsersLimit = apiUsersLimit.load();
    if (config->hasValue("groups:allow")) {
        policy.groupsAllow = config->getVectorList("groups:allow");
    }
    policy.shadowPolicy = defs.shadowPolicy;
    const auto lookups = AdmissionLookups::system();
    const AdmissionRequest request{args.user, args.sessionName, args.mode};
    const auto runtimeTemplate = config->getString("runtime:xdg", "/run/user/%{uid}");

    // One critical section from admission to registration: the limits, the reuse lookup and the display
    // choice all see the same registry, and the chosen display is taken before anyone else can choose it.
    StartStatus status = StartStatus::Success;
    SessionPtr session;
    bool reused = false;
    sessions.locked([&](SessionRegistry::Map& map) {
        std::vector<RegisteredSession> registered;
        std::vector<int32_t> displays;
        for (const auto& [id, entry] : map) {
            registered.push_back(
                {id, entry->user ? entry->user->name : std::string(), entry->xsessionName, entry->display});
            displays.push_back(entry->display);
        }
        auto admitted = admitAccount(request, registered, policy, lookups);
        status = admitted.status;
        if (status != StartStatus::Success) {
            return;
        }
        if (admitted.reuse) {
            session = map.at(*admitted.reuse);
            reused = true;
            return;
        }
        if (args.mode != RunMode::LoginHelper && policy.shadowPolicy) {
            status = checkShadowPolicy(args.user, lookups, daysSinceEpoch());
            if (status != StartStatus::Success) {
                return;
            }
        }

        // Sessions of one user share one user record.
        std::shared_ptr<UserEx> user;
        for (const auto& [id, entry] : map) {
            if (entry->user && entry->user->name == args.user) {
                user = entry->user;
                break;
            }
        }
        if (!user) {
            user = std::make_shared<UserEx>(*admitted.user);
            user->runtimedir = Utils::stringReplace(runtimeTemplate, "%{uid}", std::to_string(user->uid));
        }
        user->domain = args.domain;

        session = std::make_shared<Session>(nextSessionId(map), user, defs);
        session->display = static_cast<int32_t>(chooseDisplay(defs.displayStart, displays));
        session->xsessionName = args.sessionName;
        session->xsessionProg = args.program;
        session->xsessionArgs = args.args;
        if (args.mode == RunMode::LoginHelper) {
            session->loginMode = true;
            session->durationLimit = loginDurationLimit;
            session->inactivityLimit = loginInactivityLimit;
            session->disconnectLimit = loginDisconnectLimit;
        }
        map.emplace(session->sid, session);
    });

    if (status != StartStatus::Success) {
        return {nullptr, status};
    }
    if (reused) {
        // The running session is handed out only to a caller who proves the user again.
        if (args.password &&
            !PamService(config->getString("pam:service", "vexa"), args.user, *args.password).checkAuthenticate()) {
            error("%s: pam checkAuthenticate failed, user: %s", self, args.user.c_str());
            return {nullptr, StartStatus::StartFailed};
        }
        reuseSession(*session, config->getString("xauth:group", "vexa-xauth"));
        return {session, StartStatus::Success};
    }

    // From here on the session is registered: a refusal takes it out again, and its destructor ends what was
    // started for it.
    StartSessionResult result{nullptr, StartStatus::StartFailed};
    try {
        if (launchSession(session, args, *config, defs)) {
            result = waitSessionStarted(session, defs.startTimeout);
        }
    } catch (...) {
        sessions.remove(session->sid);
        throw;
    }
    if (!result.session) {
        sessions.remove(session->sid);
    }
    return result;
}

void DBusService::reuseSession(Session& session, const std::string& xauthGroup) {
    session.sessionFreeze(false);
    // The display keeps its size: the X server was started with the size of the first request.
    std::error_code ec;
    fs::permissions(session.xauthfile, fs::perms(0640), fs::perm_options::replace, ec);
    Utils::setOwner(session.xauthfile, session.user ? session.user->name : std::string(), xauthGroup);
    debug("%s: ref count user session id: %u", self, static_cast<unsigned>(session.user.use_count()));
}

bool DBusService::launchSession(const SessionPtr& session, const StartSessionArgs& args, const JsonConfig& config,
                                const ServiceDefaults& defs) {
    const auto& user = *session->user;
    const auto display = static_cast<uint32_t>(session->display);

    std::error_code ec;
    if (!fs::is_directory(user.runtimedir, ec)) {
        const bool made = fs::create_directories(user.runtimedir, ec);
        if (!made || ec ||
            chown(user.runtimedir.c_str(), static_cast<uid_t>(user.uid), static_cast<gid_t>(user.gid)) != 0 ||
            chmod(user.runtimedir.c_str(), 0700) != 0) {
            error("%s: create xdg directory failed, path: %s", self, user.runtimedir.c_str());
            return false;
        }
    }

    session->xauthfile = createXauthFile(display, user.name);

    SessionManagerPlan plan;
    plan.sessionId = session->sid;
    plan.user = user.name;
    plan.pamService = args.noauth ? "vexa-noauth" : config.getString("pam:service", "vexa");
    plan.password = args.password;
    plan.display = display;
    plan.xauthfile = session->xauthfile;
    plan.runtimeDir = user.runtimedir;
    plan.dbusSessionFile = session->dbusSessionPath();
    const auto cookie = Utils::readXauthfile(session->xauthfile);
    plan.cookie = Utils::hexRange(cookie.data(), cookie.data() + cookie.size());
    plan.depth = args.depth;
    plan.width = args.width;
    plan.height = args.height;
    plan.xorgPath = config.getString("xvfb:path", "/usr/bin/Xorg");
    plan.xorgArgs = config.getStringList("xvfb:args");
    plan.xorgSocket = config.getString("xvfb:sock", "/tmp/.X11-unix/X%{display}");
    plan.onScreenKeyboard = session->loginMode && defs.loginKeyboard;
    plan.debugLevel = defs.debugLevel;

    if (config.getBoolean("mivo:enable")) {
        warning("%s: profile disks are not supported here, user: %s", self, user.name.c_str());
    }

    session->startedTimepoint = std::chrono::system_clock::now();
    sessionLoadState(session.get());
    systemctlResetAllUserProperties(static_cast<uid_t>(user.uid));

    plan.program = args.program;
    plan.args = args.args;
    if (plan.program.empty()) {
        // No program asked for: the kiosk, unless it is switched off.
        if (config.getBoolean("helper:kiosk:disable")) {
            error("%s: no session program, kiosk disabled, user: %s", self, user.name.c_str());
            return false;
        }
        plan.program = config.getString("helper:kiosk", "/usr/libexec/vexa/vexa_kiosk");
        plan.args.clear();
    }

    auto [pid, waiter] = runSessionManager(session.get(), plan);
    sessions.locked([&session, pid = pid](SessionRegistry::Map&) { session->pid2 = pid; });
    {
        std::lock_guard guard(children.lock);
        children.entries.push_back(ChildEntry{pid, waiter.share()});
    }
    return true;
}

std::pair<pid_t, std::future<int>> DBusService::runSessionManager(const Session* session,
                                                                  const SessionManagerPlan& plan) {
    if (!session) {
        error("%s: session null", "runSessionManager");
        throw std::runtime_error("runSessionManager: session null");
    }
    std::string text = encodePlan(plan);
    const auto envStrings = sessionManagerEnvironment();
    std::vector<const char*> envp;
    envp.reserve(envStrings.size() + 1);
    for (const auto& entry : envStrings) {
        envp.push_back(entry.c_str());
    }
    envp.push_back(nullptr);
    const char* const argv[] = {sessionManagerProgram, nullptr};

    int channel[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0) {
        const int err = errno;
        explicit_bzero(text.data(), text.size());
        error("%s: %s failed, error: %s, code: %d", "runSessionManager", "socketpair", Utils::errnoText(err).c_str(),
              err);
        throw vexa_error("runSessionManager");
    }
    const pid_t pid = fork();
    if (pid == 0) {
        // Only async-signal-safe calls until the new program runs.
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        signal(SIGPIPE, SIG_DFL);
        if (dup2(channel[1], STDIN_FILENO) < 0) {
            _exit(127);
        }
        close_range(3, ~0U, 0);
        execve(argv[0], const_cast<char* const*>(argv), const_cast<char* const*>(envp.data()));
        _exit(127);
    }
    const int forkErr = errno;
    close(channel[1]);
    if (pid < 0) {
        close(channel[0]);
        explicit_bzero(text.data(), text.size());
        error("%s: %s failed, error: %s, code: %d", "runSessionManager", "fork", Utils::errnoText(forkErr).c_str(),
              forkErr);
        throw vexa_error("runSessionManager");
    }
    // The plan (password included) goes through the socket only; a session manager that died early makes
    // this fail, and the logind wait then sees it gone.
    sendAll(channel[0], text);
    explicit_bzero(text.data(), text.size());
    close(channel[0]);
    return {pid, Utils::waitChildBack(pid)};
}

StartSessionResult DBusService::waitSessionStarted(const SessionPtr& session, uint32_t startTimeout) {
    const auto display = static_cast<uint32_t>(session->display);
    const pid_t pid2 = session->pid2;

    // systemd-logind knows the session once the PAM session of the session manager is open.
    const auto begin = std::chrono::steady_clock::now();
    CText sid;
    while (true) {
        char* text = nullptr;
        const int res = sd_pid_get_session(pid2, &text);
        if (res >= 0) {
            sid.reset(text);
            break;
        }
        if (res != -ENODATA) {
            error("%s: %s failed, error: %s, code: %d", self, "sd_pid_get_session", Utils::errnoText(-res).c_str(),
                  -res);
            return {nullptr, StartStatus::StartFailed};
        }
        if (std::chrono::steady_clock::now() - begin > std::chrono::seconds(startTimeout)) {
            error("%s: systemd failed, display: %u, expired start session timeout: u", self, display);
            return {nullptr, StartStatus::StartFailed};
        }
        std::this_thread::sleep_for(50ms);
    }

    const std::string sidText(sid.get());
    const int number = std::stoi(sidText);
    // The slice and the cgroup only warn when logind cannot tell them.
    const auto query = [pid2](int (*get)(pid_t, char**), const char* call) {
        char* text = nullptr;
        if (const int res = get(pid2, &text); res < 0) {
            warning("%s: %s failed, error: %s, code: %d", self, call, Utils::errnoText(-res).c_str(), -res);
            return std::string();
        }
        const CText owned(text);
        return std::string(owned.get());
    };
    const auto slice = query(sd_pid_get_slice, "sd_pid_get_user_slice");
    const auto cgroup = query(sd_pid_get_cgroup, "sd_pid_get_cgroup");
    sessions.locked([&](SessionRegistry::Map&) {
        session->systemdSid = sidText;
        session->systemdSessionNumber = static_cast<uint32_t>(number);
        session->systemdSlice = slice;
        session->systemdCgroup = cgroup;
    });
    notice("%s: session id: %u, display: %u", self, static_cast<uint32_t>(number), display);
    if (!slice.empty()) {
        info("%s: session id: %u, display: %u, systemd user slice: %s", self, session->sid, display, slice.c_str());
    }
    if (!cgroup.empty()) {
        info("%s: session id: %u, display: %u, systemd cgroup: %s", self, session->sid, display, cgroup.c_str());
    }

    auditUserMessage(display, "", auditUserLogin, "VEXA:SessionLogin", session->user->name, true);

    // The session script writes the address of the session's bus once the bus is up.
    const auto busFile = session->dbusSessionPath();
    std::string address;
    const auto busBegin = std::chrono::steady_clock::now();
    while (true) {
        if (!Utils::processRunning(pid2)) {
            warning("%s: Session not running, session id: %u, display: %u, session: `%s'", self, session->sid, display,
                    session->xsessionName.c_str());
            break;
        }
        std::error_code ec;
        if (fs::exists(busFile, ec)) {
            address = readAddress(busFile);
            break;
        }
        if (std::chrono::steady_clock::now() - busBegin > 5s) {
            warning("%s: DBUS failed, get session timeout, session id: %u, display: %u", self, session->sid, display);
            break;
        }
        std::this_thread::sleep_for(100ms);
    }
    if (!address.empty()) {
        sessions.locked([&](SessionRegistry::Map&) { session->dbusAddress = address; });
    }
    debug("%s: session id: %u, display: %u, dbus address: `%s'", self, session->sid, display,
          address.empty() ? "NOT FOUND" : address.c_str());

    // Limits of the limits file and the announcement, off the caller's thread.
    startWorker([this, session] {
        std::this_thread::sleep_for(100ms);
        applyFileLimits(session);
        emitSignal("signalSessionCreated", [this, &session] { emitSignalSessionCreated(session->sid); });
    });

    return {session, StartStatus::Success};
}

} // namespace Vexa
