// vexa_probe xserver SUBCOMMAND [ARGS...]
//   start DIR USER DISPLAY DEPTH XPATH [ARGS...]
//       the X authority file of DISPLAY in DIR for USER (group "vexa-xauth"), runXorgDisplay (1280x800) with a
//       session record of that user, the service's socket wait -> "<pid> <xauth path>"; the server is left
//       running for the caller to end. Exit 1 (and the server ended) when the socket does not appear.
//   bench DIR XPATH N [ARGS...]
//       N starts as root on displays 160, 161, ... with the X authority file in DIR, each ended before the
//       next: "socket_median_ms M min_ms A max_ms B" from start to socket (polled every millisecond).

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <list>
#include <memory>
#include <pwd.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <thread>
#include <vector>

#include "probe.h"
#include "session/session.h"
#include "start/xserver.h"

namespace {

using Clock = std::chrono::steady_clock;

std::unique_ptr<Vexa::Session> sessionFor(const char* dir, const char* user, uint32_t display) {
    const passwd* entry = ::getpwnam(user);
    if (!entry) {
        throw std::runtime_error(std::string("unknown user ") + user);
    }
    auto session =
        std::make_unique<Vexa::Session>(1, std::make_shared<Vexa::UserEx>(*entry, true), Vexa::ServiceDefaults{});
    session->display = static_cast<int32_t>(display);
    session->xauthfile = Vexa::createXauthFile(dir, display, user, "vexa-xauth");
    return session;
}

void endServer(pid_t pid) {
    ::kill(pid, SIGTERM);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

int start(int argc, char** argv) {
    const auto display = static_cast<uint32_t>(std::stoul(argv[2]));
    const auto session = sessionFor(argv[0], argv[1], display);
    const auto depth = static_cast<uint8_t>(std::stoul(argv[3]));
    const pid_t pid = Vexa::runXorgDisplay(session.get(), {argv + 5, argv + argc}, argv[4], {}, depth, 1280, 800);
    try {
        Vexa::waitXorgSocket("/tmp/.X11-unix/X%{display}", display, pid);
    } catch (const std::exception&) {
        endServer(pid);
        throw;
    }
    std::printf("%d %s\n", pid, session->xauthfile.c_str());
    // The server and its authority file now belong to the caller: the record must not remove the file.
    session->xauthfile.clear();
    return 0;
}

int bench(int argc, char** argv) {
    std::vector<double> ms;
    for (int i = 0; i < std::stoi(argv[2]); ++i) {
        const auto display = static_cast<uint32_t>(160 + i);
        const auto session = sessionFor(argv[0], "root", display);
        const auto socket = "/tmp/.X11-unix/X" + std::to_string(display);
        const auto begin = Clock::now();
        const pid_t pid = Vexa::runXorgDisplay(session.get(), {argv + 3, argv + argc}, argv[1], {}, 24, 1024, 768);
        while (!std::filesystem::is_socket(socket) && Clock::now() - begin < std::chrono::seconds(5)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
        const bool up = std::filesystem::is_socket(socket);
        endServer(pid);
        if (!up) {
            throw std::runtime_error("no socket on display " + std::to_string(display));
        }
    }
    std::sort(ms.begin(), ms.end());
    std::printf("socket_median_ms %.1f min_ms %.1f max_ms %.1f\n", (ms[(ms.size() - 1) / 2] + ms[ms.size() / 2]) / 2,
                ms.front(), ms.back());
    return 0;
}

} // namespace

int probeXserver(int argc, char** argv) {
    const std::string_view command = argc > 0 ? argv[0] : "";
    try {
        if (command == "start" && argc >= 6) {
            return start(argc - 1, argv + 1);
        }
        if (command == "bench" && argc >= 4 && std::atoi(argv[3]) > 0) {
            return bench(argc - 1, argv + 1);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vexa_probe: %s\n", e.what());
        return 1;
    }
    std::fprintf(stderr, "usage: vexa_probe xserver start DIR USER DISPLAY DEPTH XPATH [ARGS...]\n"
                         "       vexa_probe xserver bench DIR XPATH N [ARGS...]\n");
    return 2;
}
