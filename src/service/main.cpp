// vexa_service: command line, privilege check, optional background mode, signal handling, then the service.

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <unistd.h>

#include "common/globals.h"
#include "common/logger.h"
#include "dbus_service.h"

namespace {

// Only asks the service to stop: the watcher thread wakes and runs the stop sequence.
void signalHandler(int sig) {
    if (sig == SIGTERM || sig == SIGINT) {
        Vexa::requestServiceStop();
    }
}

void setHandler(int sig, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(sig, &action, nullptr);
}

int usage(const char* program) {
    std::cout << "usage: " << program << "--config <path> [--background]" << std::endl
              << "Vexa terminal server session manager; questions to the administrator of this server" << std::endl;
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv) {
    Vexa::programArgv = argv;
    std::string configPath = "vexa_service.json";
    bool background = false;

    for (int i = 1; i < argc; ++i) {
        const std::string_view arg(argv[i]);
        if (arg == "--background") {
            background = true;
        } else if (arg == "--config" && i + 1 < argc) {
            configPath = argv[++i];
        } else {
            return usage(argv[0]);
        }
    }

    std::error_code ec;
    if (!std::filesystem::exists(configPath, ec)) {
        std::cerr << "config not found" << std::endl;
        return EXIT_FAILURE;
    }
    if (getuid() != 0) {
        std::cerr << "root privileges required to run" << std::endl;
        return EXIT_FAILURE;
    }

    if (background) {
        if (fork() != 0) {
            return EXIT_SUCCESS;
        }
        setHandler(SIGTERM, signalHandler);
        setHandler(SIGINT, SIG_IGN);
    } else {
        setHandler(SIGTERM, signalHandler);
        setHandler(SIGINT, signalHandler);
    }

    try {
        Vexa::DBusService::start(configPath);
    } catch (const Vexa::bus_lost& err) {
        Vexa::Syslog::error("dbus error: %s", err.what());
        return EXIT_FAILURE;
    } catch (const sdbus::Error& err) {
        Vexa::Syslog::error("dbus error: %s", err.what());
    } catch (const std::filesystem::filesystem_error& err) {
        Vexa::Syslog::error(
            "exception: what: `%s', path1: `%s', path2:`%s', code value: %d, code message: `%s', category name: `%s'",
            err.what(), err.path1().c_str(), err.path2().c_str(), err.code().value(), err.code().message().c_str(),
            err.code().category().name());
    } catch (const std::exception& err) {
        Vexa::Syslog::error("exception: %s", err.what());
    }
    return EXIT_SUCCESS;
}
