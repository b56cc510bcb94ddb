#include <map>

#include <gtest/gtest.h>

#include "auth/admission.h"
#include "test_support.h"

using namespace Vexa;
using TestSupport::contains;
using TestSupport::logged;

namespace {

// A made-up system: carol's shell is not in the shells file; only alice has a shadow entry, when one is given.
AdmissionLookups lookups(bool connectAllowed = true, std::optional<spwd> shadow = std::nullopt) {
    static const std::map<std::string, std::list<std::string>> groups{{"staff", {"bob"}}, {"rdp", {"alice", "carol"}}};
    AdmissionLookups l;
    l.user = [](const std::string& name) -> std::unique_ptr<UserInfo> {
        if (name != "alice" && name != "bob" && name != "carol" && name != "root") {
            return nullptr;
        }
        auto user = std::make_unique<UserInfo>(passwd{}, false);
        user->name = name;
        user->uid = name == "root" ? 0 : 1000;
        user->shell = name == "carol" ? "/bin/false" : "/bin/bash";
        return user;
    };
    l.shadow = [shadow](const std::string& name) {
        return shadow && name == "alice" ? std::make_unique<ShadowInfo>(*shadow) : nullptr;
    };
    l.groupMembers = [](const std::string& name) {
        return groups.count(name) ? groups.at(name) : std::list<std::string>{};
    };
    l.shellAllowed = [](const std::string& shell) { return shell == "/bin/bash"; };
    l.connectAllowed = [connectAllowed](uint32_t) { return connectAllowed; };
    return l;
}

const std::vector<RegisteredSession> aliceRunning{{7, "alice", "DefaultSession", 101}};

} // namespace

TEST(Admission, StepsRefuseOrAdmitInTheirOrder) {
    struct Case {
        const char* user;
        const char* sessionName;
        AdmissionPolicy policy;
        StartStatus status;
        const char* message; // a text the decision must log ("" for none in particular)
        RunMode mode = RunMode::UserSessionRequest;
        uint32_t reuse = 0;
    };
    using S = StartStatus;
    using M = RunMode;
    using Groups = std::vector<std::string>;
    const Groups rdp{"rdp"};
    const std::string self = "startSession: ";
    const Case cases[] = {
        {"alice", "DefaultSession", {}, S::Success, "session found, session id: 7, display: 101", M::UserSession, 7},
        {"nobody-here", "DefaultSession", {}, S::UserNotFound, "user not found: `nobody-here'"},
        {"carol", "Other", {}, S::Success, "user shell not present in /etc/shells, user: carol, shell: `/bin/false'"},
        {"bob", "DefaultSession", {.sessionsLimit = -1}, S::FullHouse, "sessions full house, limit: 1"},
        // The requester counts, also with a session of its own; the limit set over D-Bus wins.
        {"alice", "Other", {.usersLimit = 1}, S::FullHouse, "users full house, limit: 1"},
        {"bob", "DefaultSession", {.usersLimit = 1, .apiUsersLimit = 2}, S::Success, ""},
        {"alice", "Other", {.groupsAllow = Groups{}}, S::NotAllowed, "logins disabled, user: alice"},
        {"alice", "Other", {.groupsAllow = Groups{"missing-group", "staff", "rdp"}}, S::Success, ""},
        {"bob", "Other", {.groupsAllow = rdp}, S::NotAllowed, "user is not allowed, user: bob, shell: `/bin/bash'"},
        // The login helper reuses nothing and is not limited, but its user must be in an allowed group.
        {"alice", "DefaultSession", {.sessionsLimit = 0, .loginHelperUser = "alice"}, S::Success, "", M::LoginHelper},
        {"bob",
         "Login",
         {.groupsAllow = rdp, .loginHelperUser = "bob"},
         S::NotAllowed,
         "user is not allowed",
         M::LoginHelper},
        // Login-helper sessions run as the one configured account only (vexa-login by default), root's sessions
        // only when allowed.
        {"alice",
         "Login",
         {},
         S::NotAllowed,
         "login helper refused, user: alice, only for: vexa-login",
         M::LoginHelper},
        {"root", "Login", {.loginHelperUser = "vexa-login"}, S::NotAllowed, "login helper refused", M::LoginHelper},
        {"root", "DefaultSession", {}, S::NotAllowed, "root login refused, user: root"},
        {"root", "DefaultSession", {.rootLogin = true}, S::Success, ""},
    };
    for (const auto& c : cases) {
        AdmissionResult result;
        const auto log = logged([&] {
            result = admitAccount({c.user, c.sessionName, c.mode}, aliceRunning, c.policy, lookups());
        });
        EXPECT_EQ(result.status, c.status) << c.message;
        EXPECT_TRUE(contains(log, *c.message ? self + c.message : "")) << c.message << ":\n" << log;
        EXPECT_EQ(result.reuse.value_or(0), c.reuse) << c.message;
        EXPECT_EQ(result.user != nullptr, c.status == S::Success && !c.reuse) << c.message;
    }
    EXPECT_EQ(admitAccount({"alice", "DefaultSession"}, aliceRunning, {}, lookups(false)).status, S::PolicyRefused);
}

TEST(Admission, ShadowPolicyRefusesByTheFirstRuleThatMatchesToday) {
    constexpr int64_t today = 20000;
    struct Case {
        long lastChange, maxDays, inactDays, expireDay;
        StartStatus status;
        const char* reason;
    };
    using S = StartStatus;
    const Case cases[] = {
        {0, -1, -1, -1, S::PasswordExpired, "password expired"},      // change forced
        {19900, 100, -1, -1, S::PasswordExpired, "password expired"}, // expires today
        {19900, 101, -1, -1, S::Success, ""},
        {19900, 50, 10, -1, S::PasswordExpired, "password expired"},     // inactivity over too: still this one
        {-1, 10, -1, -1, S::Success, ""},                                // last change not set
        {19999, 99999, -1, today, S::AccountExpired, "account expired"}, // expires on its own day
        {19999, 99999, -1, today + 1, S::Success, ""},
        {19999, -1, -1, 0, S::Success, ""},
    };
    for (const auto& c : cases) {
        const spwd entry{
            .sp_lstchg = c.lastChange, .sp_max = c.maxDays, .sp_inact = c.inactDays, .sp_expire = c.expireDay};
        StartStatus status{};
        const auto log = logged([&] { status = checkShadowPolicy("alice", lookups(true, entry), today); });
        EXPECT_EQ(status, c.status) << c.lastChange << '/' << c.maxDays << '/' << c.expireDay;
        const auto refusal = std::string("startSession: ShadowInfo failed, user: `alice', error: `") + c.reason + "'";
        EXPECT_EQ(contains(log, c.status == S::Success ? "ShadowInfo failed" : refusal), c.status != S::Success) << log;
    }
    // No shadow entry: admitted, with the error logged.
    StartStatus status{};
    const auto log = logged([&] { status = checkShadowPolicy("alice", lookups(), today); });
    EXPECT_EQ(status, StartStatus::Success);
    EXPECT_TRUE(contains(log, "startSession: ShadowInfo failed, user: `alice', error: `unknown'")) << log;
}
