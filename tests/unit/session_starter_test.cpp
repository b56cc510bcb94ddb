// The start path under concurrent requests, with fake steps in place of PAM, the session manager and logind.
// Run under TSan as well (scripts/test).

#include <algorithm>
#include <atomic>
#include <latch>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "start/session_starter.h"

using namespace Vexa;
using namespace std::chrono_literals;

namespace {

using SessionPtr = std::shared_ptr<Session>;

// Steps that take a while, so that racing requests meet a start under way; the first launch may be made to fail
// as a refused password does.
class FakeSteps : public StartSteps {
public:
    std::atomic<int> launches{0};
    std::atomic<int> checks{0};
    std::atomic<int> reuses{0};
    bool failFirstLaunch = false;

    bool checkPassword(const std::string&, const std::string& password, const StartContext&) override {
        ++checks;
        return password == "good";
    }
    void reuse(Session&, const StartSessionArgs&, const StartContext&) override { ++reuses; }
    StartSessionResult launch(const SessionPtr& session, const StartSessionArgs&, const StartContext&) override {
        const int launch = ++launches;
        std::this_thread::sleep_for(30ms);
        if (failFirstLaunch && launch == 1) {
            return {nullptr, StartStatus::StartFailed, true};
        }
        return {session, StartStatus::Success};
    }
};

StartContext context(int32_t sessionsLimit = 1000) {
    StartContext made;
    made.policy.sessionsLimit = sessionsLimit;
    made.lookups.user = [](const std::string& name) {
        auto user = std::make_unique<UserInfo>(passwd{}, false);
        user->name = name;
        user->uid = 2000 + static_cast<int32_t>(std::hash<std::string>{}(name) % 1000);
        user->shell = "/bin/bash";
        return user;
    };
    made.lookups.shadow = [](const std::string&) { return nullptr; };
    made.lookups.groupMembers = [](const std::string&) { return std::list<std::string>{}; };
    made.lookups.shellAllowed = [](const std::string&) { return true; };
    made.lookups.connectAllowed = [](uint32_t) { return true; };
    return made;
}

StartSessionArgs request(const std::string& user, const std::string& password = "good") {
    return {.user = user, .sessionName = "DefaultSession", .program = "/usr/bin/xterm", .password = password};
}

// Runs the requests at the same moment, one thread each; their results in request order.
std::vector<StartSessionResult> together(SessionStarter& starter, const std::vector<StartSessionArgs>& requests,
                                         const StartContext& ctx) {
    std::vector<StartSessionResult> results(requests.size());
    std::latch go(static_cast<std::ptrdiff_t>(requests.size()));
    std::vector<std::thread> threads;
    for (size_t i = 0; i < requests.size(); ++i) {
        threads.emplace_back([&, i] {
            go.arrive_and_wait();
            results[i] = starter.start(requests[i], ctx);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    return results;
}

} // namespace

TEST(SessionStarter, DifferentUsersAtOnceGetDistinctIdsAndDisplaysAndTheLimitHoldsExactly) {
    for (const auto& [users, limit] : {std::pair{16, 1000}, std::pair{8, 3}}) {
        SessionRegistry registry;
        FakeSteps steps;
        SessionStarter starter(registry, steps);
        std::vector<StartSessionArgs> requests;
        for (int i = 0; i < users; ++i) {
            requests.push_back(request("user" + std::to_string(i)));
        }
        std::set<uint32_t> ids;
        std::set<int32_t> displays, expected;
        int full = 0;
        for (const auto& result : together(starter, requests, context(limit))) {
            full += result.status == StartStatus::FullHouse;
            if (result.status == StartStatus::Success) {
                ids.insert(result.session->sid);
                displays.insert(result.session->display);
            }
        }
        const int started = std::min(users, limit);
        for (int display = 101; display < 101 + started; ++display) {
            expected.insert(display);
        }
        EXPECT_EQ(ids.size(), static_cast<size_t>(started));
        EXPECT_EQ(displays, expected);
        EXPECT_EQ(full, users - started);
        EXPECT_EQ(registry.size(), static_cast<size_t>(started));
        EXPECT_EQ(steps.launches, started);
    }
}

TEST(SessionStarter, RacingRequestsOfOneUserShareOneStart) {
    SessionRegistry registry;
    FakeSteps steps;
    SessionStarter starter(registry, steps);
    // One wrong password among them: refused when it meets the running session.
    std::vector<StartSessionArgs> requests(7, request("alice"));
    requests.push_back(request("alice", "bad"));
    const auto results = together(starter, requests, context());
    EXPECT_EQ(steps.launches, 1);
    EXPECT_EQ(registry.size(), 1U);
    const auto session = registry.findUserSessions("alice").front();
    for (size_t i = 0; i + 1 < results.size(); ++i) {
        EXPECT_EQ(results[i].session, session) << i;
    }
    // The wrong one started it (then all others waited and were handed it) or met it running.
    const auto& wrong = results.back();
    EXPECT_TRUE(wrong.session == session || (wrong.status == StartStatus::StartFailed && wrong.authFailed));
}

TEST(SessionStarter, WhenTheFirstStartFailsAWaiterStartsAfresh) {
    SessionRegistry registry;
    FakeSteps steps;
    steps.failFirstLaunch = true;
    SessionStarter starter(registry, steps);
    const auto results = together(starter, std::vector<StartSessionArgs>(6, request("alice")), context());
    const auto failed = std::count_if(results.begin(), results.end(), [](const auto& r) { return !r.session; });
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(steps.launches, 2);
    ASSERT_EQ(registry.size(), 1U);
    const auto session = registry.findUserSessions("alice").front();
    EXPECT_EQ(std::count_if(results.begin(), results.end(), [&](const auto& r) { return r.session == session; }), 5);
}
