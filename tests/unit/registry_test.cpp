#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/events.h"
#include "session/registry.h"
#include "test_support.h"

using namespace Vexa;

namespace {

std::shared_ptr<Session> makeSession(uint32_t id, std::shared_ptr<UserEx> user, int32_t display) {
    auto session = std::make_shared<Session>(id, std::move(user), ServiceDefaults{});
    session->display = display;
    return session;
}

} // namespace

TEST(RegistryTest, LookupsByIdDisplayAndExactUserName) {
    SessionRegistry registry;
    auto alice = TestSupport::namedUser("alice");
    ASSERT_TRUE(registry.add(makeSession(7, alice, 101)));
    ASSERT_TRUE(registry.add(makeSession(8, alice, 102)));
    ASSERT_TRUE(registry.add(makeSession(10, TestSupport::namedUser("carol"), -1))); // no display chosen yet
    EXPECT_FALSE(registry.add(makeSession(0, alice, 104)));                          // ids are non-zero
    EXPECT_FALSE(registry.add(makeSession(8, alice, 105)));                          // and unique

    EXPECT_EQ(registry.findDisplaySession(101)->sid, 7u);
    EXPECT_EQ(registry.findDisplaySession(static_cast<uint32_t>(-1)), nullptr);
    EXPECT_EQ(registry.findUserInfo("alice"), alice);
    EXPECT_EQ(registry.findUserInfo("alic"), nullptr);
    EXPECT_EQ(registry.findUserSessions("alice").size(), 2u);
    EXPECT_TRUE(registry.findUserSessions("Alice").empty());

    auto held = registry.findSession(7);
    EXPECT_EQ(registry.remove(7), held);
    EXPECT_EQ(registry.findSession(7), nullptr);
    EXPECT_EQ(held->display, 101); // a removed record lives on while someone holds it
    EXPECT_EQ(registry.takeAll().size(), 2u);
    EXPECT_EQ(registry.size(), 0u);
}

TEST(RegistryTest, TransportSlotsAreReusedWhenFreeAndRunningTransportsAreTerminated) {
    TestSupport::Child kept, ended, last;
    // A transport that has gone: reaped before it registers, so its pidfd says it ended.
    TestSupport::Child gone;
    auto goneFd = Utils::processFd(gone.pid);
    ::kill(gone.pid, SIGKILL);
    EXPECT_EQ(gone.reap(), SIGKILL);
    {
        Session session(1, TestSupport::namedUser("u"), ServiceDefaults{});
        EXPECT_FALSE(session.transports[0].notAlive()); // a free slot never is
        session.addConnectInfo(gone.pid, "10.0.0.1", std::move(goneFd));
        session.addConnectInfo(kept.pid, "10.0.0.2", Utils::processFd(kept.pid));
        // A pid registered without a pidfd is never taken for a running process.
        session.addConnectInfo(kept.pid, "10.0.0.3", Utils::UniqueFd());
        session.addConnectInfo(kept.pid, "10.0.0.4", Utils::UniqueFd());
        session.addConnectInfo(last.pid, "10.0.0.9", Utils::processFd(last.pid)); // the fifth is not recorded
        EXPECT_EQ(session.findConnectInfo(last.pid), nullptr);
        EXPECT_TRUE(session.transports[0].notAlive());
        EXPECT_TRUE(session.transports[2].notAlive());
        EXPECT_TRUE(session.haveActiveConnects());

        // A forced reset frees the slot and leaves the process alone.
        session.transports[1].reset(true);
        EXPECT_TRUE(session.transports[1].remoteaddr.empty());
        EXPECT_FALSE(session.haveActiveConnects());
        session.addConnectInfo(ended.pid, "10.0.0.5", Utils::processFd(ended.pid));
        EXPECT_EQ(session.transports[1].pid, ended.pid);
        session.resetAllConnects();
        EXPECT_EQ(session.transports[1].pid, 0);
        EXPECT_EQ(ended.reap(), SIGTERM);
        session.addConnectInfo(last.pid, "10.0.0.6", Utils::processFd(last.pid));
    }
    EXPECT_EQ(last.reap(), SIGTERM); // on destruction
    EXPECT_TRUE(kept.running());
}

TEST(RegistryTest, LookupsAndWalksFromSeveralThreadsSeeConsistentRecords) {
    SessionRegistry registry;
    auto user = TestSupport::namedUser("shared");
    constexpr uint32_t perThread = 300;
    std::atomic<bool> go{false};
    auto work = [&](uint32_t base) {
        while (!go) {
        }
        for (uint32_t i = 1; i <= perThread; ++i) {
            registry.add(makeSession(base + i, user, static_cast<int32_t>(base + i)));
            if (i % 3 == 0) {
                registry.remove(base + i);
            }
            if (auto s = registry.findDisplaySession(i)) {
                EXPECT_EQ(s->sid, i);
            }
            registry.findUserSessions("shared");
            registry.locked([](SessionRegistry::Map& map) {
                for (auto& [id, session] : map) {
                    session->durationLimit += 1;
                }
            });
        }
    };
    std::vector<std::thread> threads;
    for (const uint32_t base : {0u, 10000u, 20000u}) {
        threads.emplace_back(work, base);
    }
    go = true;
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(registry.size(), 3 * (perThread - perThread / 3));
    EXPECT_EQ(registry.findUserSessions("shared").size(), registry.size());
    // Only the registry and this test hold the user record: nothing leaked or freed twice.
    EXPECT_EQ(static_cast<size_t>(user.use_count()), registry.size() + 1);
}
