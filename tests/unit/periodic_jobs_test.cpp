#include <algorithm>
#include <stdexcept>
#include <string>
#include <syslog.h>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.h"

#include "common/logger.h"
#include "common/periodic_jobs.h"

using namespace Vexa;
using namespace std::chrono_literals;

TEST(LogSink, EveryLevelWritesExactlyTheTemplatesItAllows) {
    using enum DebugLevel;
    // The sinks of error, warning, notice, info and debug: N(one), J(ournal) or C(onsole), in enum order.
    const std::pair<DebugLevel, std::string> rows[] = {{None, "JJJNN"},  {Info, "JJJJN"},   {Debug, "JJJJJ"},
                                                       {Trace, "JJJJJ"}, {Silent, "NNNNN"}, {Console, "CCCCC"}};
    for (const auto& [level, sinks] : rows) {
        std::string written;
        for (const int priority : {LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG}) {
            written += "NJC"[static_cast<int>(logSink(level, priority))];
        }
        EXPECT_EQ(written, sinks) << static_cast<int>(level);
    }
}

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

TEST(PeriodicJobs, JobsKeepTheirOwnSchedulesRunInTheOrderAddedAndOutliveAThrowingJob) {
    PeriodicJobs::Clock::time_point now{};
    PeriodicJobs jobs(now, [&now] { return now; });
    std::vector<std::string> order;
    const auto record = [&order](const char* name) { return [&order, name] { order.emplace_back(name); }; };
    jobs.add("failing", 600ms, [] { throw std::runtime_error("boom"); });
    jobs.add("limits", 1000ms, record("limits"));
    jobs.add("children", 600ms, record("children"));
    const auto log = TestSupport::logged([&] {
        for (int pass = 0; pass < 70; ++pass) { // 3.5 s of 50 ms passes
            now += 50ms;
            EXPECT_NO_THROW(jobs.runDue());
        }
    });
    EXPECT_EQ(std::count(order.begin(), order.end(), "children"), 5);
    EXPECT_EQ(std::count(order.begin(), order.end(), "limits"), 3);
    EXPECT_TRUE(TestSupport::contains(log, "]\tfailing: exception: boom\n")) << log;
    order.clear();
    now += 1001ms;
    TestSupport::logged([&] { jobs.runDue(); });
    EXPECT_EQ(order, (std::vector<std::string>{"limits", "children"}));
}

TEST(PeriodicJobs, NextDueIsTheEarliestTimeAJobBecomesDue) {
    PeriodicJobs::Clock::time_point now{};
    PeriodicJobs jobs(now, [&now] { return now; });
    jobs.add("children", 600ms, [] {});
    jobs.add("reload", 3000ms, [] {});
    EXPECT_EQ(jobs.nextDue(), now + 600ms + 1ns);
    now += 601ms;
    jobs.runDue(); // children run at 601 ms, reload waits
    EXPECT_EQ(jobs.nextDue(), now + 600ms + 1ns);
    now = PeriodicJobs::Clock::time_point{} + 3000ms + 1ns;
    jobs.runDue(); // both
    EXPECT_EQ(jobs.nextDue(), now + 600ms + 1ns);
}
