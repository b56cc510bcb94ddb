// The role table against the interface file and the generated bus policy, the roles of group lists, and the
// per-caller request limits.

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "access/rate_limit.h"
#include "access/roles.h"
#include "test_support.h"

using namespace Vexa::Access;

using TestSupport::readFile;

namespace {

// The members the policy file lets each group call ({group: members}); root's and the default's rules apart.
std::map<std::string, std::set<std::string>> policyMembers(const std::string& xml) {
    std::map<std::string, std::set<std::string>> members;
    // Searched by hand: std::regex recurses once per character of a policy body and overflows the stack of a
    // sanitizer build.
    const std::string open = "<policy group=\"", close = "</policy>";
    const std::string allow =
        "<allow send_destination=\"ru.kelvo.vexa\" send_interface=\"ru.kelvo.vexa\" send_member=\"";
    for (size_t at = xml.find(open); at != std::string::npos; at = xml.find(open, at)) {
        const auto nameEnd = xml.find('"', at + open.size());
        const auto bodyEnd = xml.find(close, nameEnd);
        const std::string name = xml.substr(at + open.size(), nameEnd - at - open.size());
        const std::string body = xml.substr(nameEnd, bodyEnd - nameEnd);
        auto& group = members[name];
        for (size_t m = body.find(allow); m != std::string::npos; m = body.find(allow, m + 1)) {
            const auto first = m + allow.size();
            group.insert(body.substr(first, body.find('"', first) - first));
        }
        // Nothing of the interface is open to a group beyond its members.
        EXPECT_EQ(body.find("send_destination=\"ru.kelvo.vexa\"/>"), std::string::npos) << name;
        at = bodyEnd;
    }
    return members;
}

} // namespace

TEST(RoleTable, EveryMethodOfTheInterfaceIsInExactlyOneGroup) {
    std::multiset<std::string> tabled, declared;
    for (const auto& group : methodGroups()) {
        tabled.insert(group.methods.begin(), group.methods.end());
    }
    for (const auto& method : TestSupport::interfaceMethods()) {
        declared.insert(method.first);
    }
    ASSERT_EQ(declared.size(), 103u);
    EXPECT_EQ(tabled, declared); // a method in two groups shows twice
}

TEST(RoleTable, InstalledBusPolicyAllowsEachGroupExactlyTheMethodsOfItsRole) {
    const auto installed = readFile(VEXA_BINARY_DIR "/packaging/ru.kelvo.vexa.conf");
    ASSERT_FALSE(installed.empty());
    EXPECT_EQ(installed, busPolicy());
    const auto members = policyMembers(installed);
    ASSERT_EQ(members.size(), std::size(roleGroups));
    for (const auto& [role, groupName] : roleGroups) {
        std::set<std::string> expected;
        for (const auto& group : methodGroups()) {
            if (group.roles & role) {
                expected.insert(group.methods.begin(), group.methods.end());
            }
        }
        EXPECT_EQ(members.at(std::string(groupName)), expected) << groupName;
    }
    // Stopping the service is root's alone.
    for (const auto& [group, allowed] : members) {
        EXPECT_EQ(allowed.count("busServiceShutdown"), 0u) << group;
    }
}

TEST(RoleTable, EveryPolkitActionIsDeclaredInTheActionsFile) {
    const auto actions = readFile(VEXA_SOURCE_DIR "/packaging/ru.kelvo.vexa.policy");
    for (const auto& group : methodGroups()) {
        if (!group.action.empty()) {
            EXPECT_NE(actions.find("<action id=\"" + std::string(group.action) + "\">"), std::string::npos)
                << group.action;
            EXPECT_TRUE(group.roles & Admin) << group.name;
        }
    }
}

TEST(RoleTable, DecisionsByRole) {
    struct Case {
        const char* method;
        Roles roles;
        Decision expected;
    };
    const Case cases[] = {
        {"vexaStatus", Monitor, Decision::Allowed},
        {"metricsText", Monitor, Decision::Allowed},
        {"metricsText", 0, Decision::Refused},
        {"vexaTransportDisplayDBusAddress", Monitor, Decision::Refused},
        {"vexaSessionRequest", Monitor, Decision::Refused},
        {"vexaSessionRequest", Transport, Decision::Allowed},
        {"proxySessionConnected", Admin, Decision::Refused},
        {"vexaLoginHelperStart", Admin, Decision::Refused},
        {"vexaSessionPolicyRedirectClipboard", Transport, Decision::Refused},
        {"vexaSessionPolicyRedirectClipboard", Admin, Decision::AskPolkit},
        {"busSetDebugLevel", Admin, Decision::AskPolkit},
        // A transport resizes its own display without an administrator's grant.
        {"vexaDisplayResize", Admin, Decision::AskPolkit},
        {"vexaDisplayResize", Admin | Transport, Decision::Allowed},
        {"busServiceShutdown", Admin | Transport | Monitor, Decision::Refused},
        {"vexaStatus", 0, Decision::Refused},
    };
    for (const auto& c : cases) {
        const auto* group = findMethodGroup(c.method);
        ASSERT_NE(group, nullptr) << c.method;
        EXPECT_EQ(decide(*group, c.roles), c.expected) << c.method << " roles " << int(c.roles);
    }
    EXPECT_EQ(findMethodGroup("vexaNoSuchMethod"), nullptr);
}

TEST(RoleTable, RolesComeFromPrimaryAndSupplementaryGroupsOfExistingRoleGroups) {
    const gid_t gidOf[] = {901, 902, static_cast<gid_t>(-1)}; // monitor, transport, admin missing
    const std::vector<gid_t> none{100, 1000};
    const std::vector<gid_t> both{1000, 902, 901};
    const std::vector<gid_t> missing{static_cast<gid_t>(-1)};
    EXPECT_EQ(rolesOfGroups(none, gidOf), 0);
    EXPECT_EQ(rolesOfGroups(both, gidOf), Monitor | Transport);
    EXPECT_EQ(rolesOfGroups(missing, gidOf), 0);
}

TEST(RateLimiter, InFlightLimitEngagesAndReleasesWithTheTicketAndZeroMeansNoLimit) {
    RateLimiter limiter;
    limiter.configure({2, 0});
    const auto now = RateLimiter::Clock::now();
    auto first = limiter.admit("a", now);
    auto second = limiter.admit("a", now);
    ASSERT_TRUE(first.ticket && second.ticket);
    const auto third = limiter.admit("a", now);
    EXPECT_FALSE(third.ticket);
    EXPECT_EQ(third.inFlight, 2u);
    EXPECT_TRUE(limiter.admit("b", now).ticket); // another caller is not held up
    first.ticket.reset();
    EXPECT_TRUE(limiter.admit("a", now).ticket);

    limiter.configure({0, 0});
    std::vector<std::shared_ptr<RateLimiter::Ticket>> held;
    for (int i = 0; i < 100; ++i) {
        held.push_back(limiter.admit("c", now).ticket);
        ASSERT_TRUE(held.back());
    }
}

TEST(RateLimiter, PerMinuteLimitCountsStartsAndForgetsAfterAMinute) {
    RateLimiter limiter;
    limiter.configure({0, 3});
    const auto start = RateLimiter::Clock::now();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(limiter.admit("a", start + std::chrono::seconds(i)).ticket); // released at once
    }
    const auto refused = limiter.admit("a", start + std::chrono::seconds(59));
    EXPECT_FALSE(refused.ticket);
    EXPECT_EQ(refused.lastMinute, 3u);
    EXPECT_TRUE(limiter.admit("a", start + std::chrono::seconds(60)).ticket);
    // Callers with nothing under way and nothing recent are not kept.
    limiter.admit("b", start + std::chrono::seconds(200));
    EXPECT_EQ(limiter.size(), 1u);
}
