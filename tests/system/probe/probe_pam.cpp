// vexa_probe pam SUBCOMMAND ARGS...   (the password is read from standard input, one trailing newline dropped)
//   auth SERVICE USER [once|twice|none]
//       one line per step: "authenticate: ok|failed", "account: ok|failed", "open: ok|failed",
//       "env: NAME=value" per PAM environment entry, "close: done" per closeSession call (once by default;
//       "none" leaves the open session to the destructor). PAM_TTY is "vexa-probe" from the account check on.
//       Stops at the first failed step (exit 1).
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
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "probe.h"
#include "start/pam_service.h"

namespace {

std::string readPassword() {
    std::string text(std::istreambuf_iterator<char>(std::cin), {});
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

// The password goes away as soon as the transaction has its own copy.
struct Secret {
    std::string text = readPassword();
    ~Secret() { explicit_bzero(text.data(), text.size()); }
};

int auth(std::string_view service, std::string_view user, std::string_view closing) {
    Secret secret;
    try {
        Vexa::PamService pam(service, user, secret.text);
        explicit_bzero(secret.text.data(), secret.text.size());
        auto step = [](const char* name, bool ok) {
            std::printf("%s: %s\n", name, ok ? "ok" : "failed");
            std::fflush(stdout);
            return ok;
        };
        if (!step("authenticate", pam.checkAuthenticate()) || !step("account", pam.validateAccount())) {
            return 1;
        }
        pam.setItem(PAM_TTY, "vexa-probe");
        if (!step("open", pam.openSession())) {
            return 1;
        }
        for (const auto& entry : pam.getEnvironments()) {
            std::printf("env: %s\n", entry.c_str());
        }
        const int closes = closing == "twice" ? 2 : closing == "none" ? 0 : 1;
        for (int i = 0; i < closes; ++i) {
            pam.closeSession();
            std::puts("close: done");
        }
        std::fflush(stdout);
        return 0;
    } catch (const Vexa::pam_error& e) {
        std::printf("start: pam_error %s\n", e.what());
        return 3;
    }
}

int bench(std::string_view user, int runs, std::string_view service) {
    Secret secret;
    std::vector<double> times;
    for (int i = 0; i < runs; ++i) {
        const auto started = std::chrono::steady_clock::now();
        try {
            Vexa::PamService pam(service, user, secret.text);
            if (!pam.checkAuthenticate() || !pam.openSession()) {
                std::fprintf(stderr, "bench: run %d failed\n", i);
                return 1;
            }
            times.push_back(
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count());
        } catch (const Vexa::pam_error& e) {
            std::printf("start: pam_error %s\n", e.what());
            return 3;
        }
    }
    std::sort(times.begin(), times.end());
    const size_t mid = times.size() / 2;
    const double median = times.size() % 2 ? times[mid] : (times[mid - 1] + times[mid]) / 2;
    std::printf("median_ms: %.3f\nmin_ms: %.3f\nmax_ms: %.3f\n", median, times.front(), times.back());
    return 0;
}

} // namespace

int probePam(int argc, char** argv) {
    const std::string_view command = argc > 0 ? argv[0] : "";
    if (command == "auth" && (argc == 3 || argc == 4)) {
        const std::string_view closing = argc == 4 ? argv[3] : "once";
        if (closing == "once" || closing == "twice" || closing == "none") {
            return auth(argv[1], argv[2], closing);
        }
    }
    if (command == "bench" && (argc == 3 || argc == 4)) {
        const int runs = std::atoi(argv[2]);
        if (runs > 0) {
            return bench(argv[1], runs, argc == 4 ? argv[3] : "vexa");
        }
    }
    std::fprintf(stderr, "usage: vexa_probe pam auth SERVICE USER [once|twice|none] | bench USER N [SERVICE]\n");
    return 2;
}
