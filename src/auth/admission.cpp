#include "admission.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <set>

#include "common/logger.h"

namespace Vexa {

namespace {

// Admission is a step of the session start; its lines carry that name.
constexpr const char* self = "startSession";

AdmissionResult refused(StartStatus status) {
    AdmissionResult result;
    result.status = status;
    return result;
}

StartStatus shadowRefusal(const std::string& userName, const char* reason, StartStatus status) {
    Syslog::error("%s: %s failed, user: `%s', error: `%s'", self, "ShadowInfo", userName.c_str(), reason);
    return status;
}

uint32_t absolute(int32_t value) {
    return static_cast<uint32_t>(std::llabs(static_cast<long long>(value)));
}

} // namespace

AdmissionLookups AdmissionLookups::system() {
    AdmissionLookups lookups;
    lookups.user = [](const std::string& name) { return Utils::getUserInfo(name, false); };
    lookups.shadow = [](const std::string& name) { return Utils::getShadowInfo(name); };
    lookups.groupMembers = [](const std::string& name) { return Utils::getGroupMembers(name); };
    lookups.shellAllowed = [](const std::string& shell) { return checkAllowShell(shell); };
    lookups.connectAllowed = [](uint32_t) { return true; };
    return lookups;
}

int64_t daysSinceEpoch() {
    using Days = std::chrono::duration<int64_t, std::ratio<86400>>;
    return std::chrono::duration_cast<Days>(std::chrono::system_clock::now().time_since_epoch()).count();
}

AdmissionResult admitAccount(const AdmissionRequest& request, const std::vector<RegisteredSession>& sessions,
                             const AdmissionPolicy& policy, const AdmissionLookups& lookups) {
    const auto& name = request.userName;

    if (request.mode != RunMode::LoginHelper) {
        const auto reuse = std::find_if(sessions.begin(), sessions.end(), [&request](const auto& session) {
            return session.userName == request.userName && session.sessionName == request.sessionName;
        });
        if (reuse != sessions.end()) {
            Syslog::info("%s: session found, session id: %u, display: %u", self, reuse->id,
                         static_cast<uint32_t>(reuse->display));
            if (!lookups.connectAllowed(reuse->id)) {
                return refused(StartStatus::PolicyRefused);
            }
            AdmissionResult result;
            result.reuse = reuse->id;
            return result;
        }

        const uint32_t sessionsLimit = absolute(policy.sessionsLimit);
        if (sessions.size() >= sessionsLimit) {
            Syslog::warning("%s: sessions full house, limit: %d", self, static_cast<int>(sessionsLimit));
            return refused(StartStatus::FullHouse);
        }

        // The requesting user counts like any other, also when it already has a session.
        const uint32_t usersLimit = policy.apiUsersLimit ? policy.apiUsersLimit : absolute(policy.usersLimit);
        std::set<std::string> users;
        for (const auto& session : sessions) {
            users.insert(session.userName);
        }
        if (usersLimit <= users.size()) {
            Syslog::warning("%s: users full house, limit: %d", self, static_cast<int>(usersLimit));
            return refused(StartStatus::FullHouse);
        }
    }

    if (request.mode == RunMode::LoginHelper && name != policy.loginHelperUser) {
        Syslog::error("%s: login helper refused, user: %s, only for: %s", self, name.c_str(),
                      policy.loginHelperUser.c_str());
        return refused(StartStatus::NotAllowed);
    }

    auto user = lookups.user(name);
    if (!user) {
        Syslog::error("%s: user not found: `%s'", self, name.c_str());
        return refused(StartStatus::UserNotFound);
    }
    if (user->uid == 0 && !policy.rootLogin) {
        Syslog::error("%s: root login refused, user: %s", self, name.c_str());
        return refused(StartStatus::NotAllowed);
    }
    Syslog::debug("%s: user: %s, uid: %d, gid: %d, home: `%s', shell: `%s'", self, user->name.c_str(), user->uid,
                  user->gid, user->home.c_str(), user->shell.c_str());

    if (!lookups.shellAllowed(user->shell)) {
        Syslog::warning("%s: %s, user: %s, shell: `%s'", self, "user shell not present in /etc/shells", name.c_str(),
                        user->shell.c_str());
    }

    if (policy.groupsAllow) {
        if (policy.groupsAllow->empty()) {
            Syslog::error("%s: %s, user: %s", self, "logins disabled", name.c_str());
            return refused(StartStatus::NotAllowed);
        }
        const bool member = std::any_of(policy.groupsAllow->begin(), policy.groupsAllow->end(), [&](const auto& group) {
            const auto members = lookups.groupMembers(group);
            return std::find(members.begin(), members.end(), name) != members.end();
        });
        if (!member) {
            Syslog::error("%s: %s, user: %s, shell: `%s'", self, "user is not allowed", name.c_str(),
                          user->shell.c_str());
            return refused(StartStatus::NotAllowed);
        }
    }

    // The platform's mandatory access labels are reported here where the platform has them; this one has none.

    AdmissionResult result;
    result.user = std::move(user);
    return result;
}

StartStatus checkShadowPolicy(const std::string& userName, const AdmissionLookups& lookups, int64_t today) {
    const auto shadow = lookups.shadow(userName);
    if (!shadow) {
        Syslog::error("%s: %s failed, user: `%s', error: `%s'", self, "ShadowInfo", userName.c_str(), "unknown");
        return StartStatus::Success;
    }
    Syslog::debug("%s: shadow info for `%s', minOfDaysBetweenChanges: %ld, maxOfDaysBetweenChanges: %ld, "
                  "warnOfDaysBeforePasswordExpires: %ld, inactOfDaysAfterPasswordExpires: %ld, "
                  "dateWhenAccountExpires: %ld",
                  self, userName.c_str(), static_cast<long>(shadow->minDays), static_cast<long>(shadow->maxDays),
                  static_cast<long>(shadow->warnDays), static_cast<long>(shadow->inactDays),
                  static_cast<long>(shadow->expireDay));

    if (shadow->lastChange == 0) {
        return shadowRefusal(userName, "password expired", StartStatus::PasswordExpired);
    }
    if (shadow->lastChange > 0 && shadow->maxDays > 0) {
        // Checked first on purpose: an account whose inactivity period has also run out is "password expired".
        if (shadow->lastChange + shadow->maxDays <= today) {
            return shadowRefusal(userName, "password expired", StartStatus::PasswordExpired);
        }
        if (shadow->inactDays > 0 && shadow->lastChange + shadow->maxDays + shadow->inactDays <= today) {
            return shadowRefusal(userName, "password expired, account disabled", StartStatus::AccountExpired);
        }
    }
    if (shadow->expireDay > 0 && shadow->expireDay <= today) {
        return shadowRefusal(userName, "account expired", StartStatus::AccountExpired);
    }
    return StartStatus::Success;
}

} // namespace Vexa
