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

TEST(PeriodicJobs, ALoopSleepingUntilNextDueRunsEachJobOnTimeNeverWakesForAnIdleOneAndOutlivesAThrowingOne) {
    PeriodicJobs::Clock::time_point now{};
    PeriodicJobs jobs(now, [&now] { return now; });
    jobs.add("failing", 600ms, [] { throw std::runtime_error("boom"); });
    bool idle = true;
    using Runs = std::vector<std::pair<std::string, long>>; // job, ms
    Runs runs;
    const auto record = [&](const char* name) {
        return [&, name] {
            runs.emplace_back(name,
                              std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count());
        };
    };
    jobs.add("children", 600ms, record("children"));
    jobs.add("transports", 750ms, record("transports"), [&idle] { return idle; });
    // Idle, the loop wakes only for the other job; then the idle one runs at once, being overdue, and each
    // keeps its own period.
    for (const Runs& expected : {Runs{{"children", 600}, {"children", 1200}, {"children", 1800}},
                                 Runs{{"transports", 1800}, {"children", 2400}, {"transports", 2550}}}) {
        runs.clear();
        const auto log = TestSupport::logged([&] {
            for (int pass = 0; pass < 3; ++pass) {
                now = std::max(now, jobs.nextDue());
                EXPECT_NO_THROW(jobs.runDue());
            }
        });
        EXPECT_EQ(runs, expected);
        EXPECT_TRUE(TestSupport::contains(log, "]\tfailing: exception: boom\n")) << log;
        idle = false;
    }
}
