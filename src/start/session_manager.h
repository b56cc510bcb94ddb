#pragma once

// The session manager of one session: a process of its own (the program vexa_session_manager), started by
// the daemon with the session's plan on its standard input. As root it authenticates the user and opens the
// PAM session (which makes systemd-logind track it), starts the X server, runs the session script as the user,
// waits for it and then closes the PAM session and stops the X server. Running it as a fresh program keeps
// PAM modules and the X server start out of a forked copy of the multi-threaded daemon.

#include <cstdint>
#include <filesystem>
#include <list>
#include <optional>
#include <string>
#include <string_view>

namespace Vexa {

inline constexpr const char* xsessionScript = "/usr/libexec/vexa/xsession.sh";

// Everything the session manager needs, decided by the daemon.
struct SessionManagerPlan {
    uint32_t sessionId = 0;
    std::string user;
    std::string pamService;
    // Checked by PAM when present; a plan without one skips authentication (the daemon already accepted the
    // caller in another way). Travels only through the pipe and memory; never logged.
    std::optional<std::string> password;
    uint32_t display = 0;
    std::filesystem::path xauthfile;
    std::filesystem::path runtimeDir; // the user's run-time directory
    std::filesystem::path dbusSessionFile;
    std::string cookie; // of the X authority file, hexadecimal
    uint8_t depth = 24;
    uint16_t width = 1280;
    uint16_t height = 1024;
    std::filesystem::path xorgPath;
    std::list<std::string> xorgArgs;
    std::string xorgSocket;
    std::filesystem::path program;
    std::list<std::string> args;
    bool onScreenKeyboard = false;
    std::string debugLevel; // the daemon's "debug:level"
};

// The plan as one JSON text, and back. decodePlan throws vexa_error("decodePlan") on anything but a complete
// plan.
std::string encodePlan(const SessionManagerPlan& plan);
SessionManagerPlan decodePlan(std::string_view text);

// The PAM item that names the session's display to the PAM modules ("X11:" and the display).
std::string pamTtyItem(uint32_t display);

// Environment entries the session manager adds for the session script.
std::list<std::string> sessionManagerEnvironment(const SessionManagerPlan& plan);

// The whole life of the session manager; returns the process's exit status. The caller has installed
// signalHandlerSessionManager for SIGTERM, SIGINT, SIGHUP and SIGCHLD, and set the plan's debug level.
int runSessionManagerProcess(SessionManagerPlan plan);

// Records a request to end the session; the session script then receives SIGTERM.
void signalHandlerSessionManager(int sig);

} // namespace Vexa
