// The daemon's side of the session manager program: starting it with its input, and password checks.

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "common/events.h"
#include "common/logger.h"
#include "common/process.h"
#include "common/utils.h"
#include "common/vexa_error.h"
#include "session_manager.h"

namespace Vexa {

namespace {

constexpr const char* self = "runSessionManager";

// The daemon's environment without what belongs to the service manager's conversation with the daemon.
std::vector<std::string> programEnvironment() {
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

[[noreturn]] void failed(const char* call, int err, std::string& input) {
    explicit_bzero(input.data(), input.size());
    Syslog::error("%s: %s failed, error: %s, code: %d", self, call, Utils::errnoText(err).c_str(), err);
    throw vexa_error(self);
}

} // namespace

StartedProgram startSessionManagerProgram(const char* program, std::span<const char* const> args, std::string& input) {
    const auto envStrings = programEnvironment();
    std::vector<const char*> envp;
    envp.reserve(envStrings.size() + 1);
    for (const auto& entry : envStrings) {
        envp.push_back(entry.c_str());
    }
    envp.push_back(nullptr);
    std::vector<const char*> argv{program};
    argv.insert(argv.end(), args.begin(), args.end());
    argv.push_back(nullptr);

    int channel[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0) {
        failed("socketpair", errno, input);
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
        execve(argv[0], const_cast<char* const*>(argv.data()), const_cast<char* const*>(envp.data()));
        _exit(127);
    }
    const int forkErr = errno;
    close(channel[1]);
    Utils::UniqueFd daemonEnd(channel[0]);
    if (pid < 0) {
        failed("fork", forkErr, input);
    }
    // The input (a password too) goes through the socket only. A program that died early makes this fail, and
    // whoever waits for it sees it gone.
    sendAll(daemonEnd.get(), input);
    explicit_bzero(input.data(), input.size());
    shutdown(daemonEnd.get(), SHUT_WR);
    return {pid, std::move(daemonEnd)};
}

bool checkPasswordProcess(const char* program, const PasswordCheck& check, int stopFd) {
    std::string input = encodePasswordCheck(check);
    const std::array<const char*, 1> args{passwordCheckOption};
    const auto started = startSessionManagerProgram(program, args, input);
    const auto ended = Utils::processFd(started.pid);
    const std::array<int, 2> wake{ended.get(), stopFd};
    if (ended && Utils::waitReadable(wake, std::nullopt) == 1) {
        kill(started.pid, SIGTERM);
    }
    const int status = Utils::waitStatus(started.pid);
    Utils::syslogWaitStatus(status, "checkPassword", started.pid);
    return WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
}

} // namespace Vexa
