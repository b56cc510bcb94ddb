#include "session_command.h"

#include "common/logger.h"
#include "common/process.h"
#include "common/vexa_error.h"
#include "session/session.h"

namespace Vexa {

SessionCommand runSessionCommand(const Session* session, const std::filesystem::path& cmd,
                                 const std::list<std::string>& args, const std::list<std::string>& extraEnv,
                                 bool hideArgs) {
    if (!session) {
        Syslog::error("%s: session null", "runSessionCommand");
        throw vexa_error("runSessionCommand");
    }

    std::string joined;
    for (const auto& arg : args) {
        joined.append(joined.empty() ? "" : ", ").append(arg);
    }

    auto env = session->environments();
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());

    const std::string userName = session->user ? session->user->name : std::string();
    const pid_t pid = Utils::runChildProcess(cmd, args, env, userName.empty() ? nullptr : userName.c_str(), nullptr);
    Syslog::info("%s: session id: %u, username: %s, cmd: %s, args: [ %s ], pid: %d", "runSessionCommand", session->sid,
                 userName.c_str(), cmd.c_str(), hideArgs ? "hidden arguments" : joined.c_str(), pid);
    auto pidfd = Utils::processFd(pid);
    return SessionCommand{pid, std::move(pidfd), Utils::waitChildBack(pid)};
}

} // namespace Vexa
