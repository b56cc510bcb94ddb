#pragma once

// Saved per-user limits and policies: one file "<uid>.json" in the store directory, written when a session
// ends and read when the next session of the same user is created. Stateless functions; they read or write
// the session's fields without taking the sessions lock, so the caller holds it or is the only user of the
// session (a session being created, or one whose processes have ended).

#include <filesystem>
#include <string>

#include "session.h"

namespace Vexa {

// "<storeDir>/<uid>.json"
std::filesystem::path sessionStatePath(const std::filesystem::path& storeDir, int32_t uid);

// The file's content: one JSON object on one line, the nine values in their fixed order, newline-terminated.
std::string sessionStateText(const Session& session);

// Replaces the file of the session's user atomically (a temporary file in the store directory, mode 0640,
// renamed over it), so that a reader never sees half a file. False when nothing was written.
bool sessionSaveState(const Session* session, const std::filesystem::path& storeDir);

// Restores the saved values into a new session when its user has a file. Keys that are missing, or whose
// value is no integer within 32 bits, keep the session's value; a negative number becomes the large unsigned
// value of the same bits.
void sessionLoadState(Session* session, const std::filesystem::path& storeDir);

} // namespace Vexa
