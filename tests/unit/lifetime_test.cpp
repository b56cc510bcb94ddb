#include <csignal>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <sys/prctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "test_support.h"

#include "common/events.h"
#include "session/lifetime.h"

using namespace Vexa;
using namespace std::chrono_literals;

namespace {

// Transport processes of one test, registered in a session.
class Transports {
public:
    // Registers a running transport.
    pid_t running(Session& session) {
        const pid_t pid = children.emplace_back().pid;
        session.addConnectInfo(pid, "10.0.0." + std::to_string(pid % 250), Utils::processFd(pid));
        return pid;
    }
    // Registers a transport that ended (and was reaped) before anyone looks at it.
    static void ended(Session& session) {
        TestSupport::Child gone;
        auto pidfd = Utils::processFd(gone.pid);
        ::kill(gone.pid, SIGKILL);
        gone.reap();
        session.addConnectInfo(gone.pid, "10.0.0.250", std::move(pidfd));
    }

    std::list<TestSupport::Child> children;
};

Session::SystemTime at(std::chrono::milliseconds since) {
    return Session::SystemTime(std::chrono::seconds(1'700'000'000)) + since;
}

} // namespace

TEST(ConnectPolicy, TheCheckAndTheRegistrationCountOnlyRunningTransportsAndRefuseUnknownPolicies) {
    using enum TransportAdmission;
    struct Case {
        uint32_t policy;
        int running;
        int ended;
        bool allowed; // by the check before the handshake
        TransportAdmission admission;
    };
    const Case cases[] = {
        {1, 0, 2, true, Register}, // ended ones are free
        {1, 1, 1, false, Refused},     {2, 0, 0, true, Register}, {2, 1, 0, true, ReplaceFirst},
        {2, 3, 0, true, ReplaceFirst}, {3, 3, 1, true, Register}, {3, 4, 0, false, Refused}, // four at most
        {0, 0, 0, false, Refused},     {7, 1, 0, false, Refused},                            // unknown policies
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.policy) + " " + std::to_string(c.running) + " " + std::to_string(c.ended));
        Transports transports;
        Session session(1, TestSupport::namedUser("u"), ServiceDefaults{});
        session.policyConnect = static_cast<ConnectPolicy>(c.policy);
        for (int i = 0; i < c.ended; ++i) {
            Transports::ended(session);
        }
        for (int i = 0; i < c.running; ++i) {
            transports.running(session);
        }
        Syslog::setDebugLevel(DebugLevel::Silent);
        EXPECT_EQ(sessionCheckPolicyConnection(session), c.allowed);
        EXPECT_EQ(admitTransport(session), c.admission);
        Syslog::setDebugLevel(DebugLevel::None);
        // A replacement tells every running transport to end and frees the slots; nothing else signals one.
        EXPECT_EQ(session.transports[0].pid == 0, c.admission == ReplaceFirst || c.running + c.ended == 0);
        for (auto& child : transports.children) {
            if (c.admission == ReplaceFirst) {
                EXPECT_EQ(child.reap(), SIGTERM);
            } else {
                EXPECT_TRUE(child.running());
            }
        }
        session.resetAllConnects();
    }
}

TEST(TimeLimits, ALimitIsReachedAfterMoreThanItsWholeSeconds) {
    struct Case {
        std::chrono::milliseconds elapsed;
        uint32_t limit;
        bool reached;
    };
    const Case cases[] = {
        {60s, 60, false}, {60999ms, 60, false}, {61s, 60, true}, {3600s, 0, false}, {-5s, 1, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(limitReached(at(c.elapsed), at(0ms), c.limit), c.reached) << c.elapsed.count() << " " << c.limit;
    }
    EXPECT_EQ(elapsedSeconds(at(61999ms), at(0ms)), 61u);
    EXPECT_FALSE(limitReached(at(100s), Session::SystemTime{}, 1)); // never disconnected
    EXPECT_TRUE(limitReached(Session::SteadyTime(100s), Session::SteadyTime(40s), 59));
}

TEST(TimeLimits, DurationCountsWhileConnectedDisconnectWhileNotAndALoginScreenForBoth) {
    struct Case {
        bool connected;
        bool loginMode;
        uint32_t duration;
        uint32_t disconnect;
        bool disconnectedSince; // a disconnect time point is set
        bool durationFires;
        bool disconnectFires;
    };
    const Case cases[] = {
        {true, false, 60, 60, true, true, false}, // a running transport keeps the disconnect limit off
        {false, false, 60, 60, true, false, true},  {false, false, 60, 60, false, false, false}, // never disconnected
        {false, true, 60, 0, false, true, false}, // a login screen without transport: its duration
        {false, true, 60, 60, true, true, true},    {true, false, 0, 60, true, false, false},
        {false, false, 120, 60, true, false, true},
    };
    for (const auto& c : cases) {
        Transports transports;
        Session session(1, TestSupport::namedUser("u"), ServiceDefaults{});
        session.onlinedTimepoint = at(0ms);
        session.disconnectedTimepoint = c.disconnectedSince ? at(0ms) : Session::SystemTime{};
        session.durationLimit = c.duration;
        session.disconnectLimit = c.disconnect;
        session.loginMode = c.loginMode;
        if (c.connected) {
            transports.running(session);
        }
        const auto fired = timeLimitTriggers(session, at(61s));
        EXPECT_EQ(fired.duration, c.durationFires) << c.connected << c.loginMode << c.duration << c.disconnect;
        EXPECT_EQ(fired.disconnect, c.disconnectFires) << c.connected << c.loginMode << c.duration << c.disconnect;
        session.resetAllConnects();
    }
}

TEST(TransportPid, OnlyTheCallerItsDescendantsOrAnyProcessForRootAreAccepted) {
    // 1 <- 100 (caller) <- 200 <- 300;  1 <- 400 (someone else);  500 <-> 501 (a loop in the data)
    const std::map<pid_t, pid_t> parents{{100, 1}, {200, 100}, {300, 200}, {400, 1}, {500, 501}, {501, 500}};
    const auto parentOf = [&parents](pid_t pid) -> std::optional<pid_t> {
        const auto found = parents.find(pid);
        return found == parents.end() ? std::nullopt : std::optional<pid_t>(found->second);
    };
    struct Case {
        pid_t pid;
        TransportCaller caller;
        bool accepted;
    };
    const Case cases[] = {
        {100, {100, 1000}, true},  {300, {100, 1000}, true},  {400, {100, 1000}, false}, {1, {100, 1000}, false},
        {200, {300, 1000}, false}, {999, {100, 1000}, false}, // unknown process
        {500, {100, 1000}, false}, {0, {100, 1000}, false},   {-1, {100, 1000}, false},  {1, {100, 0}, true},
        {400, {7, 0}, true},       {0, {100, 0}, false},      {300, {-1, 1000}, false}, // the bus gave no pid
    };
    for (const auto& c : cases) {
        EXPECT_EQ(transportPidAccepted(c.pid, c.caller, parentOf), c.accepted)
            << c.pid << " by " << c.caller.pid << "/" << c.caller.uid;
    }
    // The real process tree: this process and its child, but not its parent.
    const TestSupport::Child child;
    const TransportCaller self{getpid(), 1000};
    EXPECT_TRUE(transportPidAccepted(child.pid, self, Utils::parentPid));
    EXPECT_FALSE(transportPidAccepted(getppid(), self, Utils::parentPid));
    // A process names itself as it likes: a name that looks like the fields after it must not fool the walk.
    auto named = std::make_unique<TestSupport::Child>([] { prctl(PR_SET_NAME, "x) S 1 1 (y"); });
    const pid_t pid = named->pid;
    EXPECT_EQ(Utils::parentPid(pid), getpid());
    named.reset();
    EXPECT_EQ(Utils::parentPid(pid), std::nullopt);
}
