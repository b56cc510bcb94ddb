#include <algorithm>
#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/logger.h"
#include "session/registry.h"

using namespace Vexa;

namespace {

std::shared_ptr<UserEx> makeUser(const char* name) {
    passwd entry{};
    entry.pw_name = const_cast<char*>(name);
    return std::make_shared<UserEx>(entry, false);
}

std::shared_ptr<Session> makeSession(uint32_t id, std::shared_ptr<UserEx> user, int32_t display) {
    auto session = std::make_shared<Session>(id, std::move(user), ServiceDefaults{});
    session->display = display;
    return session;
}

// A child that waits to be signalled; `exitNow` makes one that is gone (and reaped) at once.
pid_t spawn(bool exitNow = false) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (!exitNow) {
            pause();
        }
        _exit(0);
    }
    if (exitNow) {
        waitpid(pid, nullptr, 0);
    }
    return pid;
}

// Reaps the child; the signal that ended it, or 0. With `kill` set the child is ended first.
int reap(pid_t pid, bool kill = false) {
    if (kill) {
        ::kill(pid, SIGKILL);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override { Syslog::setDebugLevel(DebugLevel::Silent); }
    void TearDown() override { Syslog::setDebugLevel(DebugLevel::None); }
};

} // namespace

TEST_F(RegistryTest, LookupsByIdDisplayAndExactUserName) {
    SessionRegistry registry;
    auto alice = makeUser("alice");
    ASSERT_TRUE(registry.add(makeSession(7, alice, 101)));
    ASSERT_TRUE(registry.add(makeSession(8, alice, 102)));
    ASSERT_TRUE(registry.add(makeSession(9, makeUser("bob"), 103)));
    ASSERT_TRUE(registry.add(makeSession(10, makeUser("carol"), -1))); // no display chosen yet
    EXPECT_FALSE(registry.add(makeSession(0, alice, 104)));            // ids are non-zero
    EXPECT_FALSE(registry.add(makeSession(9, alice, 105)));            // and unique

    EXPECT_EQ(registry.findSession(8)->display, 102);
    EXPECT_EQ(registry.findSession(11), nullptr);
    EXPECT_EQ(registry.findDisplaySession(103)->sid, 9u);
    EXPECT_EQ(registry.findDisplaySession(104), nullptr);
    EXPECT_EQ(registry.findDisplaySession(static_cast<uint32_t>(-1)), nullptr);
    EXPECT_EQ(registry.findUserInfo("alice"), alice);
    EXPECT_EQ(registry.findUserInfo("alic"), nullptr);
    EXPECT_EQ(registry.findUserSessions("alice").size(), 2u);
    EXPECT_TRUE(registry.findUserSessions("Alice").empty());

    auto held = registry.findSession(7);
    EXPECT_EQ(registry.remove(7), held);
    EXPECT_EQ(registry.findSession(7), nullptr);
    EXPECT_EQ(held->display, 101); // a removed record lives on while someone holds it
    EXPECT_EQ(registry.takeAll().size(), 3u);
    EXPECT_EQ(registry.size(), 0u);
}

TEST_F(RegistryTest, NewSessionTakesTheServiceDefaults) {
    ServiceDefaults defaults;
    defaults.durationTimeout = 600;
    defaults.connectPolicy = ConnectPolicy::MultiAllow;
    defaults.redirect.audio = false;
    defaults.disconnectedFreeze = true;
    defaults.keepAliveFailures = 3;
    const Session session(1, makeUser("u"), defaults);
    EXPECT_EQ(session.durationLimit, 600u);
    EXPECT_EQ(session.policyConnect, ConnectPolicy::MultiAllow);
    EXPECT_EQ(session.redirectPolicy, redirectPolicyWord(defaults.redirect));
    EXPECT_TRUE(session.disconnectedFreeze);
    EXPECT_EQ(session.rdpKeepAliveFailures, 3u);
    EXPECT_EQ(session.startedTimepoint, session.onlinedTimepoint);
    EXPECT_EQ(session.disconnectedTimepoint.time_since_epoch().count(), 0);
}

TEST_F(RegistryTest, FifthTransportIsNotRecordedAndOnlyFreeSlotsAreReused) {
    // Pids above the kernel's largest pid_max: no slot can signal a real process.
    constexpr pid_t base = 0x7FFFFF00;
    Session session(1, makeUser("u"), ServiceDefaults{});
    for (int i = 0; i < 5; ++i) {
        session.addConnectInfo(base + i, "10.0.0." + std::to_string(i));
    }
    EXPECT_EQ(session.findConnectInfo(base + 4), nullptr);
    EXPECT_EQ(session.findConnectInfo(base + 2)->remoteaddr, "10.0.0.2");

    session.findConnectInfo(base + 1)->reset(true);
    session.addConnectInfo(base + 30, "10.0.0.30");
    EXPECT_EQ(session.transports[1].pid, base + 30);
}

TEST_F(RegistryTest, DeadTransportIsNotAliveAndAFreeSlotNeverIs) {
    Session session(1, makeUser("u"), ServiceDefaults{});
    EXPECT_FALSE(session.transports[0].notAlive());
    session.addConnectInfo(spawn(true), "10.0.0.1");
    EXPECT_TRUE(session.transports[0].notAlive());
    EXPECT_FALSE(session.haveActiveConnects());

    const pid_t live = spawn();
    session.addConnectInfo(live, "10.0.0.2");
    EXPECT_FALSE(session.transports[1].notAlive());
    EXPECT_TRUE(session.haveActiveConnects());

    // A forced reset clears the slot and leaves the process alone.
    session.transports[1].reset(true);
    EXPECT_EQ(session.transports[1].pid, 0);
    EXPECT_TRUE(session.transports[1].remoteaddr.empty());
    usleep(20000);
    EXPECT_EQ(waitpid(live, nullptr, WNOHANG), 0);
    reap(live, true);
}

TEST_F(RegistryTest, ResetAndDestructionTerminateRunningTransports) {
    const pid_t first = spawn();
    const pid_t second = spawn();
    {
        Session session(1, makeUser("u"), ServiceDefaults{});
        session.addConnectInfo(first, "10.0.0.1");
        session.resetAllConnects();
        EXPECT_EQ(session.transports[0].pid, 0);
        EXPECT_EQ(reap(first), SIGTERM);
        session.addConnectInfo(second, "10.0.0.2");
    }
    EXPECT_EQ(reap(second), SIGTERM);
}

TEST_F(RegistryTest, LookupsAndWalksFromSeveralThreadsSeeConsistentRecords) {
    SessionRegistry registry;
    auto user = makeUser("shared");
    constexpr uint32_t perThread = 300;
    std::atomic<bool> go{false};

    auto writer = [&](uint32_t base) {
        while (!go) {
        }
        for (uint32_t i = 1; i <= perThread; ++i) {
            registry.add(makeSession(base + i, user, static_cast<int32_t>(base + i)));
            if (i % 3 == 0) {
                registry.remove(base + i);
            }
        }
    };
    auto reader = [&] {
        while (!go) {
        }
        for (uint32_t i = 1; i <= perThread; ++i) {
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
    threads.emplace_back(writer, 0);
    threads.emplace_back(writer, 10000);
    threads.emplace_back(reader);
    threads.emplace_back(reader);
    go = true;
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(registry.size(), 2 * (perThread - perThread / 3));
    EXPECT_EQ(registry.findUserSessions("shared").size(), registry.size());
    // Only the registry and this test hold the user record: nothing leaked or freed twice.
    EXPECT_EQ(static_cast<size_t>(user.use_count()), registry.size() + 1);
}

TEST(UserInfo, NullFieldsBecomeEmptyAndGroupsAreLookedUpOnRequest) {
    passwd bare{};
    bare.pw_uid = 1234;
    const UserInfo user(bare, true);
    EXPECT_TRUE(user.name.empty() && user.home.empty() && user.shell.empty() && user.gecos.empty());
    EXPECT_TRUE(user.groups.empty());
    EXPECT_EQ(user.uid, 1234);

    passwd* root = getpwnam("root");
    ASSERT_NE(root, nullptr);
    const UserInfo withGroups(*root, true);
    EXPECT_NE(std::find(withGroups.groups.begin(), withGroups.groups.end(), gid_t{0}), withGroups.groups.end());
    EXPECT_TRUE(UserInfo(*root, false).groups.empty());
}
