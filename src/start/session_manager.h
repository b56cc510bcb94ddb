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
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "common/events.h"

namespace Vexa {

inline constexpr const char* xsessionScript = "/usr/libexec/vexa/xsession.sh";

// Exit status of the session manager (and of its password check) when PAM refused the password.
inline constexpr int exitAuthFailed = 2;
// What the session manager writes back on its standard input, a socket, once the PAM session is open (logind
// knows the session from then on). Nothing else is ever written there.
inline constexpr std::string_view sessionOpenedNote = "opened\n";
// The argument that makes the session manager program check a password and nothing else.
inline constexpr const char* passwordCheckOption = "--check";

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

// A password check: what the daemon hands the session manager program's checking mode.
struct PasswordCheck {
    std::string user;
    std::string pamService;
    std::string password; // never logged
    std::string debugLevel;
};
std::string encodePasswordCheck(const PasswordCheck& check);
PasswordCheck decodePasswordCheck(std::string_view text);
// The checking mode: authenticates through PAM; EXIT_SUCCESS, exitAuthFailed, or EXIT_FAILURE when the check
// could not be made.
int runPasswordCheck(const PasswordCheck& check);

// The session manager program started by the daemon: `program` with `args`, `input` on a socket that is its
// standard input (the daemon's end shut for writing once all is sent, so the program reads to its end), and
// the daemon's environment without what belongs to its own service manager. `input` is wiped. Everything the
// child needs is made before fork(). Throws vexa_error("runSessionManager") when it cannot be started.
struct StartedProgram {
    pid_t pid = -1;
    Utils::UniqueFd channel; // the daemon's end: what the program writes back
};
StartedProgram startSessionManagerProgram(const char* program, std::span<const char* const> args, std::string& input);

// Checks a password through PAM in the session manager program's checking mode, so that PAM modules never run
// inside the multi-threaded daemon and a refused password's delay holds up only the thread that waits for it.
// Ends the check early, as refused, when `stopFd` becomes readable. True when PAM accepted the password.
bool checkPasswordProcess(const char* program, const PasswordCheck& check, int stopFd);

// The PAM item that names the session's display to the PAM modules ("X11:" and the display).
std::string pamTtyItem(uint32_t display);

// Environment entries the session manager adds for the session script.
std::list<std::string> sessionManagerEnvironment(const SessionManagerPlan& plan);

// The whole life of the session manager; returns the process's exit status (exitAuthFailed when PAM refused
// the password). The caller has installed
// signalHandlerSessionManager for SIGTERM, SIGINT, SIGHUP and SIGCHLD, and set the plan's debug level.
int runSessionManagerProcess(SessionManagerPlan plan);

// Records a request to end the session; the session script then receives SIGTERM.
void signalHandlerSessionManager(int sig);

} // namespace Vexa
