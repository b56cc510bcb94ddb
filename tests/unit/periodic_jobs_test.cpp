#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/logger.h"
#include "common/periodic_jobs.h"

using namespace Vexa;
using namespace std::chrono_literals;

TEST(PeriodicJobs, JobRunsWhenStrictlyMoreThanItsPeriodPassedSinceTheTimeReadBeforeItsLastRun) {
    PeriodicJobs::Clock::time_point now{};
    PeriodicJobs jobs(now, [&now] { return now; });
    int runs = 0;
    jobs.add("job", 600ms, [&runs] { ++runs; });

    const std::pair<std::chrono::nanoseconds, int> steps[] = {{600ms, 0}, {1ns, 1}, {600ms, 1}, {1ms, 2}};
    for (const auto& [advance, expected] : steps) {
        now += advance;
        jobs.runDue();
        EXPECT_EQ(runs, expected);
    }
}

TEST(PeriodicJobs, JobsKeepTheirOwnSchedulesAndRunInTheOrderAdded) {
    PeriodicJobs::Clock::time_point now{};
    PeriodicJobs jobs(now, [&now] { return now; });
    std::vector<std::string> order;
    for (const auto& [name, period] : {std::pair{"config", 3000ms}, {"children", 600ms}, {"limits", 1000ms}}) {
        jobs.add(name, period, [&order, name = std::string(name)] { order.push_back(name); });
    }
    for (int pass = 0; pass < 70; ++pass) { // 3.5 s of 50 ms passes
        now += 50ms;
        jobs.runDue();
    }
    EXPECT_EQ(std::count(order.begin(), order.end(), "config"), 1);
    EXPECT_EQ(std::count(order.begin(), order.end(), "children"), 5);
    EXPECT_EQ(std::count(order.begin(), order.end(), "limits"), 3);

    order.clear();
    now += 3001ms;
    jobs.runDue();
    EXPECT_EQ(order, (std::vector<std::string>{"config", "children", "limits"}));
}

TEST(PeriodicJobs, ThrowingJobDoesNotStopTheOthersOrTheWatcher) {
    Syslog::setDebugLevel(DebugLevel::Silent);
    PeriodicJobs::Clock::time_point now{};
    PeriodicJobs jobs(now, [&now] { return now; });
    int after = 0;
    jobs.add("failing", 10ms, [] { throw std::runtime_error("boom"); });
    jobs.add("after", 10ms, [&after] { ++after; });
    for (int pass = 0; pass < 2; ++pass) {
        now += 11ms;
        EXPECT_NO_THROW(jobs.runDue());
    }
    EXPECT_EQ(after, 2);
    Syslog::setDebugLevel(DebugLevel::None);
}
