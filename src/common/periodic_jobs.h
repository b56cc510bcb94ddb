#pragma once

// The watcher thread's schedule: named jobs, each run when strictly more than its period has passed on the
// steady clock since its last run. Bound to the thread that calls runDue(); not thread-safe.

#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Vexa {

// The watcher thread's jobs with their periods, in the order of a pass: the reload of the program list and
// configuration, ended session managers, ended transports, time limits, seamless limits.
struct WatchPeriod {
    const char* name;
    std::chrono::milliseconds period;
};
inline constexpr std::array<WatchPeriod, 5> watcherSchedule{{
    {"reloadWatcher", std::chrono::milliseconds(3000)},
    {"stoppedChildsWatcher", std::chrono::milliseconds(600)},
    {"stoppedTransportWatcher", std::chrono::milliseconds(750)},
    {"timeLimitSessionsWatcher", std::chrono::milliseconds(1000)},
    {"seamlessTimeoutWatcher", std::chrono::milliseconds(2500)},
}};

class PeriodicJobs {
public:
    using Clock = std::chrono::steady_clock;
    using ClockSource = std::function<Clock::time_point()>;

    // Every job's last run starts at `start` (the time the watcher thread starts).
    explicit PeriodicJobs(Clock::time_point start, ClockSource clock = &Clock::now);

    // `idle`, when given, says that the job has nothing to look at (no sessions): it is then neither run nor
    // waited for, and runs at the first pass after it has work again and its period has passed.
    void add(std::string name, std::chrono::milliseconds period, std::function<void()> job,
             std::function<bool()> idle = {});

    // One pass in the order the jobs were added. The clock is read separately for each job; a job that runs
    // has its stamp reset to the time read just before it ran. A job that throws is logged and the pass goes on.
    void runDue();

    // The earliest time at which some job that is not idle is due (strictly more than its period after its last
    // run), so that the watcher may sleep until then; with every job idle, the earliest of all; the start time
    // when there is no job.
    Clock::time_point nextDue() const;

private:
    struct Job {
        std::string name;
        std::chrono::nanoseconds period;
        std::function<void()> work;
        std::function<bool()> idle;
        Clock::time_point lastRun;
    };

    Clock::time_point start;
    ClockSource clock;
    std::vector<Job> jobs;
};

} // namespace Vexa
