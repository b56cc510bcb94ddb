#pragma once

// The watcher thread's schedule: named jobs, each run when strictly more than its period has passed on the
// steady clock since its last run. Bound to the thread that calls runDue(); not thread-safe.

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Vexa {

class PeriodicJobs {
public:
    using Clock = std::chrono::steady_clock;
    using ClockSource = std::function<Clock::time_point()>;

    // Every job's last run starts at `start` (the time the watcher thread starts).
    explicit PeriodicJobs(Clock::time_point start, ClockSource clock = &Clock::now);

    void add(std::string name, std::chrono::milliseconds period, std::function<void()> job);

    // One pass in the order the jobs were added. The clock is read separately for each job; a job that runs
    // has its stamp reset to the time read just before it ran. A job that throws is logged and the pass goes on.
    void runDue();

    // The earliest time at which some job is due (strictly more than its period after its last run), so that
    // the watcher may sleep until then; the start time when there is no job.
    Clock::time_point nextDue() const;

private:
    struct Job {
        std::string name;
        std::chrono::nanoseconds period;
        std::function<void()> work;
        Clock::time_point lastRun;
    };

    Clock::time_point start;
    ClockSource clock;
    std::vector<Job> jobs;
};

} // namespace Vexa
