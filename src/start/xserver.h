#pragma once

// The X server of a session: display number, X authority file, command line and start.

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "xcb/xauth_file.h"

namespace Vexa {

class Session;

// Pid of the X server started last by this process.
extern std::atomic<int> pidXorg;

// The display of a new session: `base` when no display is used or the smallest used one differs from it
// (even when `base` itself is used further up, after "display:start" was raised); otherwise the first number
// after the run of consecutive numbers that starts at `base`. Negative entries (no display yet) and repeats
// are ignored. Called under the sessions lock with the displays of all registered sessions.
uint32_t chooseDisplay(uint32_t base, std::vector<int32_t> used);

// "<runtimeDir>/xauth_<display>"
std::filesystem::path xauthFilePath(const std::filesystem::path& runtimeDir, uint32_t display);

// The one entry of an X authority file: FamilyLocal, host, display, "MIT-MAGIC-COOKIE-1", cookie, each field
// after its 16-bit big-endian length. Throws std::length_error when the host or the cookie is longer than that.
std::vector<uint8_t> xauthEntry(std::string_view host, uint32_t display, const std::vector<uint8_t>& cookie);

// Writes a fresh X authority file for the display (32-byte cookie, mode 0440, owner `user`, group `group`)
// and returns its path. The entry is written under a temporary name and renamed into place, so the path never
// names a partly written file. Changes the process-wide umask for the moment of the file's creation.
// Throws std::runtime_error("createXauthFile") when it cannot be written.
std::filesystem::path createXauthFile(const std::filesystem::path& runtimeDir, uint32_t display, std::string_view user,
                                      std::string_view group);

// True when the system X wrapper would refuse a server started by a non-console process.
bool checkXWrapperAllowedOnlyConsole(const std::filesystem::path& config = "/etc/X11/Xwrapper.config");

// The X server's arguments: the built-in template when `args` is empty, "-logfile /dev/null" forced, the
// depth rule applied (16 and 24 kept, 0 and others 24) and the placeholders replaced.
std::list<std::string> xorgArguments(std::list<std::string> args, uint32_t display, uint8_t depth, uint16_t width,
                                     uint16_t height, const std::filesystem::path& authfile);

// Starts the session's X server as root with its output to /dev/null and returns its pid (also kept in
// pidXorg); the caller reaps it. "/usr/bin/Xorg" is replaced by "/usr/lib/xorg/Xorg" when the wrapper would
// refuse us. Throws vexa_error when the session is null, and what runChildProcess throws.
pid_t runXorgDisplay(const Session* session, const std::list<std::string>& args, const std::filesystem::path& path,
                     const std::list<std::string>& env, uint8_t depth, uint16_t width, uint16_t height);

// Waits up to 5 s for the socket of "xvfb:sock" (with "%{display}" replaced), returning as soon as it is there;
// throws std::runtime_error("runXorgDisplay failed") when it does not appear or the server (`pid`) ends first.
// Returns early, without the socket, when `stopFd` becomes readable.
void waitXorgSocket(std::string_view socketTemplate, uint32_t display, pid_t pid, int stopFd = -1);

// After the X server `pid` of the display died without its own tear-down (SIGKILL, a crash): its lock file
// "/tmp/.X<display>-lock", when it still names that pid, and its socket are removed, so that the next server on
// the display neither refuses to start nor is taken for up before it listens.
void removeDeadServerFiles(std::string_view socketTemplate, uint32_t display, pid_t pid);

namespace Utils {

// Bytes from a per-256-byte-block shuffle of all byte values (mt19937 seeded from the random device).
std::vector<uint8_t> randomBytes(size_t count);
// The node name; empty (and logged) when it cannot be read.
std::string getHostname();
// chown to the user and group names (unknown names leave that id unchanged); false on failure.
bool setOwner(const std::filesystem::path& path, std::string_view user, std::string_view group);

} // namespace Utils
} // namespace Vexa
