#include <algorithm>
#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "test_support.h"

#include "common/periodic_jobs.h"
#include "session/lifetime.h"

using namespace Vexa;
using namespace std::chrono_literals;
using TestSupport::contains;
using TestSupport::logged;

namespace {

// Transport processes of one test: children that wait to be signalled, and ones that have ended already.
class Transports {
public:
    ~Transports() {
        for (const pid_t pid : children) {
            ::kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    // Registers a running transport in `session`.
    pid_t running(Session& session) {
        const pid_t pid = fork();
        if (pid == 0) {
            pause();
            _exit(0);
        }
        children.push_back(pid);
        session.addConnectInfo(pid, "10.0.0." + std::to_string(pid % 250), Utils::processFd(pid));
        return pid;
    }
    // Registers a transport that ends (and is reaped) before anyone looks at it.
    void ended(Session& session) {
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(0);
        }
        auto pidfd = Utils::processFd(pid);
        waitpid(pid, nullptr, 0);
        session.addConnectInfo(pid, "10.0.0.250", std::move(pidfd));
    }
    // How the process ended: the terminating signal, 0 while it still runs.
    static int signalOf(pid_t pid) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) != pid) {
            return 0;
        }
        return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
    }

private:
    std::vector<pid_t> children;
};

Session::SystemTime at(std::chrono::milliseconds since) {
    return Session::SystemTime(std::chrono::seconds(1'700'000'000)) + since;
}

} // namespace

TEST(ConnectPolicy, DecisionCountsOnlyRunningTransportsAndRefusesUnknownPolicies) {
    struct Case {
        uint32_t policy;
        int running;
        int ended;
        bool allowed;
        std::string line;
    };
    const Case cases[] = {
        {1, 0, 0, true, "session id: 1, allow connection, connect policy - `ConnectPolicy::NextDeny'"},
        {1, 0, 2, true, "allow connection, connect policy - `ConnectPolicy::NextDeny'"}, // ended ones are free
        {1, 1, 1, false,
         "session id: 1, transport also running, connect policy - `ConnectPolicy::NextDeny', "
         "transport pid: "},
        {2, 3, 0, true, "allow connection, connect policy - `ConnectPolicy::PrevReplace'"},
        {3, 3, 1, true, "allow connection, connect policy - `ConnectPolicy::MultiAllow'"},
        {3, 4, 0, false,
         "session id: 1, full house connections, connect policy - `ConnectPolicy::MultiAllow', "
         "max limit: 4"},
        {0, 0, 0, false, "sessionCheckPolicyConnection: session id: 1, failed: unknown policy"},
        {7, 0, 0, false, "failed: unknown policy"},
    };
    for (const auto& c : cases) {
        Transports transports;
        Session session(1, TestSupport::namedUser("u"), ServiceDefaults{});
        session.policyConnect = static_cast<ConnectPolicy>(c.policy);
        std::vector<pid_t> pids;
        for (int i = 0; i < c.ended; ++i) {
            transports.ended(session);
        }
        for (int i = 0; i < c.running; ++i) {
            pids.push_back(transports.running(session));
        }
        bool allowed = !c.allowed;
        const auto text = logged([&] { allowed = sessionCheckPolicyConnection(session); });
        EXPECT_EQ(allowed, c.allowed) << c.policy << " " << c.running;
        EXPECT_TRUE(contains(text, c.line)) << text;
        if (c.policy == 1 && !c.allowed) {
            EXPECT_TRUE(contains(text, "transport pid: " + std::to_string(pids.front()))) << text;
        }
        session.resetAllConnects();
    }
}

TEST(ConnectPolicy, RegistrationReplacesUnderPrevReplaceAndRefusesUnderAFullHouse) {
    struct Case {
        ConnectPolicy policy;
        int running;
        TransportAdmission admission;
        std::string line; // empty: nothing logged
        bool terminated;  // the running transports received SIGTERM
    };
    const Case cases[] = {
        {ConnectPolicy::NextDeny, 0, TransportAdmission::Register, "", false},
        {ConnectPolicy::NextDeny, 1, TransportAdmission::Refused,
         "proxySessionConnected: session id: 1, abnormal situation, connect policy - `ConnectPolicy::NextDeny'", false},
        {ConnectPolicy::PrevReplace, 0, TransportAdmission::Register, "", false},
        {ConnectPolicy::PrevReplace, 1, TransportAdmission::ReplaceFirst, "reset: kill pid: ", true},
        {ConnectPolicy::PrevReplace, 2, TransportAdmission::ReplaceFirst,
         "abnormal situation, connect policy - `ConnectPolicy::PrevReplace'", true},
        {ConnectPolicy::MultiAllow, 3, TransportAdmission::Register, "", false},
        {ConnectPolicy::MultiAllow, 4, TransportAdmission::Refused,
         "abnormal situation, connect policy - `ConnectPolicy::MultiAllow'", false},
        {static_cast<ConnectPolicy>(9), 0, TransportAdmission::Refused,
         "proxySessionConnected: session id: 1, failed: unknown policy", false},
    };
    for (const auto& c : cases) {
        Transports transports;
        Session session(1, TestSupport::namedUser("u"), ServiceDefaults{});
        session.policyConnect = c.policy;
        std::vector<pid_t> pids;
        for (int i = 0; i < c.running; ++i) {
            pids.push_back(transports.running(session));
        }
        TransportAdmission admission{};
        const auto text = logged([&] { admission = admitTransport(session); });
        EXPECT_EQ(admission, c.admission) << static_cast<int>(c.policy) << " " << c.running;
        EXPECT_EQ(text.empty(), c.line.empty()) << text;
        EXPECT_TRUE(contains(text, c.line)) << text;
        for (const pid_t pid : pids) {
            if (c.terminated) {
                int status = 0;
                ASSERT_EQ(waitpid(pid, &status, 0), pid);
                EXPECT_EQ(WTERMSIG(status), SIGTERM);
            } else {
                EXPECT_EQ(Transports::signalOf(pid), 0);
            }
        }
        if (c.terminated) {
            EXPECT_FALSE(session.haveActiveConnects());
            EXPECT_EQ(session.transports[0].pid, 0);
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
        {60s, 60, false}, {60999ms, 60, false}, {61s, 60, true}, {3600s, 0, false}, {-5s, 1, false}, {2001ms, 1, true},
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
    Transports transports;
    Session session(1, TestSupport::namedUser("u"), ServiceDefaults{});
    const pid_t child = transports.running(session);
    const TransportCaller self{getpid(), 1000};
    EXPECT_TRUE(transportPidAccepted(child, self, Utils::parentPid));
    EXPECT_FALSE(transportPidAccepted(getppid(), self, Utils::parentPid));
    session.resetAllConnects();

    // A process names itself as it likes: a name that looks like the fields after it must not fool the walk.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t named = fork();
    if (named == 0) {
        prctl(PR_SET_NAME, "x) S 1 1 (y");
        [[maybe_unused]] auto written = write(ready[1], "r", 1);
        pause();
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_EQ(Utils::parentPid(named), getpid());
    ::kill(named, SIGKILL);
    waitpid(named, nullptr, 0);
    EXPECT_EQ(Utils::parentPid(named), std::nullopt);
    close(ready[0]);
    close(ready[1]);
}

TEST(WatcherSchedule, EachWatcherRunsOnItsOwnPeriodWhenTheLoopSleepsUntilTheNextDue) {
    PeriodicJobs::Clock::time_point now{};
    PeriodicJobs jobs(now, [&now] { return now; });
    std::map<std::string, std::vector<std::chrono::milliseconds>> runs;
    for (const auto& entry : watcherSchedule) {
        jobs.add(entry.name, entry.period, [&, name = std::string(entry.name)] {
            runs[name].push_back(std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()));
        });
    }
    // The watcher thread's loop, with the sleep replaced by moving the clock to the next due time.
    while (now < PeriodicJobs::Clock::time_point(7600ms)) {
        jobs.runDue();
        now = jobs.nextDue();
    }
    const std::map<std::string, std::vector<std::chrono::milliseconds>> expected{
        {"reloadWatcher", {3000ms, 6000ms}},
        {"stoppedChildsWatcher",
         {600ms, 1200ms, 1800ms, 2400ms, 3000ms, 3600ms, 4200ms, 4800ms, 5400ms, 6000ms, 6600ms, 7200ms}},
        {"stoppedTransportWatcher", {750ms, 1500ms, 2250ms, 3000ms, 3750ms, 4500ms, 5250ms, 6000ms, 6750ms, 7500ms}},
        {"timeLimitSessionsWatcher", {1000ms, 2000ms, 3000ms, 4000ms, 5000ms, 6000ms, 7000ms}},
        {"seamlessTimeoutWatcher", {2500ms, 5000ms, 7500ms}},
    };
    EXPECT_EQ(runs, expected);
}

TEST(WatcherSchedule, AnIdleWatcherIsNeitherRunNorWokenForAndRunsAtTheFirstPassOnceItHasWork) {
    PeriodicJobs::Clock::time_point now{};
    PeriodicJobs jobs(now, [&now] { return now; });
    bool idle = true;
    std::vector<std::pair<std::string, std::chrono::milliseconds>> runs;
    const auto record = [&](const char* name) {
        return [&, name] {
            runs.emplace_back(name, std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()));
        };
    };
    jobs.add("children", 600ms, record("children"));
    jobs.add("transports", 750ms, record("transports"), [&idle] { return idle; });
    for (int pass = 0; pass < 3; ++pass) {
        now = std::max(now, jobs.nextDue()); // a job overdue runs at once
        jobs.runDue();
    }
    // Idle: the loop woke only for the other job.
    EXPECT_EQ(runs, (std::vector<std::pair<std::string, std::chrono::milliseconds>>{
                        {"children", 600ms}, {"children", 1200ms}, {"children", 1800ms}}));
    idle = false;
    runs.clear();
    for (int pass = 0; pass < 3; ++pass) {
        now = std::max(now, jobs.nextDue()); // a job overdue runs at once
        jobs.runDue();
    }
    EXPECT_EQ(runs, (std::vector<std::pair<std::string, std::chrono::milliseconds>>{
                        {"transports", 1800ms}, {"children", 2400ms}, {"transports", 2550ms}}));
}
