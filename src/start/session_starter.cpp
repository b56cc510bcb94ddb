#include "session_starter.h"

#include "common/logger.h"
#include "common/utils.h"
#include "start/xserver.h"

namespace Vexa {

namespace {

constexpr const char* self = "startSession";

// Fixed limits of a session that shows the login screen.
constexpr uint32_t loginDurationLimit = 300;
constexpr uint32_t loginInactivityLimit = 60;
constexpr uint32_t loginDisconnectLimit = 30;

} // namespace

uint32_t SessionStarter::nextSessionId(const SessionRegistry::Map& map) {
    // Ids are handed out in turn from a counter that lives as long as the service, skipping 0 and every id
    // still registered; a session id is therefore not reused while the service runs unless the counter wraps.
    // The logind session number is not used: it is known only after the record is registered.
    do {
        ++lastSessionId;
    } while (lastSessionId == 0 || map.contains(lastSessionId));
    return lastSessionId;
}

SessionStarter::Admitted SessionStarter::admit(const StartSessionArgs& args, const StartContext& context) {
    const AdmissionRequest request{args.user, args.sessionName, args.mode};
    Admitted result;
    sessions.locked([&](SessionRegistry::Map& map) {
        std::vector<RegisteredSession> registered;
        std::vector<int32_t> displays;
        registered.reserve(map.size());
        displays.reserve(map.size());
        for (const auto& [id, entry] : map) {
            registered.push_back(
                {id, entry->user ? entry->user->name : std::string(), entry->xsessionName, entry->display});
            displays.push_back(entry->display);
        }
        auto admitted = admitAccount(request, registered, context.policy, context.lookups);
        result.status = admitted.status;
        if (result.status != StartStatus::Success) {
            return;
        }
        if (admitted.reuse) {
            if (auto pending = starting.find(*admitted.reuse); pending != starting.end()) {
                result.startingElsewhere = pending->second.done;
                return;
            }
            result.session = map.at(*admitted.reuse);
            result.reuse = true;
            return;
        }
        if (args.mode != RunMode::LoginHelper && context.policy.shadowPolicy) {
            result.status = checkShadowPolicy(args.user, context.lookups, daysSinceEpoch());
            if (result.status != StartStatus::Success) {
                return;
            }
        }

        // Sessions of one user share one user record.
        std::shared_ptr<UserEx> user;
        for (const auto& [id, entry] : map) {
            if (entry->user && entry->user->name == args.user) {
                user = entry->user;
                break;
            }
        }
        if (!user) {
            user = std::make_shared<UserEx>(*admitted.user);
            user->runtimedir = Utils::stringReplace(context.runtimeTemplate, "%{uid}", std::to_string(user->uid));
        }
        user->domain = args.domain;

        auto session = std::make_shared<Session>(nextSessionId(map), user, context.defaults);
        session->display = static_cast<int32_t>(chooseDisplay(context.defaults.displayStart, displays));
        session->xsessionName = args.sessionName;
        session->xsessionProg = args.program;
        session->xsessionArgs = args.args;
        // A published program runs on its own, without a desktop: a seamless session.
        session->seamlessMode = args.mode == RunMode::UserSession;
        if (args.mode == RunMode::LoginHelper) {
            session->loginMode = true;
            session->durationLimit = loginDurationLimit;
            session->inactivityLimit = loginInactivityLimit;
            session->disconnectLimit = loginDisconnectLimit;
        }
        map.emplace(session->sid, session);
        starting.try_emplace(session->sid);
        result.session = std::move(session);
    });
    return result;
}

StartSessionResult SessionStarter::start(const StartSessionArgs& args, const StartContext& context) {
    // A user session is never opened on the strength of a bus call alone: the caller proves the user with a
    // password (checked by PAM) or with a transport token that was already accepted.
    if (args.mode != RunMode::LoginHelper && !args.noauth && !args.password) {
        Syslog::error("%s: no password and no accepted transport token, user: %s", self, args.user.c_str());
        return {nullptr, StartStatus::StartFailed};
    }

    Admitted admitted = admit(args, context);
    while (admitted.startingElsewhere.valid()) {
        Syslog::debug("%s: session of user %s is starting, waiting for it", self, args.user.c_str());
        admitted.startingElsewhere.wait();
        admitted = admit(args, context);
    }
    if (admitted.status != StartStatus::Success) {
        return {nullptr, admitted.status};
    }
    if (admitted.reuse) {
        return reuse(admitted.session, args, context);
    }

    StartSessionResult result{nullptr, StartStatus::StartFailed};
    try {
        result = steps.launch(admitted.session, args, context);
    } catch (...) {
        finish(admitted.session, false);
        throw;
    }
    finish(admitted.session, result.session != nullptr);
    if (!result.session && result.status == StartStatus::Success) {
        result.status = StartStatus::StartFailed;
    }
    return result;
}

StartSessionResult SessionStarter::reuse(const SessionPtr& session, const StartSessionArgs& args,
                                         const StartContext& context) {
    // The running session is handed out only to a caller who proves the user again.
    if (args.password && !steps.checkPassword(args.user, *args.password, context)) {
        Syslog::error("%s: pam checkAuthenticate failed, user: %s", self, args.user.c_str());
        return {nullptr, StartStatus::StartFailed, true};
    }
    steps.reuse(*session, args, context);
    return {session, StartStatus::Success};
}

void SessionStarter::finish(const SessionPtr& session, bool running) {
    std::promise<void> done;
    sessions.locked([&](SessionRegistry::Map& map) {
        if (!running) {
            if (auto found = map.find(session->sid); found != map.end() && found->second == session) {
                map.erase(found);
            }
        }
        if (auto pending = starting.find(session->sid); pending != starting.end()) {
            done = std::move(pending->second.promise);
            starting.erase(pending);
        }
    });
    // Waiters admit again only now, with the registry as the outcome left it.
    done.set_value();
}

} // namespace Vexa
