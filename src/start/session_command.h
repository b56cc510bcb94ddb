#pragma once

// Programs started inside a session, with the session's environment.

#include <filesystem>
#include <future>
#include <list>
#include <string>

namespace Vexa {

class Session;

// Starts `cmd` in the background with the session's environment followed by `extraEnv`; logs the start
// (with "hidden arguments" in place of the arguments when `hideArgs`). Throws vexa_error when the session is
// null.
std::future<int> runSessionCommand(const Session* session, const std::filesystem::path& cmd,
                                   const std::list<std::string>& args, const std::list<std::string>& extraEnv,
                                   bool hideArgs);

} // namespace Vexa
