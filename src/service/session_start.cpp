// The start of a session, the service's side: the steps the starter (start/session_starter.h) leaves to it —
// the run-time directory, the X authority file, the session manager process — and the waits for systemd-logind
// and for the session's own bus. Every wait ends on an event (the session manager's note, logind's change, the
// session manager's end, a new file, the service's stop), not at the next step of a poll.

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <systemd/sd-login.h>

#include "common/events.h"
#include "common/globals.h"
#include "common/process.h"
#include "common/utils.h"
#include "common/vexa_error.h"
#include "dbus_service.h"
#include "limits/systemctl.h"
#include "start/session_manager.h"
#include "start/xserver.h"
#include "xcb/xauth_file.h"

namespace Vexa {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr const char* self = "startSession";

// However quiet the events, a wait looks again this often: a missed one costs no more than that.
constexpr auto recheck = 500ms;

struct CFree {
    void operator()(char* text) const noexcept { std::free(text); }
};
using CText = std::unique_ptr<char, CFree>;

struct MonitorUnref {
    void operator()(sd_login_monitor* monitor) const noexcept { sd_login_monitor_unref(monitor); }
};

// logind's changes of sessions, watched by the calling thread (a start worker) for its whole life: a monitor
// is an inotify instance, whose closing would cost every start some milliseconds. Null when logind cannot be
// watched (then the wait looks at every recheck). Emptied of what an earlier start of this thread left.
sd_login_monitor* sessionMonitor() {
    static thread_local const auto monitor = [] {
        sd_login_monitor* made = nullptr;
        return std::unique_ptr<sd_login_monitor, MonitorUnref>(sd_login_monitor_new("session", &made) < 0 ? nullptr
                                                                                                          : made);
    }();
    if (monitor) {
        sd_login_monitor_flush(monitor.get());
    }
    return monitor.get();
}

// The address in the session script's file, once its line is complete (ends in a newline); empty before.
std::string readAddress(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), {});
    const auto end = text.find('\n');
    return end == std::string::npos ? std::string() : text.substr(0, end);
}

} // namespace

StartSessionResult DBusService::startSession(const StartSessionArgs& args) {
    notice("%s: depth: %u, width: %u, height: %u, username: `%s', session: `%s'", self, args.depth, args.width,
           args.height, args.user.c_str(), args.sessionName.c_str());
    try {
        StartContext context;
        context.config = configuration();
        context.defaults = defaults();
        const auto& config = *context.config;
        context.policy.sessionsLimit = apiSessionsLimit.load() ? static_cast<int32_t>(apiSessionsLimit.load())
                                                               : config.getInteger("sessions:limit", 1000);
        context.policy.usersLimit = config.getInteger("users:limit", 200);
        context.policy.apiUsersLimit = apiUsersLimit.load();
        if (config.hasValue("groups:allow")) {
            context.policy.groupsAllow = config.getVectorList("groups:allow");
        }
        context.policy.shadowPolicy = context.defaults.shadowPolicy;
        context.policy.loginHelperUser = context.defaults.loginHelperUser;
        context.policy.rootLogin = context.defaults.rootLogin;
        context.lookups = AdmissionLookups::system();
        context.runtimeTemplate = config.getString("runtime:xdg", "/run/user/%{uid}");
        return starter.start(args, context);
    } catch (const std::system_error& err) {
        error("%s: system error: %s", self, err.what());
    } catch (const std::exception& err) {
        error("%s: exception: %s", self, err.what());
    }
    return {nullptr, StartStatus::StartFailed};
}

bool DBusService::checkPasswordWith(const std::string& service, const std::string& user, const std::string& password) {
    PasswordCheck check{user, service, password, defaults().debugLevel};
    const bool accepted = checkPasswordProcess(sessionManagerProgram, check, serviceStopFd());
    explicit_bzero(check.password.data(), check.password.size());
    return accepted;
}

bool DBusService::checkPassword(const std::string& user, const std::string& password, const StartContext& context) {
    return checkPasswordWith(context.config->getString("pam:service", "vexa"), user, password);
}

void DBusService::reuse(Session& session, const StartSessionArgs& args, const StartContext& context) {
    session.sessionFreeze(false);
    // A display that cannot take the new size keeps its own: the session is still handed out.
    if (const auto layout = requestedLayout(self, args.width, args.height)) {
        waitSessionGeometryUpdate(session, *layout);
    }
    std::error_code ec;
    fs::permissions(session.xauthfile, fs::perms(0640), fs::perm_options::replace, ec);
    Utils::setOwner(session.xauthfile, session.user ? session.user->name : std::string(),
                    context.config->getString("xauth:group", "vexa-xauth"));
    debug("%s: ref count user session id: %u", self, static_cast<unsigned>(session.user.use_count()));
}

StartSessionResult DBusService::launch(const SessionPtr& session, const StartSessionArgs& args,
                                       const StartContext& context) {
    SessionManagerPlan plan;
    if (!prepareSession(session, args, *context.config, context.defaults, plan)) {
        return {nullptr, StartStatus::StartFailed};
    }
    auto manager = runSessionManager(session.get(), plan);
    // Our child, not reaped before the reaper is told: the pid still names it.
    const auto managerStart = Utils::processStartTime(manager.pid).value_or(0);
    sessions.locked([&session, &manager, managerStart](SessionRegistry::Map&) {
        session->pid2 = manager.pid;
        session->pid2Start = managerStart;
        session->pid2fd = std::move(manager.pidfd);
    });
    {
        std::lock_guard guard(children.lock);
        children.entries.push_back(ChildEntry{manager.pid, manager.status});
    }
    return waitSessionStarted(session, manager, context.defaults.startTimeout);
}

bool DBusService::prepareSession(const SessionPtr& session, const StartSessionArgs& args, const JsonConfig& config,
                                 const ServiceDefaults& defs, SessionManagerPlan& plan) {
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
    if (struct stat status{}; ::stat(session->xauthfile.c_str(), &status) == 0) {
        session->xauthInode = status.st_ino;
    }
    // An address file left by a session of an earlier run of the service would be taken for this one's.
    fs::remove(session->dbusSessionPath(), ec);

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
    return true;
}

DBusService::SessionManagerProcess DBusService::runSessionManager(const Session* session,
                                                                  const SessionManagerPlan& plan) {
    if (!session) {
        error("%s: session null", "runSessionManager");
        throw std::runtime_error("runSessionManager: session null");
    }
    std::string text = encodePlan(plan);
    auto started = startSessionManagerProgram(sessionManagerProgram, {}, text);
    // Our own child cannot be reaped before the reaper is told about it: its pidfd names it for good.
    auto pidfd = Utils::processFd(started.pid);
    return {started.pid, Utils::waitChildBack(started.pid).share(), std::move(started.channel), std::move(pidfd)};
}

StartSessionResult DBusService::waitSessionStarted(const SessionPtr& session, SessionManagerProcess& manager,
                                                   uint32_t startTimeout) {
    const auto display = static_cast<uint32_t>(session->display);
    const pid_t pid2 = manager.pid;
    const auto ended = Utils::processFd(pid2);
    auto* const monitor = sessionMonitor();
    const auto failed = [](bool authFailed = false) {
        return StartSessionResult{nullptr, StartStatus::StartFailed, authFailed};
    };
    // The session manager ended before logind knew it (a refused password, a refused account, a failed PAM
    // session). It is reaped by now or soon; its pid is not asked about again, as it may be reused.
    const auto endedEarly = [&manager, &failed] {
        const int status = manager.status.get();
        error("%s: %s failed, error: %s, code: %d", self, "sd_pid_get_session", Utils::errnoText(ESRCH).c_str(), ESRCH);
        return failed(WIFEXITED(status) && WEXITSTATUS(status) == exitAuthFailed);
    };

    // systemd-logind knows the session once the session manager's PAM session is open; the session manager
    // says so on its channel. logind's own changes and the session manager's end wake the wait as well.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(startTimeout);
    CText sid;
    while (true) {
        char* text = nullptr;
        const int res = sd_pid_get_session(pid2, &text);
        if (res >= 0) {
            sid.reset(text);
            break;
        }
        if (res == -ESRCH) {
            // Ended between two looks, before its end woke the wait: the same outcome as that wake below (a
            // refused password must count as one for the throttle).
            return endedEarly();
        }
        if (res != -ENODATA) {
            error("%s: %s failed, error: %s, code: %d", self, "sd_pid_get_session", Utils::errnoText(-res).c_str(),
                  -res);
            return failed();
        }
        if (std::chrono::steady_clock::now() > deadline) {
            error("%s: systemd failed, display: %u, expired start session timeout: u", self, display);
            return failed();
        }
        const std::array<int, 4> fds{manager.channel.get(), monitor ? sd_login_monitor_get_fd(monitor) : -1,
                                     ended.get(), serviceStopFd()};
        const auto woken =
            Utils::waitReadable(fds, std::min(deadline + 1ms, std::chrono::steady_clock::now() + recheck));
        if (woken == 0) {
            char note[64];
            if (recv(manager.channel.get(), note, sizeof(note), MSG_DONTWAIT) <= 0) {
                manager.channel.reset(); // ended: a closed channel stays readable
            }
        } else if (woken == 1) {
            sd_login_monitor_flush(monitor);
        } else if (woken == 2) {
            return endedEarly();
        } else if (woken == 3) {
            error("%s: service stopping, session id: %u, display: %u", self, session->sid, display);
            return failed();
        }
    }
    manager.channel.reset();

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
    // From here on the session outlives the daemon: logind knows it, and so does its record.
    records.save(session);
    notice("%s: session id: %u, display: %u", self, static_cast<uint32_t>(number), display);
    if (!slice.empty()) {
        info("%s: session id: %u, display: %u, systemd user slice: %s", self, session->sid, display, slice.c_str());
    }
    if (!cgroup.empty()) {
        info("%s: session id: %u, display: %u, systemd cgroup: %s", self, session->sid, display, cgroup.c_str());
    }

    auditUserMessage(display, "", auditUserSession, "VEXA:SessionLogin", session->user->name, true);

    const auto address = waitSessionBus(session, ended.get());
    if (!address) {
        return failed();
    }
    if (!address->empty()) {
        sessions.locked([&](SessionRegistry::Map&) { session->dbusAddress = *address; });
    }
    debug("%s: session id: %u, display: %u, dbus address: `%s'", self, session->sid, display,
          address->empty() ? "NOT FOUND" : address->c_str());

    // Limits of the limits file and the announcement, off the caller's thread.
    startWorker(
        [this, session] {
            applyFileLimits(session);
            emitSignal("signalSessionCreated", [this, &session] { emitSignalSessionCreated(session->sid); });
        },
        100ms);

    return {session, StartStatus::Success};
}

std::optional<std::string> DBusService::waitSessionBus(const SessionPtr& session, int managerEnded) {
    const auto display = static_cast<uint32_t>(session->display);
    // The session script writes the address of the session's bus once the bus is up; a line without its
    // newline is still being written.
    const auto busFile = session->dbusSessionPath();
    std::string address;
    const auto found = [&] {
        address = readAddress(busFile);
        return !address.empty();
    };
    const std::array<int, 2> wake{managerEnded, serviceStopFd()};
    const auto waited = Utils::waitForPath(busFile, found, std::chrono::steady_clock::now() + 5s, wake, recheck);
    if (waited.outcome == Utils::PathWait::Timeout) {
        warning("%s: DBUS failed, get session timeout, session id: %u, display: %u", self, session->sid, display);
    } else if (waited.outcome == Utils::PathWait::Woken && waited.woken == 0) {
        warning("%s: Session not running, session id: %u, display: %u, session: `%s'", self, session->sid, display,
                session->xsessionName.c_str());
    } else if (waited.outcome == Utils::PathWait::Woken) {
        error("%s: service stopping, session id: %u, display: %u", self, session->sid, display);
        return std::nullopt;
    }
    return address;
}

} // namespace Vexa
