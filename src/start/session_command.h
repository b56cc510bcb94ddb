#pragma once

// Programs started inside a session, with the session's environment.

#include <filesystem>
#include <future>
#include <list>
#include <string>
#include <sys/types.h>

#include "common/events.h"

namespace Vexa {

class Session;

// A program started inside a session: its pid, a pidfd taken before it could be reaped, and its wait status
// once it has ended.
struct SessionCommand {
    pid_t pid = -1;
    Utils::UniqueFd pidfd;
    std::future<int> status;
};

// Starts `cmd` in the background with the session's environment followed by `extraEnv`; logs the start
// (with "hidden arguments" in place of the arguments when `hideArgs`). Throws vexa_error when the session is
// null.
SessionCommand runSessionCommand(const Session* session, const std::filesystem::path& cmd,
                                 const std::list<std::string>& args, const std::list<std::string>& extraEnv,
                                 bool hideArgs);

} // namespace Vexa
