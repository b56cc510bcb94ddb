#include "periodic_jobs.h"

#include <algorithm>
#include <exception>

#include "logger.h"

namespace Vexa {

PeriodicJobs::PeriodicJobs(Clock::time_point start, ClockSource clock) : start(start), clock(std::move(clock)) {}

void PeriodicJobs::add(std::string name, std::chrono::milliseconds period, std::function<void()> job,
                       std::function<bool()> idle) {
    jobs.push_back(Job{std::move(name), period, std::move(job), std::move(idle), start});
}

void PeriodicJobs::runDue() {
    for (auto& job : jobs) {
        const auto now = clock();
        if (now - job.lastRun <= job.period || (job.idle && job.idle())) {
            continue;
        }
        job.lastRun = now;
        // A failing job must not end the watcher thread: the others keep their schedule.
        try {
            job.work();
        } catch (const std::exception& err) {
            Syslog::error("%s: exception: %s", job.name.c_str(), err.what());
        }
    }
}

PeriodicJobs::Clock::time_point PeriodicJobs::nextDue() const {
    if (jobs.empty()) {
        return start;
    }
    auto due = Clock::time_point::max();
    auto idleDue = Clock::time_point::max();
    for (const auto& job : jobs) {
        // One tick of the clock after the period: a job is due only when more than its period has passed.
        const auto jobDue = job.lastRun + job.period + Clock::duration(1);
        if (job.idle && job.idle()) {
            idleDue = std::min(idleDue, jobDue);
        } else {
            due = std::min(due, jobDue);
        }
    }
    return due != Clock::time_point::max() ? due : idleDue;
}

} // namespace Vexa
