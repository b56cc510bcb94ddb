#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "common/work_pool.h"

using namespace Vexa;
using namespace std::chrono_literals;

namespace {

// Jobs that hold their worker until released, noting the order in which they start and how many run at once.
struct Gate {
    std::mutex lock;
    std::condition_variable changed;
    bool open = false;
    int running = 0;
    int most = 0;
    std::vector<int> started;

    WorkPool::Job job(int id) {
        return [this, id] {
            std::unique_lock guard(lock);
            started.push_back(id);
            most = std::max(most, ++running);
            changed.notify_all();
            changed.wait(guard, [this] { return open; });
            --running;
        };
    }
    void waitStarted(size_t count) {
        std::unique_lock guard(lock);
        changed.wait(guard, [&] { return started.size() >= count; });
    }
    void release() {
        std::lock_guard guard(lock);
        open = true;
        changed.notify_all();
    }
};

} // namespace

TEST(WorkPool, AtMostTheLimitRunAndTheRestStartInTheirOrder) {
    // (limit, the jobs that start before any ends): with one worker the whole order shows.
    for (const size_t limit : {3U, 1U}) {
        Gate gate;
        WorkPool pool("test", limit);
        for (int id = 0; id < 10; ++id) {
            ASSERT_TRUE(pool.submit(gate.job(id)));
        }
        gate.waitStarted(limit);
        EXPECT_EQ(pool.pending(), 10U);
        {
            std::lock_guard guard(gate.lock);
            auto first = gate.started;
            std::sort(first.begin(), first.end());
            const std::vector<int> expected = limit == 1 ? std::vector<int>{0} : std::vector<int>{0, 1, 2};
            EXPECT_EQ(first, expected);
        }
        gate.release();
        pool.stop();
        EXPECT_EQ(gate.most, static_cast<int>(limit));
        if (limit == 1) {
            EXPECT_EQ(gate.started, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
        }
        EXPECT_EQ(pool.threadCount(), 0U); // joined
    }
}

TEST(WorkPool, ADelayedJobRunsAtItsTimeAlsoInAPoolWithoutThreadsAndHoldsNoWorkerWhileItWaits) {
    Gate gate;
    WorkPool pool("test", 1);
    std::promise<void> ran;
    ASSERT_TRUE(pool.submit([&] { ran.set_value(); }, WorkPool::Clock::now() + 20ms));
    EXPECT_EQ(ran.get_future().wait_for(30s), std::future_status::ready);
    std::atomic<bool> delayedRan{false};
    ASSERT_TRUE(pool.submit([&] { delayedRan = true; }, WorkPool::Clock::now() + 1h));
    ASSERT_TRUE(pool.submit(gate.job(1)));
    gate.waitStarted(1); // the one worker took the job behind the delayed one
    EXPECT_FALSE(delayedRan);
    gate.release();
}

TEST(WorkPool, StopRunsEveryQueuedJobAtOnceAndRefusesNewOnes) {
    WorkPool pool("test", 2);
    std::atomic<int> ranStopping{0};
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(pool.submit([&] { ranStopping += pool.stopping() ? 1 : 0; }, WorkPool::Clock::now() + 1h));
    }
    pool.stop();
    EXPECT_EQ(ranStopping, 4); // run because of the stop, not at their time
    EXPECT_FALSE(pool.submit([] {}));
}
