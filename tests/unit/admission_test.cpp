#include <map>

#include <gtest/gtest.h>

#include "auth/admission.h"
#include "common/logger.h"
#include "test_support.h"

using namespace Vexa;
using TestSupport::logged;

namespace {

// Accounts, groups and shadow entries of a made-up system.
struct FakeSystem {
    std::map<std::string, std::string> shells{{"alice", "/bin/bash"}, {"bob", "/bin/bash"}, {"carol", "/bin/false"}};
    std::map<std::string, std::list<std::string>> groups{{"staff", {"bob"}}, {"rdp", {"alice", "carol"}}};
    std::map<std::string, spwd> shadows;
    bool connectAllowed = true;

    AdmissionLookups lookups() {
        AdmissionLookups l;
        l.user = [this](const std::string& name) -> std::unique_ptr<UserInfo> {
            if (!shells.count(name)) {
                return nullptr;
            }
            passwd entry{};
            entry.pw_name = const_cast<char*>(name.c_str());
            entry.pw_shell = const_cast<char*>(shells.at(name).c_str());
            return std::make_unique<UserInfo>(entry, false);
        };
        l.shadow = [this](const std::string& name) {
            return shadows.count(name) ? std::make_unique<ShadowInfo>(shadows.at(name)) : nullptr;
        };
        l.groupMembers = [this](const std::string& name) {
            return groups.count(name) ? groups.at(name) : std::list<std::string>{};
        };
        l.shellAllowed = [](const std::string& shell) { return shell == "/bin/bash"; };
        l.connectAllowed = [this](uint32_t) { return connectAllowed; };
        return l;
    }
};

const std::vector<RegisteredSession> aliceRunning{{7, "alice", "DefaultSession", 101}};

} // namespace

TEST(Admission, StepsRefuseOrAdmitInTheirOrder) {
    struct Case {
        const char* what;
        AdmissionRequest request;
        std::vector<RegisteredSession> sessions;
        AdmissionPolicy policy;
        StartStatus status;
        const char* message; // a text the decision must log ("" for none in particular)
    };
    using S = StartStatus;
    using Groups = std::vector<std::string>;
    const std::vector<Case> cases = {
        {"unknown account",
         {"nobody-here", "DefaultSession"},
         {},
         {},
         S::UserNotFound,
         "startSession: user not found: `nobody-here'"},
        {"shell missing from the shells file only warns",
         {"carol", "DefaultSession"},
         {},
         {},
         S::Success,
         "startSession: user shell not present in /etc/shells, user: carol, shell: `/bin/false'"},
        {"sessions limit reached",
         {"bob", "DefaultSession"},
         aliceRunning,
         {.sessionsLimit = -1},
         S::FullHouse,
         "startSession: sessions full house, limit: 1"},
        {"sessions limit 0 refuses everything",
         {"bob", "DefaultSession"},
         {},
         {.sessionsLimit = 0},
         S::FullHouse,
         "sessions full house, limit: 0"},
        {"the requester counts for the users limit",
         {"alice", "Other"},
         aliceRunning,
         {.usersLimit = 1},
         S::FullHouse,
         "startSession: users full house, limit: 1"},
        {"the users limit set over D-Bus wins",
         {"bob", "DefaultSession"},
         aliceRunning,
         {.usersLimit = 1, .apiUsersLimit = 2},
         S::Success,
         ""},
        {"empty allowed groups disable logins",
         {"alice", "DefaultSession"},
         {},
         {.groupsAllow = Groups{}},
         S::NotAllowed,
         "startSession: logins disabled, user: alice"},
        {"member of a later allowed group",
         {"alice", "DefaultSession"},
         {},
         {.groupsAllow = Groups{"missing-group", "staff", "rdp"}},
         S::Success,
         ""},
        {"member of no allowed group",
         {"bob", "DefaultSession"},
         {},
         {.groupsAllow = Groups{"rdp"}},
         S::NotAllowed,
         "startSession: user is not allowed, user: bob, shell: `/bin/bash'"},
        {"the login helper is not limited",
         {"bob", "LoginSession", RunMode::LoginHelper},
         aliceRunning,
         {.sessionsLimit = 0},
         S::Success,
         ""},
        {"but its user must be in an allowed group",
         {"bob", "LoginSession", RunMode::LoginHelper},
         {},
         {.groupsAllow = Groups{"rdp"}},
         S::NotAllowed,
         "user is not allowed"},
    };
    FakeSystem system;
    for (const auto& c : cases) {
        AdmissionResult result;
        const auto log = logged([&] { result = admitAccount(c.request, c.sessions, c.policy, system.lookups()); });
        EXPECT_EQ(result.status, c.status) << c.what;
        EXPECT_NE(log.find(c.message), std::string::npos) << c.what << ":\n" << log;
        EXPECT_EQ(result.user != nullptr, c.status == S::Success) << c.what;
        EXPECT_FALSE(result.reuse) << c.what;
    }
}

TEST(Admission, RunningSessionOfTheSameUserAndNameIsReusedUnlessThePolicyRefuses) {
    FakeSystem system;
    const AdmissionRequest request{"alice", "DefaultSession", RunMode::UserSession};
    AdmissionResult result;
    const auto log = logged([&] { result = admitAccount(request, aliceRunning, AdmissionPolicy{}, system.lookups()); });
    EXPECT_EQ(result.status, StartStatus::Success);
    EXPECT_EQ(result.reuse, 7u);
    EXPECT_NE(log.find("startSession: session found, session id: 7, display: 101"), std::string::npos) << log;

    system.connectAllowed = false;
    EXPECT_EQ(admitAccount(request, aliceRunning, AdmissionPolicy{}, system.lookups()).status,
              StartStatus::PolicyRefused);

    // Another session name, or the login helper's mode, starts a new session.
    EXPECT_FALSE(admitAccount({"alice", "Other"}, aliceRunning, AdmissionPolicy{}, system.lookups()).reuse);
    EXPECT_FALSE(admitAccount({"alice", "DefaultSession", RunMode::LoginHelper}, aliceRunning, AdmissionPolicy{},
                              system.lookups())
                     .reuse);
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
        FakeSystem system;
        spwd entry{};
        entry.sp_namp = const_cast<char*>("alice");
        entry.sp_lstchg = c.lastChange;
        entry.sp_max = c.maxDays;
        entry.sp_inact = c.inactDays;
        entry.sp_expire = c.expireDay;
        system.shadows["alice"] = entry;
        StartStatus status{};
        const auto log = logged([&] { status = checkShadowPolicy("alice", system.lookups(), today); });
        EXPECT_EQ(status, c.status) << c.lastChange << '/' << c.maxDays << '/' << c.expireDay;
        if (c.status != S::Success) {
            const std::string expected =
                std::string("startSession: ShadowInfo failed, user: `alice', error: `") + c.reason + "'";
            EXPECT_NE(log.find(expected), std::string::npos) << log;
        }
    }
    // No shadow entry: admitted, with the error logged.
    FakeSystem system;
    StartStatus status{};
    const auto log = logged([&] { status = checkShadowPolicy("alice", system.lookups(), today); });
    EXPECT_EQ(status, StartStatus::Success);
    EXPECT_NE(log.find("startSession: ShadowInfo failed, user: `alice', error: `unknown'"), std::string::npos);
}
