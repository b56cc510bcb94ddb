#pragma once

// Whether an account may have a session: reuse of a running session, session and user limits, account,
// shell, allowed groups, platform labels and the shadow password policy, in this order.
// Pure decision over the registry state it is given; the system databases are reached only through the
// lookups in AdmissionLookups, so that every refusal can be tested without them.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/accounts.h"

namespace Vexa {

enum class RunMode : uint32_t {
    LoginHelper = 0,
    UserSession = 1,
    UserSessionRequest = 2,
};

enum class StartStatus : int {
    Success = 0,
    UserNotFound = 1,
    AccountExpired = 2,
    PasswordExpired = 3,
    StartFailed = 4,
    PolicyRefused = 5,
    FullHouse = 6,
    NotAllowed = 9,
};

// What admission needs to know of one registered session.
struct RegisteredSession {
    uint32_t id = 0;
    std::string userName;
    std::string sessionName;
    int32_t display = -1;
};

struct AdmissionRequest {
    std::string userName;
    std::string sessionName;
    RunMode mode = RunMode::UserSessionRequest;
};

struct AdmissionPolicy {
    int32_t sessionsLimit = 1000;                        // "sessions:limit" as configured (absolute value used)
    int32_t usersLimit = 200;                            // "users:limit" as configured (absolute value used)
    uint32_t apiUsersLimit = 0;                          // set over D-Bus; wins when non-zero
    std::optional<std::vector<std::string>> groupsAllow; // "groups:allow"; absent: no group restriction
    bool shadowPolicy = false;                           // "shadow:policy"
    std::string loginHelperUser = "vexa-login";          // "login:helper:user": the login helper's only account
    bool rootLogin = false;                              // "login:root:allow": sessions for uid 0
};

struct AdmissionLookups {
    std::function<std::unique_ptr<UserInfo>(const std::string&)> user;
    std::function<std::unique_ptr<ShadowInfo>(const std::string&)> shadow;
    std::function<std::list<std::string>(const std::string&)> groupMembers;
    std::function<bool(const std::string&)> shellAllowed;
    // The connection policy's answer for handing a running session to one more connection.
    std::function<bool(uint32_t sessionId)> connectAllowed;

    // The system's own databases and "/etc/shells"; connections always allowed.
    static AdmissionLookups system();
};

struct AdmissionResult {
    StartStatus status = StartStatus::Success;
    std::optional<uint32_t> reuse;  // a running session to hand out (status Success)
    std::unique_ptr<UserInfo> user; // the account, when the start may go on (status Success, no reuse)
};

// Days since the epoch of the system clock, whole days.
int64_t daysSinceEpoch();

// The admission steps before the start sequence builds the session (reuse, limits, account, shell, groups,
// labels).
AdmissionResult admitAccount(const AdmissionRequest& request, const std::vector<RegisteredSession>& sessions,
                             const AdmissionPolicy& policy, const AdmissionLookups& lookups);

// The shadow password policy, run by the start sequence once the session record exists (every mode but the
// login helper's, and only when "shadow:policy" is set). Success, PasswordExpired or AccountExpired.
StartStatus checkShadowPolicy(const std::string& userName, const AdmissionLookups& lookups, int64_t today);

} // namespace Vexa
