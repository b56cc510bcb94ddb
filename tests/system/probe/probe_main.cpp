// vexa_probe AREA SUBCOMMAND [ARGS...]
//   accounts shell SHELL             -> "allowed" or "refused" (checkAllowShell against /etc/shells)
//   accounts user NAME               -> "uid gid home shell groups..." or exit 1
//   process ...  pam ...  xserver ... (see their files)

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "common/accounts.h"
#include "common/globals.h"
#include "common/logger.h"
#include "probe.h"

int probeAccounts(int argc, char** argv) {
    const std::string_view command = argc > 0 ? argv[0] : "";
    if (command == "shell" && argc == 2) {
        std::puts(Vexa::checkAllowShell(argv[1]) ? "allowed" : "refused");
        return 0;
    }
    if (command == "user" && argc == 2) {
        auto user = Vexa::Utils::getUserInfo(argv[1], true);
        if (!user) {
            return 1;
        }
        std::printf("%d %d %s %s", user->uid, user->gid, user->home.c_str(), user->shell.c_str());
        for (auto gid : user->groups) {
            std::printf(" %u", gid);
        }
        std::puts("");
        return 0;
    }
    std::fprintf(stderr, "usage: vexa_probe accounts shell SHELL | user NAME\n");
    return 2;
}

int main(int argc, char** argv) {
    Vexa::programArgv = argv;
    // Log lines go to the journal like the daemon's; VEXA_PROBE_LEVEL=debug shows the debug ones.
    const char* level = std::getenv("VEXA_PROBE_LEVEL");
    Vexa::Syslog::setDebugLevel(level ? std::string(level) : std::string("info"));
    if (argc < 2) {
        std::fprintf(stderr, "usage: vexa_probe accounts|process|pam|xserver SUBCOMMAND [ARGS...]\n");
        return 2;
    }
    const std::string_view area = argv[1];
    if (area == "accounts") {
        return probeAccounts(argc - 2, argv + 2);
    }
    if (area == "process") {
        return probeProcess(argc - 2, argv + 2);
    }
    if (area == "pam") {
        return probePam(argc - 2, argv + 2);
    }
    if (area == "xserver") {
        return probeXserver(argc - 2, argv + 2);
    }
    std::fprintf(stderr, "vexa_probe: unknown area %s\n", argv[1]);
    return 2;
}
