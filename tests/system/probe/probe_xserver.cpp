// vexa_probe xserver SUBCOMMAND [ARGS...]
//   xauth DIR DISPLAY USER GROUP
//       createXauthFile, then readXauthfile -> "<path> <cookie in hex>"
//   start DIR USER DISPLAY DEPTH WIDTH HEIGHT XPATH [ARGS...]
//       the X authority file of DISPLAY in DIR for USER (group "vexa-xauth"), runXorgDisplay with a session
//       record of that user, the socket wait -> "<pid> <xauth path>"; the server is left running for the
//       caller to end. Exit 1 (and the server ended) when the socket does not appear.
//   bench DIR XPATH N [ARGS...]
//       N starts as root on displays 160, 161, ... with the X authority file in DIR, each ended before the
//       next: "socket_median_ms M min_ms A max_ms B" from start to socket (polled every millisecond), then
//       "wait_median_ms W" over N more starts through the service's own socket wait.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <list>
#include <memory>
#include <pwd.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

#include "probe.h"
#include "session/session.h"
#include "start/xserver.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* socketTemplate = "/tmp/.X11-unix/X%{display}";

std::shared_ptr<Vexa::UserEx> userRecord(const char* name) {
    const passwd* entry = ::getpwnam(name);
    return entry ? std::make_shared<Vexa::UserEx>(*entry, true) : nullptr;
}

std::unique_ptr<Vexa::Session> sessionFor(const char* dir, const char* user, uint32_t display) {
    auto owner = userRecord(user);
    if (!owner) {
        std::fprintf(stderr, "vexa_probe: unknown user %s\n", user);
        return nullptr;
    }
    auto session = std::make_unique<Vexa::Session>(1, owner, Vexa::ServiceDefaults{});
    session->display = static_cast<int32_t>(display);
    session->xauthfile = Vexa::createXauthFile(dir, display, user, "vexa-xauth");
    return session;
}

void endServer(pid_t pid) {
    ::kill(pid, SIGTERM);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

bool isSocket(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

int xauth(char** argv) {
    const auto path = Vexa::createXauthFile(argv[0], static_cast<uint32_t>(std::stoul(argv[1])), argv[2], argv[3]);
    std::printf("%s ", path.c_str());
    for (auto byte : Vexa::Utils::readXauthfile(path)) {
        std::printf("%02x", byte);
    }
    std::puts("");
    return 0;
}

int start(int argc, char** argv) {
    const auto display = static_cast<uint32_t>(std::stoul(argv[2]));
    auto session = sessionFor(argv[0], argv[1], display);
    if (!session) {
        return 1;
    }
    const std::list<std::string> args(argv + 7, argv + argc);
    const pid_t pid =
        Vexa::runXorgDisplay(session.get(), args, argv[6], {}, static_cast<uint8_t>(std::stoul(argv[3])),
                             static_cast<uint16_t>(std::stoul(argv[4])), static_cast<uint16_t>(std::stoul(argv[5])));
    try {
        Vexa::waitXorgSocket(socketTemplate, display, pid);
    } catch (const std::exception& e) {
        endServer(pid);
        std::fprintf(stderr, "vexa_probe: %s\n", e.what());
        return 1;
    }
    std::printf("%d %s\n", pid, session->xauthfile.c_str());
    return 0;
}

int bench(int argc, char** argv) {
    const int count = std::stoi(argv[2]);
    const std::list<std::string> args(argv + 3, argv + argc);
    std::vector<double> socketMs;
    std::vector<double> waitMs;
    for (int i = 0; i < 2 * count; ++i) {
        const auto display = static_cast<uint32_t>(160 + i);
        const auto session = sessionFor(argv[0], "root", display);
        const std::string socket = "/tmp/.X11-unix/X" + std::to_string(display);
        const bool fine = i < count;
        const auto begin = Clock::now();
        const pid_t pid = Vexa::runXorgDisplay(session.get(), args, argv[1], {}, 24, 1024, 768);
        bool up = true;
        if (fine) {
            while (!(up = isSocket(socket)) && Clock::now() - begin < std::chrono::seconds(5)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        } else {
            try {
                Vexa::waitXorgSocket(socketTemplate, display, pid);
            } catch (const std::exception&) {
                up = false;
            }
        }
        const double ms = msSince(begin);
        endServer(pid);
        if (!up) {
            std::fprintf(stderr, "vexa_probe: no socket on display %u\n", display);
            return 1;
        }
        (fine ? socketMs : waitMs).push_back(ms);
    }
    std::printf("socket_median_ms %.1f min_ms %.1f max_ms %.1f\n", median(socketMs),
                *std::min_element(socketMs.begin(), socketMs.end()),
                *std::max_element(socketMs.begin(), socketMs.end()));
    std::printf("wait_median_ms %.1f\n", median(waitMs));
    return 0;
}

} // namespace

int probeXserver(int argc, char** argv) {
    const std::string_view command = argc > 0 ? argv[0] : "";
    try {
        if (command == "xauth" && argc == 5) {
            return xauth(argv + 1);
        }
        if (command == "start" && argc >= 8) {
            return start(argc - 1, argv + 1);
        }
        if (command == "bench" && argc >= 4 && std::atoi(argv[3]) > 0) {
            return bench(argc - 1, argv + 1);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vexa_probe: %s\n", e.what());
        return 1;
    }
    std::fprintf(stderr, "usage: vexa_probe xserver xauth DIR DISPLAY USER GROUP\n"
                         "       vexa_probe xserver start DIR USER DISPLAY DEPTH WIDTH HEIGHT XPATH [ARGS...]\n"
                         "       vexa_probe xserver bench DIR XPATH N [ARGS...]\n");
    return 2;
}
