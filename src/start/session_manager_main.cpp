// vexa_session_manager: the session manager process of one session, or (with --check) one password check.
// Started by vexa_service only, as root, with the session's plan or the check on its standard input.

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>
#include <unistd.h>

#include "common/logger.h"
#include "start/session_manager.h"

namespace {

int passwordCheck(std::string& text) {
    try {
        auto check = Vexa::decodePasswordCheck(text);
        explicit_bzero(text.data(), text.size());
        Vexa::Syslog::setDebugLevel(check.debugLevel);
        const int result = Vexa::runPasswordCheck(check);
        explicit_bzero(check.password.data(), check.password.size());
        return result;
    } catch (const std::exception& err) {
        explicit_bzero(text.data(), text.size());
        Vexa::Syslog::error("%s: exception: %s", "checkPassword", err.what());
    }
    return EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv) {
    if (getuid() != 0) {
        std::cerr << "root privileges required to run" << std::endl;
        return EXIT_FAILURE;
    }
    const bool check = argc > 1 && std::string_view(argv[1]) == Vexa::passwordCheckOption;
    if (check) {
        std::string text(std::istreambuf_iterator<char>(std::cin), {});
        return passwordCheck(text);
    }

    struct sigaction action {};
    action.sa_handler = Vexa::signalHandlerSessionManager;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a stop request must interrupt the wait for the session script.
    for (const int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
        sigaction(sig, &action, nullptr);
    }

    // SIGCHLD is taken only while waiting for a child, so that it never interrupts anything else.
    sigset_t childSignal;
    sigemptyset(&childSignal);
    sigaddset(&childSignal, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &childSignal, nullptr);

    std::string text(std::istreambuf_iterator<char>(std::cin), {});
    try {
        auto plan = Vexa::decodePlan(text);
        explicit_bzero(text.data(), text.size());
        Vexa::Syslog::setDebugLevel(plan.debugLevel);
        return Vexa::runSessionManagerProcess(std::move(plan));
    } catch (const std::exception& err) {
        explicit_bzero(text.data(), text.size());
        Vexa::Syslog::error("%s: exception: %s", "runSessionManager", err.what());
    }
    return EXIT_FAILURE;
}
