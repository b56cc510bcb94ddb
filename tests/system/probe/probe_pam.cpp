// vexa_probe pam SUBCOMMAND ARGS...   (the password is the first line of standard input)
//   auth SERVICE USER [once|twice|none]
//       one line per step: "authenticate: ok|failed", "account: ok|failed", "open: ok|failed", "close: done"
//       per closeSession call (once by default; "none" leaves the open session to the destructor). PAM_TTY
//       is "vexa-probe" for the session. Stops at the first failed step (exit 1).
//       "start: pam_error <what>" and exit 3 when the transaction cannot start.
//   bench USER N [SERVICE]
//       N transactions of SERVICE (default "vexa"): start, authenticate, open the session (timed), then close
//       it in the destructor (not timed); prints "median_ms: X" (exit 1 when one of them fails).

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "probe.h"
#include "start/pam_service.h"

namespace {

// The password from standard input; it goes away once the transaction has its own copy.
struct Secret {
    std::string text;
    Secret() { std::getline(std::cin, text); }
    ~Secret() { explicit_bzero(text.data(), text.size()); }
};

bool step(const char* name, bool ok) {
    std::printf("%s: %s\n", name, ok ? "ok" : "failed");
    return ok;
}

int auth(const char* service, const char* user, std::string_view closing) {
    Vexa::PamService pam(service, user, Secret().text);
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

int bench(const char* user, int runs, const char* service) {
    const Secret secret;
    std::vector<double> times;
    for (int i = 0; i < runs; ++i) {
        const auto started = std::chrono::steady_clock::now();
        Vexa::PamService pam(service, user, secret.text);
        if (!pam.checkAuthenticate() || !pam.openSession()) {
            return 1;
        }
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count());
    }
    std::sort(times.begin(), times.end());
    std::printf("median_ms: %.3f\nmin_ms: %.3f\nmax_ms: %.3f\n", (times[(runs - 1) / 2] + times[runs / 2]) / 2,
                times.front(), times.back());
    return 0;
}

} // namespace

int probePam(int argc, char** argv) {
    const std::string_view command = argc > 0 ? argv[0] : "";
    const std::string_view closing = argc == 4 ? argv[3] : "once";
    try {
        if (command == "auth" && (argc == 3 || argc == 4) &&
            (closing == "once" || closing == "twice" || closing == "none")) {
            return auth(argv[1], argv[2], closing);
        }
        if (command == "bench" && (argc == 3 || argc == 4) && std::atoi(argv[2]) > 0) {
            return bench(argv[1], std::atoi(argv[2]), argc == 4 ? argv[3] : "vexa");
        }
    } catch (const Vexa::pam_error& e) {
        std::printf("start: pam_error %s\n", e.what());
        return 3;
    }
    std::fprintf(stderr, "usage: vexa_probe pam auth SERVICE USER [once|twice|none] | bench USER N [SERVICE]\n");
    return 2;
}
