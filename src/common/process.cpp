#include "process.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <future>
#include <mutex>
#include <thread>
#include <unordered_map>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "events.h"
#include "globals.h"
#include "logger.h"
#include "utils.h"
#include "vexa_error.h"

namespace Vexa::Utils {

namespace {

using namespace std::chrono_literals;

constexpr const char* devNull = "/dev/null";
constexpr auto pidFileTimeout = 60s;
// How long runChildProcess waits for its child to reach execve. Only the child's log lines depend on it: a
// child stuck before its exec (a hung home directory) must not hold the caller, and a concurrent fork in
// another thread may keep the report channel open until that other child execs.
constexpr auto execReportTimeout = 2s;

// Steps of a child between fork and execve, sent to the parent, which logs them: the child itself neither
// formats nor allocates, and after it has closed its descriptors it has no journal connection left.
enum class ChildStep : int32_t {
    Switching,       // switchToUser begins
    SetgroupsFailed, // value: errno
    ChdirFailed,     // value: errno
    SetgidFailed,    // value: errno
    SetuidFailed,    // value: errno
    Switched,        // value: uid, extra: gid
    Launching,       // output chosen, descriptors about to be closed
    ExecFailed,      // value: errno
};

struct ChildEvent {
    ChildStep step;
    int32_t value;
    int32_t extra;
};

bool isRootUser(const UserInfo& user) {
    return user.name == "root" || user.uid == 0;
}

bool programMissing(const std::filesystem::path& path) {
    std::error_code ec;
    const auto type = std::filesystem::status(path, ec).type();
    return type == std::filesystem::file_type::not_found || type == std::filesystem::file_type::none;
}

// The environment as the log shows it: the values of variables that carry a secret (the X cookie handed to a
// session, a password or a token) are replaced, since every log level reaches the journal.
std::list<std::string> loggableEnvs(const std::list<std::string>& envs) {
    static constexpr std::string_view secretNames[] = {"COOKIE", "PASSWORD", "PASSWD", "TOKEN", "SECRET"};
    std::list<std::string> shown;
    for (const auto& env : envs) {
        const auto name = std::string_view(env).substr(0, env.find('='));
        const bool secret = std::any_of(std::begin(secretNames), std::end(secretNames),
                                        [name](std::string_view word) { return name.find(word) != name.npos; });
        shown.push_back(secret && name.size() < env.size() ? std::string(name) + "=<hidden>" : env);
    }
    return shown;
}

std::string joinList(const std::list<std::string>& items) {
    std::string text;
    for (const auto& item : items) {
        if (!text.empty()) {
            text.append(", ");
        }
        text.append(item);
    }
    return text;
}

std::vector<const char*> processEnvironment() {
    std::vector<const char*> entries;
    for (char** entry = environ; entry && *entry; ++entry) {
        entries.push_back(*entry);
    }
    return entries;
}

// `inherited` minus every entry whose name is a byte prefix of some list entry (a plain prefix test: the list
// entry DISPLAYX=1 drops an inherited DISPLAY too), then the list, then null.
std::vector<const char*> mergeEnvironment(const std::vector<const char*>& inherited,
                                          const std::list<std::string>& envs) {
    std::vector<const char*> envp;
    envp.reserve(256);
    for (const char* entry : inherited) {
        const char* equals = std::strchr(entry, '=');
        if (!equals) {
            continue;
        }
        const std::string_view name(entry, static_cast<size_t>(equals - entry));
        if (std::any_of(envs.begin(), envs.end(), [name](const std::string& env) { return env.starts_with(name); })) {
            continue;
        }
        envp.push_back(entry);
    }
    for (const auto& env : envs) {
        envp.push_back(env.c_str());
    }
    envp.push_back(nullptr);
    return envp;
}

void logSwitchFailure(ChildStep step, int err) {
    const std::string text = errnoText(err);
    switch (step) {
    case ChildStep::SetgroupsFailed:
        Syslog::warning("%s: %s failed, error: %s, code: %d", "switchToUser", "setgroups", text.c_str(), err);
        break;
    case ChildStep::ChdirFailed:
        Syslog::warning("%s: %s failed, error: %s, code: %d", "switchToUser", "chdir", text.c_str(), err);
        break;
    case ChildStep::SetgidFailed:
        Syslog::error("%s: %s failed, error: %s, code: %d", "switchToUser", "setgid", text.c_str(), err);
        break;
    case ChildStep::SetuidFailed:
        Syslog::error("%s: %s failed, error: %s, code: %d", "switchToUser", "setuid", text.c_str(), err);
        break;
    default:
        break;
    }
}

void logSwitchStart(const UserInfo& user) {
    Syslog::debug("%s: user: %s, uid: %d, gid: %d, home: %s", "switchToUser", user.name.c_str(), user.uid, user.gid,
                  user.home.c_str());
    if (!isRootUser(user) && user.groups.empty()) {
        Syslog::warning("%s: empty groups, username: `%s'", "switchToUser", user.name.c_str());
    }
}

// Groups, directory, gid, uid: the order is fixed (the directory change needs the old privileges, the gid can
// only be set before the uid is dropped). Async-signal-safe; `report(step, errno)` hears of every failure.
// An empty group list still replaces the caller's supplementary groups, by the primary group alone: a
// program run as the user must keep none of root's groups.
template <typename Report>
bool changeIds(const UserInfo& user, const Report& report) {
    const gid_t primary = static_cast<gid_t>(user.gid);
    const int groupsSet =
        user.groups.empty() ? setgroups(1, &primary) : setgroups(user.groups.size(), user.groups.data());
    if (groupsSet != 0) {
        report(ChildStep::SetgroupsFailed, errno);
    }
    if (chdir(user.home.c_str()) != 0) {
        report(ChildStep::ChdirFailed, errno);
    }
    if (setgid(static_cast<gid_t>(user.gid)) != 0) {
        report(ChildStep::SetgidFailed, errno);
        return false;
    }
    if (setuid(static_cast<uid_t>(user.uid)) != 0) {
        report(ChildStep::SetuidFailed, errno);
        return false;
    }
    return true;
}

// Everything a child needs, made before fork(). Holds pointers into itself, so it is never copied or moved.
struct ChildPlan {
    ChildPlan(const std::filesystem::path& program, const std::list<std::string>& args,
              const std::list<std::string>& envs, const UserInfo* owner, const char* logfile)
        : path(program.string()), user(owner), switchUser(owner && getuid() == 0),
          changesIds(switchUser && !isRootUser(*owner)), envsText(joinList(loggableEnvs(envs))) {
        if (logfile) {
            output = logfile;
        } else if (user) {
            const auto log = userOutputLog(*user, program);
            output = log.string();
            userLogDir = log.parent_path().string();
        }
        argv = createARGV(path.c_str(), args);

        auto inherited = processEnvironment();
        if (changesIds) {
            // What switchToUser's setenv calls would leave: each variable replaced in place, or appended.
            const std::pair<std::string_view, std::string_view> vars[] = {
                {"USER", user->name},   {"LOGNAME", user->name}, {"HOME", user->home},
                {"SHELL", user->shell}, {"TERM", "linux"},
            };
            userEnv.reserve(std::size(vars)); // no reallocation: `inherited` points into these strings
            for (const auto& var : vars) {
                const std::string_view name = var.first;
                const auto& entry = userEnv.emplace_back(std::string(name).append("=").append(var.second));
                const auto found = std::find_if(inherited.begin(), inherited.end(), [name](const char* env) {
                    return std::strncmp(env, name.data(), name.size()) == 0 && env[name.size()] == '=';
                });
                if (found != inherited.end()) {
                    *found = entry.c_str();
                } else {
                    inherited.push_back(entry.c_str());
                }
            }
        }
        envp = mergeEnvironment(inherited, envs);
    }

    ChildPlan(const ChildPlan&) = delete;
    ChildPlan& operator=(const ChildPlan&) = delete;

    std::string path;
    const UserInfo* user;
    bool switchUser;                  // root starts it for a user: switchToUser runs in the child
    bool changesIds;                  // ... and that user is not root: groups, directory, gid and uid change
    std::string output = devNull;     // standard output and error of the program
    std::string userLogDir;           // the per-user log directory, when `output` is the per-user log
    std::vector<std::string> userEnv; // the user's variables, referred to by `envp`
    std::vector<const char*> argv;
    std::vector<const char*> envp;
    std::string envsText; // the environment list, joined for the log
};

void logChildStart(const ChildPlan& plan, pid_t pid, uid_t uid) {
    Syslog::debug("%s: cmd: `%s', owner: `%s', pid: %d, process uid: %d", "runOwnerCommand", plan.path.c_str(),
                  plan.user ? plan.user->name.c_str() : "(null)", pid, static_cast<int>(uid));
}

void logChildEvent(const ChildPlan& plan, const ChildEvent& event) {
    switch (event.step) {
    case ChildStep::Switching:
        if (plan.user) {
            logSwitchStart(*plan.user);
        }
        break;
    case ChildStep::Switched:
        Syslog::debug("%s: switched user: %s, current uid: %d, gid: %d", "runOwnerCommand",
                      plan.user ? plan.user->name.c_str() : "", event.value, event.extra);
        break;
    case ChildStep::Launching:
        Syslog::debug("%s: add session envs: [ %s ]", "runOwnerCommand", plan.envsText.c_str());
        break;
    case ChildStep::ExecFailed:
        Syslog::error("%s: %s failed, error: %s, code: %d", "runOwnerCommand", "execv", errnoText(event.value).c_str(),
                      event.value);
        break;
    default:
        logSwitchFailure(event.step, event.value);
        break;
    }
}

// Where the child's steps go: the parent's channel, or, for a caller that forked on its own
// (runOwnerCommand called directly), straight to the log.
class ChildReport {
public:
    ChildReport(int fd, const ChildPlan& plan) : fd_(fd), plan_(plan) {}

    void operator()(ChildStep step, int value = 0, int extra = 0) const {
        const ChildEvent event{step, value, extra};
        if (fd_ >= 0) {
            // MSG_NOSIGNAL: a parent that stopped listening must not kill the child with SIGPIPE.
            (void)send(fd_, &event, sizeof(event), MSG_NOSIGNAL);
            return;
        }
        try {
            logChildEvent(plan_, event);
        } catch (...) { // nothing may stop the child on its way to execve, not even a failed log line
        }
    }

private:
    int fd_;
    const ChildPlan& plan_;
};

// The child's own events until it execs (the channel is close-on-exec), ends, or the time is up.
std::vector<ChildEvent> collectChildEvents(int fd) {
    std::vector<ChildEvent> events;
    const auto deadline = std::chrono::steady_clock::now() + execReportTimeout;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            break;
        }
        pollfd pfd{fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            break;
        }
        ChildEvent event{};
        const ssize_t got = recv(fd, &event, sizeof(event), 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        if (static_cast<size_t>(got) == sizeof(event)) {
            events.push_back(event);
        }
    }
    return events;
}

// --- Child side: async-signal-safe calls only, in this order. ---

void resetSignals() {
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = SIG_DFL;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGCHLD, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    // A mask inherited from the forking thread would survive the exec and make the program deaf to SIGTERM.
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

// Created by the user (the child has switched already), so it is the user's; mode 0700 has no group or other
// bits whatever the umask. An existing one counts only when it is a real directory of ours: a directory
// planted under /tmp by somebody else must not receive the user's output.
bool makeUserLogDir(const char* dir) {
    if (mkdir(dir, S_IRWXU) != 0 && errno != EEXIST) {
        return false;
    }
    struct stat st {};
    return lstat(dir, &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == geteuid();
}

void closeFrom(unsigned first, unsigned last) {
    if (first > last) {
        return;
    }
    if (close_range(first, last, 0) != 0) {
        const unsigned limit = std::min(last, 65535U);
        for (unsigned fd = first; fd <= limit; ++fd) {
            close(static_cast<int>(fd));
        }
    }
}

// Every descriptor from 3 on, except the report channel (close-on-exec: it closes at the execve).
void closeDescriptors(int keep) {
    if (keep < 3) {
        closeFrom(3, ~0U);
        return;
    }
    closeFrom(3, static_cast<unsigned>(keep) - 1);
    closeFrom(static_cast<unsigned>(keep) + 1, ~0U);
}

int openRetrying(const char* file, int flags, mode_t mode) {
    int fd = -1;
    do {
        fd = open(file, flags, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

void redirectOutputs(const char* file, int extraFlags) {
    int fd = openRetrying(file, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | extraFlags, 0640);
    if (fd < 0) {
        // No O_CREAT here: a missing /dev/null must not become a regular file.
        fd = openRetrying(devNull, O_RDWR | O_CLOEXEC, 0);
    }
    if (fd < 0) {
        return;
    }
    for (const int target : {STDERR_FILENO, STDOUT_FILENO}) {
        if (fd == target) {
            fcntl(fd, F_SETFD, 0); // it stays as this output: it must survive the exec
        } else {
            dup2(fd, target);
        }
    }
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}

[[noreturn]] void execChild(const ChildPlan& plan, const ChildReport& report, int channel) {
    resetSignals();
    bool ready = true;
    if (plan.switchUser) {
        report(ChildStep::Switching);
        ready = !plan.changesIds || changeIds(*plan.user, report);
        if (ready) {
            report(ChildStep::Switched, static_cast<int>(getuid()), static_cast<int>(getgid()));
        }
    }
    if (ready) {
        const char* output = plan.output.c_str();
        int flags = 0;
        if (!plan.userLogDir.empty()) {
            flags = O_NOFOLLOW;
            if (!makeUserLogDir(plan.userLogDir.c_str())) {
                output = devNull;
            }
        }
        report(ChildStep::Launching);
        closeDescriptors(channel);
        redirectOutputs(output, flags);
        execve(plan.path.c_str(), const_cast<char* const*>(plan.argv.data()),
               const_cast<char* const*>(plan.envp.data()));
        report(ChildStep::ExecFailed, errno);
    }
    // The parent sees a child that failed: exit status 1, or 0 if even /bin/false cannot be run.
    static const char* const falseArgv[] = {"/bin/false", nullptr};
    execve(falseArgv[0], const_cast<char* const*>(falseArgv), environ);
    _exit(0);
}

} // namespace

pid_t runChildProcess(const std::filesystem::path& path, const std::list<std::string>& args,
                      const std::list<std::string>& envs, const char* user, const char* logfile) {
    if (programMissing(path)) {
        Syslog::error("%s: program not found: %s", "runChildProcess", path.c_str());
        throw vexa_error("runChildProcess");
    }
    // An unknown user runs the program as the caller, as if none had been given.
    const std::unique_ptr<UserInfo> owner = user ? getUserInfo(user, true) : nullptr;
    // The platform's process labels (integrity and access levels of the user) do not exist on this
    // platform: the child keeps the label it inherits, which is none.
    const ChildPlan plan(path, args, envs, owner.get(), logfile);

    int channel[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channel) != 0) {
        const int err = errno;
        Syslog::error("%s: %s failed, error: %s, code: %d", "runChildProcess", "socketpair", errnoText(err).c_str(),
                      err);
        throw vexa_error("runChildProcess");
    }
    const pid_t pid = fork();
    if (pid == 0) {
        close(channel[0]);
        Syslog::syslogChildOpen();
        execChild(plan, ChildReport(channel[1], plan), channel[1]);
    }
    const int forkErr = errno;
    close(channel[1]);
    if (pid < 0) {
        close(channel[0]);
        Syslog::error("%s: %s failed, error: %s, code: %d", "runChildProcess", "fork", errnoText(forkErr).c_str(),
                      forkErr);
        throw vexa_error("runChildProcess");
    }
    const auto events = collectChildEvents(channel[0]);
    close(channel[0]);
    logChildStart(plan, pid, getuid());
    for (const auto& event : events) {
        logChildEvent(plan, event);
    }
    return pid;
}

bool runChildProcessWait(const std::filesystem::path& path, const std::list<std::string>& args,
                         const std::list<std::string>& envs, const char* user, const char* logfile) {
    // The callers' function name stands in these lines, not this one's.
    try {
        const pid_t pid = runChildProcess(path, args, envs, user, logfile);
        Syslog::debug("%s: child started, pid %d", "runChildProcessWait", pid);
        const int status = waitStatus(pid);
        syslogWaitStatus(status, "runChildProcessWait", pid);
        return true;
    } catch (const std::system_error& err) {
        Syslog::error("%s: system error: %s", "sessionNotification", err.what());
    } catch (const std::exception& err) {
        Syslog::error("%s: exception: %s", "sessionNotification", err.what());
    }
    return false;
}

std::future<int> runChildProcessBack(const std::filesystem::path& path, const std::list<std::string>& args,
                                     const std::list<std::string>& envs, const char* user, const char* logfile) {
    return waitChildBack(runChildProcess(path, args, envs, user, logfile));
}

int waitStatus(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

namespace {

// One thread reaps every child handed to waitChildBack: it sleeps in epoll on the children's pidfds and fulfils
// each child's promise with its wait status. Made at the first use and kept until the process ends.
class ChildReaper {
public:
    static ChildReaper& instance() {
        // Never destroyed: its thread may still sleep in epoll_wait when the process ends.
        static auto* reaper = new ChildReaper();
        return *reaper;
    }

    // False when no pidfd could be had for the child (then the caller waits for it another way).
    bool watch(pid_t pid, std::promise<int>& promise) { return watch(pid, processFd(pid), true, promise); }

    // A process that is not our child (it cannot be reaped here): its end is all there is to know.
    bool watch(pid_t pid, UniqueFd fd, bool child, std::promise<int>& promise) {
        if (!fd || epollFd < 0) {
            return false;
        }
        const int key = fd.get();
        {
            std::lock_guard guard(lock);
            waiting.emplace(key, Waiting{pid, child, std::move(fd), std::move(promise)});
        }
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = key;
        if (epoll_ctl(epollFd, EPOLL_CTL_ADD, key, &event) != 0) {
            std::lock_guard guard(lock);
            auto found = waiting.find(key);
            promise = std::move(found->second.promise);
            waiting.erase(found);
            return false;
        }
        return true;
    }

private:
    struct Waiting {
        pid_t pid;
        bool child; // ours to reap
        UniqueFd fd;
        std::promise<int> promise;
    };

    ChildReaper() : epollFd(epoll_create1(EPOLL_CLOEXEC)) {
        if (epollFd >= 0) {
            std::thread([this] { run(); }).detach();
        }
    }

    void run() {
        std::array<epoll_event, 16> events{};
        for (;;) {
            const int count = epoll_wait(epollFd, events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < count; ++i) {
                reap(events[static_cast<size_t>(i)].data.fd);
            }
        }
    }

    void reap(int key) {
        std::unique_lock guard(lock);
        auto found = waiting.find(key);
        if (found == waiting.end()) {
            return;
        }
        const pid_t pid = found->second.pid;
        int status = -1;
        pid_t ended = -1;
        errno = ECHILD;
        while (found->second.child && (ended = waitpid(pid, &status, WNOHANG)) < 0 && errno == EINTR) {
        }
        if (ended == 0) {
            return; // the pidfd spoke before the child could be reaped; it speaks again
        }
        if (ended < 0) {
            const int err = errno;
            if (err != ECHILD) {
                Syslog::error("%s: %s failed, error: %s, code: %d", "asyncWaitPid", "waitpid", errnoText(err).c_str(),
                              err);
            }
            status = -1;
        }
        epoll_ctl(epollFd, EPOLL_CTL_DEL, key, nullptr);
        auto entry = std::move(found->second);
        waiting.erase(found);
        guard.unlock();
        entry.promise.set_value(status);
    }

    const int epollFd;
    std::mutex lock;                          // guards `waiting`
    std::unordered_map<int, Waiting> waiting; // by pidfd
};

} // namespace

std::future<int> waitChildBack(pid_t pid) {
    Syslog::debug("%s: added task, pid: %d", "asyncWaitPid", pid);
    std::promise<int> promise;
    auto result = promise.get_future();
    if (!ChildReaper::instance().watch(pid, promise)) {
        // No pidfd (the child is gone already, or descriptors ran out): a task of its own waits for it.
        return std::async(std::launch::async, [pid] { return waitStatus(pid); });
    }
    return result;
}

std::future<int> waitProcessEnd(pid_t pid, UniqueFd pidfd) {
    std::promise<int> promise;
    auto result = promise.get_future();
    if (!ChildReaper::instance().watch(pid, std::move(pidfd), false, promise)) {
        promise.set_value(-1); // no pidfd: the process has gone already
    }
    return result;
}

void runOwnerCommand(const std::filesystem::path& path, const std::list<std::string>& args,
                     const std::list<std::string>& envs, const UserInfo* user, const char* logfile) {
    const ChildPlan plan(path, args, envs, user, logfile);
    logChildStart(plan, getpid(), getuid());
    execChild(plan, ChildReport(-1, plan), -1);
}

std::string runStdoutCommand(const std::filesystem::path& path, const std::list<std::string>& args) {
    if (programMissing(path)) {
        Syslog::error("%s: program not found: %s", "runStdoutCommand", path.c_str());
        throw vexa_error("runStdoutCommand");
    }
    const std::string program = path.string();
    const auto argv = createARGV(program.c_str(), args);

    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        const int err = errno;
        Syslog::error("%s: %s failed, error: %s, code: %d", "runStdoutCommand", "popen", errnoText(err).c_str(), err);
        throw vexa_error("runStdoutCommand");
    }
    const pid_t pid = fork();
    if (pid == 0) {
        if (out[1] == STDOUT_FILENO) {
            fcntl(out[1], F_SETFD, 0);
        } else {
            dup2(out[1], STDOUT_FILENO);
        }
        execv(argv[0], const_cast<char* const*>(argv.data()));
        _exit(127);
    }
    const int forkErr = errno;
    close(out[1]);
    if (pid < 0) {
        close(out[0]);
        Syslog::error("%s: %s failed, error: %s, code: %d", "runStdoutCommand", "popen", errnoText(forkErr).c_str(),
                      forkErr);
        throw vexa_error("runStdoutCommand");
    }

    std::string result;
    char buf[4096];
    for (;;) {
        const ssize_t got = read(out[0], buf, sizeof(buf));
        if (got > 0) {
            result.append(buf, static_cast<size_t>(got));
        } else if (got == 0 || errno != EINTR) {
            break;
        }
    }
    close(out[0]);
    waitStatus(pid);
    if (!result.empty() && result.back() == '\n') {
        result.pop_back();
    }
    return result;
}

bool switchToUser(const UserInfo& user) {
    logSwitchStart(user);
    if (isRootUser(user)) {
        return true;
    }
    if (!changeIds(user, [](ChildStep step, int err) { logSwitchFailure(step, err); })) {
        return false;
    }
    // Callers of this variant run alone in a process of their own (a forked child): nothing reads the
    // environment concurrently.
    const std::pair<const char*, const char*> vars[] = {
        {"USER", user.name.c_str()}, {"LOGNAME", user.name.c_str()},
        {"HOME", user.home.c_str()}, {"SHELL", user.shell.c_str()},
        {"TERM", "linux"},
    };
    for (const auto& [name, value] : vars) {
        setenv(name, value, 1); // NOLINT(concurrency-mt-unsafe): see above
    }
    return true;
}

std::vector<const char*> createARGV(const char* path, const std::list<std::string>& args) {
    std::vector<const char*> argv;
    argv.reserve(args.size() + 2);
    argv.push_back(path);
    for (const auto& arg : args) {
        argv.push_back(arg.c_str());
    }
    argv.push_back(nullptr);
    return argv;
}

std::vector<const char*> createENVP(const std::list<std::string>& envs) {
    return mergeEnvironment(processEnvironment(), envs);
}

void redirectOutputsFdTo(const char* file) {
    redirectOutputs(file, 0);
}

std::filesystem::path userOutputLog(const UserInfo& user, const std::filesystem::path& program) {
    std::error_code ec;
    const std::filesystem::path dir = std::filesystem::is_directory(user.home, ec)
                                          ? std::filesystem::path(user.home) / ".vexa"
                                          : std::filesystem::path("/tmp/.vexa_" + user.name);
    return dir / program.filename().replace_extension(".log");
}

void syslogWaitStatus(int status, const char* func, pid_t pid) {
    if (WIFEXITED(status)) {
        Syslog::debug("%s: child ended, pid: %d, exit code: %d", func, pid, WEXITSTATUS(status));
    } else if (WIFSIGNALED(status)) {
        Syslog::debug("%s: child ended, pid: %d, killed by signal: %d", func, pid, WTERMSIG(status));
    } else {
        Syslog::debug("%s: child ended, pid: %d, status: %d", func, pid, status);
    }
}

bool isSocket(const std::filesystem::path& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

bool waitSocketSec(const std::filesystem::path& path, unsigned seconds) {
    return waitForPath(
               path, [&path] { return isSocket(path); },
               std::chrono::steady_clock::now() + std::chrono::seconds(seconds))
               .outcome == PathWait::Ready;
}

bool hasInput(int fd, int timeoutMs) {
    if (fd < 0) {
        return false;
    }
    pollfd pfd{fd, POLLIN, 0};
    int ready = 0;
    while ((ready = poll(&pfd, 1, timeoutMs)) < 0) {
        const int err = errno;
        if (err != EINTR) {
            Syslog::error("%s: %s failed, error: %s, code: %d", "hasInput", "poll", errnoText(err).c_str(), err);
            throw vexa_error("hasInput");
        }
    }
    return ready > 0 && (pfd.revents & POLLIN);
}

bool hasData(int fd) {
    if (fd < 0) {
        return false;
    }
    int count = 0;
    if (ioctl(fd, FIONREAD, &count) != 0) {
        const int err = errno;
        Syslog::error("%s: %s failed, error: %s, code: %d", "hasData", "ioctl", errnoText(err).c_str(), err);
        throw vexa_error("hasData");
    }
    return count > 0;
}

namespace {

// $HOME/.vexa/<name>, or nothing (logged) when HOME is unset.
std::optional<std::filesystem::path> pidFile(std::string_view name, const char* func, bool logMissingHome) {
    // Only switchToUser changes the environment, and only in a process of its own.
    const char* home = std::getenv("HOME"); // NOLINT(concurrency-mt-unsafe)
    if (!home) {
        if (logMissingHome) {
            Syslog::error("%s: %s environment not found", func, "HOME");
        }
        return std::nullopt;
    }
    return std::filesystem::path(home) / ".vexa" / name;
}

} // namespace

void saveSessionPidFor(std::string_view name) {
    const auto path = pidFile(name, "saveSessionPidFor", true);
    if (!path) {
        return;
    }
    const int fd = openRetrying(path->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        const int err = errno;
        Syslog::error("%s: %s failed, error: %s, code: %d", "saveSessionPidFor", "open", errnoText(err).c_str(), err);
        return;
    }
    const std::string pid = std::to_string(getpid());
    if (write(fd, pid.data(), pid.size()) != static_cast<ssize_t>(pid.size())) {
        const int err = errno;
        Syslog::error("%s: %s failed, error: %s, code: %d", "saveSessionPidFor", "write", errnoText(err).c_str(), err);
    }
    close(fd);
}

bool waitSessionPidFor(std::string_view name) {
    const auto path = pidFile(name, "waitSessionPidFor", true);
    if (!path) {
        return false;
    }
    const auto ready = [&path] {
        std::error_code ec;
        return std::filesystem::is_regular_file(*path, ec);
    };
    if (waitForPath(*path, ready, std::chrono::steady_clock::now() + pidFileTimeout).outcome != PathWait::Ready) {
        Syslog::error("%s: timeout exception, path: `%s'", "waitSessionPidFor", path->c_str());
        return false;
    }
    return true;
}

void removeSessionPidFor(std::string_view name) {
    if (const auto path = pidFile(name, "removeSessionPidFor", false)) {
        std::error_code ec;
        std::filesystem::remove(*path, ec);
    }
}

} // namespace Vexa::Utils

namespace Vexa {

void changeProcessArgs(std::string_view first, std::string_view second) {
    char** argv = programArgv;
    if (!argv || !argv[0]) {
        return;
    }
    const std::string_view texts[] = {first, second};
    for (size_t slot = 1; slot <= std::size(texts); ++slot) {
        char* arg = argv[slot];
        if (!arg) {
            return;
        }
        const size_t length = std::strlen(arg);
        std::memset(arg, ' ', length);
        const auto& text = texts[slot - 1];
        std::memcpy(arg, text.data(), std::min(length, text.size()));
    }
}

} // namespace Vexa
