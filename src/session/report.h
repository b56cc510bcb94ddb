#pragma once

// JSON reports of sessions for management and monitoring clients. Stateless functions; sessionJson reads the
// session's fields without taking the sessions lock, so the caller holds it.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>

#include "session.h"

namespace Vexa {

// Root window of a session's X display, read at report time through an X connection.
struct DisplayGeometry {
    uint8_t depth = 0;
    uint16_t width = 0;
    uint16_t height = 0;
};

// The session as one JSON object with its keys in a fixed order: the user record (when there is one), the
// session manager, display, limits and times, transports, systemd placement, resource limits, the display
// geometry (only when given), security, redirection and connect policies. Strings are escaped to plain ASCII
// (other characters as \u sequences), so the text is valid UTF-8 whatever the account data holds.
// `withNtlm`: the "ntlm" line carries the NT hash (a password equivalent) only for callers that need it; for the
// others it is empty.
std::string sessionJson(const Session& session, const std::optional<DisplayGeometry>& geometry, bool withNtlm);

// The processes owned by `uid`, as [{"pid":N,"cmd":"<executable>"},...] in directory order. Entries of `procDir`
// that are not process directories, or whose executable cannot be read, are left out.
std::string userProcessesJson(uid_t uid, const std::filesystem::path& procDir = "/proc");

} // namespace Vexa
