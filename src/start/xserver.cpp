#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "common/events.h"
#include "common/logger.h"
#include "common/process.h"
#include "common/utils.h"
#include "common/vexa_error.h"
#include "session/session.h"
#include "xserver.h"

namespace Vexa {

std::atomic<int> pidXorg{0};

namespace {

constexpr std::string_view xorgPath = "/usr/bin/Xorg";
constexpr std::string_view xorgServer = "/usr/lib/xorg/Xorg";
constexpr std::string_view xorgWrapper = "/usr/lib/xorg/Xorg.wrap";
constexpr std::string_view allowedToken = "allowed_users=";
constexpr std::string_view allowedAnybody = "anybody";

const std::list<std::string>& builtinTemplate() {
    static const std::list<std::string> args{":%{display}", "-nolisten",  "tcp",        "-auth",      "%{authfile}",
                                             "-config",     "vexa.conf",  "-depth",     "%{depth}",   "+extension",
                                             "DAMAGE",      "+extension", "MIT-SHM",    "+extension", "RANDR",
                                             "+extension",  "XFIXES",     "+extension", "XTEST"};
    return args;
}

bool isDirectory(const std::filesystem::path& path) {
    std::error_code ec;
    return !path.empty() && std::filesystem::is_directory(path, ec);
}

bool exists(std::string_view path) {
    std::error_code ec;
    return std::filesystem::exists(path, ec);
}

} // namespace

bool checkXWrapperAllowedOnlyConsole(const std::filesystem::path& config) {
    std::error_code ec;
    if (!std::filesystem::exists(config, ec)) {
        Syslog::warning("%s: file not found: `%s'", "checkXWrapperAllowedOnlyConsole", config.c_str());
        return true;
    }
    std::ifstream file(config);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(allowedToken)) {
            if (std::string_view(line).substr(allowedToken.size()) == allowedAnybody) {
                return false;
            }
            break;
        }
    }
    Syslog::warning("%s: not found token: `%s', please modify to: `%s', for detals check file: `%s'",
                    "checkXWrapperAllowedOnlyConsole", allowedToken.data(), allowedAnybody.data(), config.c_str());
    return true;
}

std::list<std::string> xorgArguments(std::list<std::string> args, uint32_t display, uint8_t depth, uint16_t width,
                                     uint16_t height, const std::filesystem::path& authfile) {
    if (args.empty()) {
        args = builtinTemplate();
    }

    // The server's own log file would grow without bound in a directory nobody watches.
    bool logfile = false;
    for (auto it = args.begin(); it != args.end(); ++it) {
        if (*it != "-logfile") {
            continue;
        }
        logfile = true;
        if (std::next(it) == args.end()) {
            args.emplace_back("/dev/null");
            break;
        }
        *++it = "/dev/null";
    }
    if (!logfile) {
        args.emplace_back("-logfile");
        args.emplace_back("/dev/null");
    }

    if (depth == 0) {
        depth = 24;
    } else if (depth != 16 && depth != 24) {
        Syslog::warning("%s: unknown depth: %u", "runXorgDisplay", depth);
        depth = 24;
    }

    const std::pair<std::string_view, std::string> values[] = {
        {"%{display}", std::to_string(display)}, {"%{depth}", std::to_string(depth)},
        {"%{width}", std::to_string(width)},     {"%{height}", std::to_string(height)},
        {"%{authfile}", authfile.string()},
    };
    for (auto& arg : args) {
        for (const auto& [name, value] : values) {
            arg = Utils::stringReplace(arg, name, value);
        }
    }
    return args;
}

pid_t runXorgDisplay(const Session* session, const std::list<std::string>& args, const std::filesystem::path& path,
                     const std::list<std::string>& env, uint8_t depth, uint16_t width, uint16_t height) {
    if (!session) {
        Syslog::error("%s: session null", "runXorgDisplay");
        throw vexa_error("runXorgDisplay");
    }
    const auto display = static_cast<uint32_t>(session->display);
    Syslog::info("%s: display: %u, depth: %u, width: %u, height: %u, xauthfile: %s", "runXorgDisplay", display, depth,
                 width, height, session->xauthfile.c_str());

    std::filesystem::path program = path;
    // Debian's wrapper refuses servers not started from a console unless configured otherwise; as root we
    // need no wrapper at all.
    if (path == xorgPath && exists(xorgServer) && exists(xorgWrapper) && checkXWrapperAllowedOnlyConsole()) {
        Syslog::warning("%s: skip: `%s', run directly: `%s'", "runXorgDisplay", xorgWrapper.data(), xorgServer.data());
        program = xorgServer;
    }

    const std::string home = session->user ? session->user->home : std::string();
    if (!isDirectory(home)) {
        Syslog::warning("%s: user home not found: `%s'", "runXorgDisplay", home.c_str());
    }

    const auto argv = xorgArguments(args, display, depth, width, height, session->xauthfile);
    const pid_t pid = Utils::runChildProcess(program, argv, env, nullptr, nullptr);
    pidXorg = pid;
    return pid;
}

void removeDeadServerFiles(std::string_view socketTemplate, uint32_t display, pid_t pid) {
    const std::filesystem::path lock = "/tmp/.X" + std::to_string(display) + "-lock";
    const auto text = Utils::readFileText(lock);
    pid_t owner = 0;
    const char* first = text.data() + text.find_first_not_of(' ');
    if (text.empty() || std::from_chars(first, text.data() + text.size(), owner).ec != std::errc() || owner != pid) {
        return; // another server's, or none
    }
    std::error_code ec;
    std::filesystem::remove(Utils::stringReplace(socketTemplate, "%{display}", std::to_string(display)), ec);
    std::filesystem::remove(lock, ec);
}

void waitXorgSocket(std::string_view socketTemplate, uint32_t display, pid_t pid, int stopFd) {
    const auto socket = Utils::stringReplace(socketTemplate, "%{display}", std::to_string(display));
    const auto server = Utils::processFd(pid);
    const std::array<int, 2> wake{server.get(), stopFd};
    const auto waited = Utils::waitForPath(
        socket, [&socket] { return Utils::isSocket(socket); },
        std::chrono::steady_clock::now() + std::chrono::seconds(5), wake);
    if (waited.outcome == Utils::PathWait::Woken && waited.woken == 1) {
        return;
    }
    // A server that ended without its socket will not make one.
    if (waited.outcome != Utils::PathWait::Ready) {
        // Reported under the name of the session manager, whose start step this wait is.
        Syslog::error("%s: xorg not started, pid: %d, socket: %s", "runSessionManager", pid, socket.c_str());
        throw std::runtime_error("runXorgDisplay failed");
    }
}

} // namespace Vexa
