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

std::shared_ptr<UserEx> makeUser(const char* name, uid_t uid) {
    passwd entry{};
    entry.pw_name = const_cast<char*>(name);
    entry.pw_uid = uid;
    entry.pw_gid = uid;
    return std::make_shared<UserEx>(entry, false);
}

std::shared_ptr<Session> makeSession(uint32_t id, std::shared_ptr<UserEx> user, int32_t display) {
    auto session = std::make_shared<Session>(id, std::move(user), ServiceDefaults{});
    session->display = display;
    return session;
}

// A child process that waits to be killed; reaped (and killed if still alive) by the destructor.
struct Child {
    Child() {
        pid = fork();
        if (pid == 0) {
            pause();
            _exit(0);
        }
    }
    ~Child() {
        if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    // Waits for the child and returns the signal that ended it (0 if it exited).
    int endingSignal() {
        int status = 0;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    bool stillRunning() const { return waitpid(pid, nullptr, WNOHANG) == 0; }
    pid_t pid = -1;
};

pid_t deadPid() {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    return pid;
}

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override { Syslog::setDebugLevel(DebugLevel::Silent); }
    void TearDown() override { Syslog::setDebugLevel(DebugLevel::None); }
};

} // namespace

TEST_F(RegistryTest, LookupsByIdDisplayAndExactUserName) {
    SessionRegistry registry;
    auto alice = makeUser("alice", 1001);
    ASSERT_TRUE(registry.add(makeSession(7, alice, 101)));
    ASSERT_TRUE(registry.add(makeSession(8, alice, 102)));
    ASSERT_TRUE(registry.add(makeSession(9, makeUser("bob", 1002), 103)));

    EXPECT_EQ(registry.findSession(8)->display, 102);
    EXPECT_EQ(registry.findSession(10), nullptr);
    EXPECT_EQ(registry.findDisplaySession(103)->sid, 9u);
    EXPECT_EQ(registry.findDisplaySession(104), nullptr);
    EXPECT_EQ(registry.findUserInfo("alice"), alice);
    EXPECT_EQ(registry.findUserInfo("alic"), nullptr);
    EXPECT_EQ(registry.findUserInfo("alice "), nullptr);
    EXPECT_EQ(registry.findUserSessions("alice").size(), 2u);
    EXPECT_TRUE(registry.findUserSessions("Alice").empty());
}

TEST_F(RegistryTest, SessionWithoutDisplayIsNeverFoundByDisplay) {
    SessionRegistry registry;
    registry.add(makeSession(5, makeUser("u", 1000), -1));
    EXPECT_EQ(registry.findDisplaySession(0), nullptr);
    EXPECT_EQ(registry.findDisplaySession(static_cast<uint32_t>(-1)), nullptr);
}

TEST_F(RegistryTest, IdsAreUniqueAndNonZero) {
    SessionRegistry registry;
    auto user = makeUser("u", 1000);
    EXPECT_FALSE(registry.add(makeSession(0, user, 101)));
    EXPECT_TRUE(registry.add(makeSession(1, user, 101)));
    EXPECT_FALSE(registry.add(makeSession(1, user, 102)));
    EXPECT_FALSE(registry.add(nullptr));
    EXPECT_EQ(registry.size(), 1u);
}

TEST_F(RegistryTest, RemovedSessionStaysAliveWhileSomeoneHoldsIt) {
    SessionRegistry registry;
    registry.add(makeSession(3, makeUser("u", 1000), 101));
    auto held = registry.findSession(3);
    auto removed = registry.remove(3);
    EXPECT_EQ(removed, held);
    EXPECT_EQ(registry.findSession(3), nullptr);
    EXPECT_EQ(registry.remove(3), nullptr);
    EXPECT_EQ(held->display, 101);

    registry.add(makeSession(4, makeUser("u", 1000), 101));
    registry.add(makeSession(5, makeUser("u", 1000), 102));
    EXPECT_EQ(registry.takeAll().size(), 2u);
    EXPECT_EQ(registry.size(), 0u);
}

TEST_F(RegistryTest, NewSessionTakesTheServiceDefaults) {
    ServiceDefaults defaults;
    defaults.durationTimeout = 600;
    defaults.seamlessTimeout = 30;
    defaults.connectPolicy = ConnectPolicy::MultiAllow;
    defaults.redirect.audio = false;
    defaults.disconnectedFreeze = true;
    defaults.keepAliveFailures = 3;
    const Session session(1, makeUser("u", 1000), defaults);
    EXPECT_EQ(session.durationLimit, 600u);
    EXPECT_EQ(session.seamlessLimit, 30u);
    EXPECT_EQ(session.policyConnect, ConnectPolicy::MultiAllow);
    EXPECT_EQ(session.redirectPolicy & 0x20000000u, 0u);
    EXPECT_NE(session.redirectPolicy & 0x10000000u, 0u);
    EXPECT_TRUE(session.disconnectedFreeze);
    EXPECT_EQ(session.rdpKeepAliveFailures, 3u);
    EXPECT_EQ(session.startedTimepoint, session.onlinedTimepoint);
    EXPECT_EQ(session.disconnectedTimepoint.time_since_epoch().count(), 0);
}

TEST_F(RegistryTest, FifthTransportIsNotRecordedAndFreedSlotsAreReusedInOrder) {
    // Pids above the kernel's largest pid_max: no process can have them, so no slot can signal anything.
    constexpr pid_t base = 0x7FFFFF00;
    Session session(1, makeUser("u", 1000), ServiceDefaults{});
    for (int i = 0; i < 4; ++i) {
        session.addConnectInfo(base + i, "10.0.0." + std::to_string(i));
    }
    session.addConnectInfo(base + 9, "10.0.0.9");
    EXPECT_EQ(session.findConnectInfo(base + 9), nullptr);
    ASSERT_NE(session.findConnectInfo(base + 2), nullptr);
    EXPECT_EQ(session.findConnectInfo(base + 2)->remoteaddr, "10.0.0.2");

    session.findConnectInfo(base + 1)->reset(true);
    session.addConnectInfo(base + 30, "10.0.0.30");
    EXPECT_EQ(session.transports[1].pid, base + 30);
    EXPECT_EQ(session.transports[1].remoteaddr, "10.0.0.30");
}

TEST_F(RegistryTest, DeadTransportIsNotAliveFreeSlotIsNeverReportedDead) {
    Session session(1, makeUser("u", 1000), ServiceDefaults{});
    EXPECT_FALSE(session.transports[0].notAlive());
    EXPECT_FALSE(session.transports[0].isConnected());

    session.addConnectInfo(deadPid(), "10.0.0.1");
    EXPECT_TRUE(session.transports[0].notAlive());
    EXPECT_FALSE(session.haveActiveConnects());

    Child live;
    session.addConnectInfo(live.pid, "10.0.0.2");
    EXPECT_FALSE(session.transports[1].notAlive());
    EXPECT_TRUE(session.haveActiveConnects());
    session.transports[1].reset(true);
}

TEST_F(RegistryTest, ForcedResetClearsTheSlotWithoutSignallingTheProcess) {
    Session session(1, makeUser("u", 1000), ServiceDefaults{});
    Child child;
    session.addConnectInfo(child.pid, "10.0.0.1");
    session.transports[0].reset(true);
    EXPECT_EQ(session.transports[0].pid, 0);
    EXPECT_TRUE(session.transports[0].remoteaddr.empty());
    usleep(20000);
    EXPECT_TRUE(child.stillRunning());
}

TEST_F(RegistryTest, ResetAndDestructionTerminateRunningTransports) {
    Child first;
    Child second;
    {
        Session session(1, makeUser("u", 1000), ServiceDefaults{});
        session.addConnectInfo(first.pid, "10.0.0.1");
        session.resetAllConnects();
        EXPECT_EQ(session.transports[0].pid, 0);
        EXPECT_EQ(first.endingSignal(), SIGTERM);

        session.addConnectInfo(second.pid, "10.0.0.2");
    }
    EXPECT_EQ(second.endingSignal(), SIGTERM);
}

TEST_F(RegistryTest, LookupsAndWalksFromSeveralThreadsSeeConsistentRecords) {
    SessionRegistry registry;
    auto user = makeUser("shared", 1000);
    constexpr uint32_t perThread = 300;
    std::atomic<bool> go{false};
    std::atomic<uint32_t> found{0};

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
                found += s->sid == i ? 1 : 0;
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
    // Every session is shared by the registry and the user record: nothing leaked or freed twice.
    EXPECT_EQ(static_cast<size_t>(user.use_count()), registry.size() + 1);
}

TEST(UserInfo, NullFieldsBecomeEmptyAndGroupsAreLookedUpOnRequest) {
    passwd bare{};
    bare.pw_uid = 1234;
    bare.pw_gid = 1235;
    const UserInfo user(bare, true);
    EXPECT_TRUE(user.name.empty() && user.home.empty() && user.shell.empty() && user.gecos.empty());
    EXPECT_TRUE(user.groups.empty());
    EXPECT_EQ(user.uid, 1234);
    EXPECT_EQ(user.gid, 1235);

    passwd* root = getpwnam("root");
    ASSERT_NE(root, nullptr);
    const UserInfo withGroups(*root, true);
    EXPECT_NE(std::find(withGroups.groups.begin(), withGroups.groups.end(), gid_t{0}), withGroups.groups.end());
    EXPECT_TRUE(UserInfo(*root, false).groups.empty());
    EXPECT_EQ(withGroups.home, root->pw_dir);
}
