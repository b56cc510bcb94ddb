// vexa_probe: drives launching pieces (shells file, child processes, PAM) on their own inside the container of the
// system tier, where real users and PAM exist. Its log lines go to the journal like the daemon's.
//   accounts shell SHELL
//       "allowed" or "refused" (checkAllowShell against /etc/shells)
//   process run [-e NAME=VALUE]... USER|- PROGRAM [ARGS...]
//       runChildProcess as USER (its output in the user's log), then waitpid: prints the raw wait status
//   pam auth SERVICE USER once|twice|none   (the password is the first line of standard input)
//       one line per step: "authenticate: ok|failed", "account: ok|failed", "open: ok|failed", then "close: done"
//       per closeSession call ("none" leaves the open session to the destructor); PAM_TTY is "vexa-probe". Stops at
//       the first failed step (exit 1).

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <list>
#include <string>
#include <string_view>
#include <sys/wait.h>

#include "common/accounts.h"
#include "common/globals.h"
#include "common/logger.h"
#include "common/process.h"
#include "start/pam_service.h"

namespace {

int waitStatus(pid_t pid) {
    int status = -1;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

int processRun(int argc, char** argv) {
    std::list<std::string> envs;
    int i = 0;
    for (; i + 1 < argc && std::string_view(argv[i]) == "-e"; i += 2) {
        envs.emplace_back(argv[i + 1]);
    }
    if (argc - i < 2) {
        return 2;
    }
    const char* user = std::string_view(argv[i]) == "-" ? nullptr : argv[i];
    const pid_t pid = Vexa::Utils::runChildProcess(argv[i + 1], {argv + i + 2, argv + argc}, envs, user, nullptr);
    std::printf("%d\n", waitStatus(pid));
    return 0;
}

bool step(const char* name, bool ok) {
    std::printf("%s: %s\n", name, ok ? "ok" : "failed");
    return ok;
}

int pamAuth(const char* service, const char* user, std::string_view closing) {
    std::string password;
    std::getline(std::cin, password);
    Vexa::PamService pam(service, user, password);
    explicit_bzero(password.data(), password.size()); // the transaction has its own copy
    if (!step("authenticate", pam.checkAuthenticate()) || !step("account", pam.validateAccount())) {
        return 1;
    }
    pam.setItem(PAM_TTY, "vexa-probe");
    if (!step("open", pam.openSession())) {
        return 1;
    }
    for (int i = closing == "twice" ? 2 : closing == "none" ? 0 : 1; i > 0; --i) {
        pam.closeSession();
        std::puts("close: done");
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    Vexa::programArgv = argv;
    Vexa::Syslog::setDebugLevel(std::string("info"));
    const std::string_view area = argc > 2 ? argv[1] : "";
    const std::string_view command = argc > 2 ? argv[2] : "";
    try {
        if (area == "accounts" && command == "shell" && argc == 4) {
            std::puts(Vexa::checkAllowShell(argv[3]) ? "allowed" : "refused");
            return 0;
        }
        if (area == "process" && command == "run") {
            return processRun(argc - 3, argv + 3);
        }
        if (area == "pam" && command == "auth" && argc == 6) {
            return pamAuth(argv[3], argv[4], argv[5]);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vexa_probe: %s\n", e.what());
        return 1;
    }
    std::fprintf(stderr, "usage: vexa_probe accounts shell | process run | pam auth ... (see %s)\n", __FILE__);
    return 2;
}
