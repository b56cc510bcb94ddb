#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/logger.h"
#include "common/periodic_jobs.h"

using namespace Vexa;
using namespace std::chrono_literals;

namespace {

struct FakeClock {
    PeriodicJobs::Clock::time_point now{};
    PeriodicJobs::ClockSource source() {
        return [this] { return now; };
    }
};

} // namespace

TEST(PeriodicJobs, JobRunsOnlyWhenStrictlyMoreThanItsPeriodHasPassed) {
    FakeClock clock;
    PeriodicJobs jobs(clock.now, clock.source());
    int runs = 0;
    jobs.add("job", 600ms, [&runs] { ++runs; });

    clock.now += 600ms;
    jobs.runDue();
    EXPECT_EQ(runs, 0);
    clock.now += 1ns;
    jobs.runDue();
    EXPECT_EQ(runs, 1);
    // The stamp is the time read just before the run: another full period is needed.
    clock.now += 600ms;
    jobs.runDue();
    EXPECT_EQ(runs, 1);
    clock.now += 1ms;
    jobs.runDue();
    EXPECT_EQ(runs, 2);
}

TEST(PeriodicJobs, JobsRunInTheOrderAddedAndEachOnItsOwnSchedule) {
    FakeClock clock;
    PeriodicJobs jobs(clock.now, clock.source());
    std::vector<std::string> order;
    jobs.add("config", 3000ms, [&] { order.push_back("config"); });
    jobs.add("children", 600ms, [&] { order.push_back("children"); });
    jobs.add("limits", 1000ms, [&] { order.push_back("limits"); });

    for (int pass = 0; pass < 70; ++pass) { // 3.5 s in 50 ms passes
        clock.now += 50ms;
        jobs.runDue();
    }
    const auto count = [&order](const std::string& name) { return std::count(order.begin(), order.end(), name); };
    EXPECT_EQ(count("config"), 1);
    EXPECT_EQ(count("children"), 5); // at 650, 1300, 1950, 2600, 3250 ms
    EXPECT_EQ(count("limits"), 3);   // at 1050, 2100, 3150 ms

    // A pass in which all are due runs them in the order they were added.
    order.clear();
    clock.now += 3001ms;
    jobs.runDue();
    EXPECT_EQ(order, (std::vector<std::string>{"config", "children", "limits"}));
}

TEST(PeriodicJobs, ThrowingJobDoesNotStopTheOthers) {
    Syslog::setDebugLevel(DebugLevel::Silent);
    FakeClock clock;
    PeriodicJobs jobs(clock.now, clock.source());
    int after = 0;
    jobs.add("failing", 10ms, [] { throw std::runtime_error("boom"); });
    jobs.add("after", 10ms, [&after] { ++after; });
    clock.now += 11ms;
    EXPECT_NO_THROW(jobs.runDue());
    clock.now += 11ms;
    EXPECT_NO_THROW(jobs.runDue());
    EXPECT_EQ(after, 2);
    Syslog::setDebugLevel(DebugLevel::None);
}
