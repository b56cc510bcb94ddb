#pragma once

// The login screen's pure parts: its command line, the session request it sends for what was typed, what a
// refusal says to the user, where the user's session is shown, and the bus methods it calls. No GTK, no bus;
// any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace Vexa::Greeter {

struct Options {
    // The RDP transport that shows this screen: the user's session is handed to it, and the screen ends with it.
    pid_t transport = 0;
};

// "--transport PID" (a positive process id), as the service starts the login helper; nullopt with the reason in
// `problem` for anything else.
std::optional<Options> parseArguments(const std::vector<std::string_view>& args, std::string& problem);

struct LoginRequest {
    std::string user;
    std::string password;
    std::string domain;
    // A published program to run instead of the desktop; empty for the desktop.
    std::string program;
    // The screen's size: the user's session starts at the size of the client that shows this screen.
    uint32_t width = 0;
    uint32_t height = 0;
};

// The user name as typed, without the blanks around it (a user name never holds any).
std::string trimmedUserName(std::string_view typed);

// The JSON text of vexaSessionRequest. Holds the password: wipe it after use.
std::string sessionRequestJson(const LoginRequest& request);

// What the screen says about the reply of a session request that is not a session id. An unknown user and a
// wrong password read alike: the screen does not tell which accounts exist.
std::string refusalText(int32_t reply);

struct SessionDisplay {
    int32_t display = -1;
    std::string xauthfile;
};

// The display and authority file of a session from its vexaSessionInfoJson report; nullopt when the report has
// neither.
std::optional<SessionDisplay> sessionDisplay(std::string_view report);

// How long the login screen stays at most, from its own session's report: the login session's whole time and its
// time without a transport; 0 (no limit of its own) when the report gives neither.
uint32_t screenLifetime(std::string_view report);

// The display number of an X display name (":101", ":101.0", "unix:7"); nullopt for anything else.
std::optional<int32_t> displayNumber(std::string_view name);

// One bus method as this program calls it: name and D-Bus signatures (the unit tests hold them against the
// interface description).
struct BusMethod {
    std::string_view name;
    std::string_view in;
    std::string_view out;
};
const std::vector<BusMethod>& busMethods();
// The table's entry for a method (which must be in it).
const BusMethod& busMethod(std::string_view name);

} // namespace Vexa::Greeter
