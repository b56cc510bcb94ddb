#pragma once

// A bounded pool of worker threads for jobs that wait (session starts, password checks): at most `limit` jobs
// run at once, the others queue in the order they became due. A job may be given a time before which it does
// not start; it waits in the queue without a thread. Threads are made as jobs need them, up to the limit, and
// kept until stop(). Thread-safe.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Vexa {

class WorkPool {
public:
    using Clock = std::chrono::steady_clock;
    using Job = std::function<void()>;

    WorkPool(std::string name, size_t limit);
    ~WorkPool();

    WorkPool(const WorkPool&) = delete;
    WorkPool& operator=(const WorkPool&) = delete;

    // A new limit (at least 1) applies to the jobs that start from now on.
    void setLimit(size_t limit);

    // Queues a job that starts not before `notBefore`. False once stop() has begun: the job is not taken.
    bool submit(Job job, Clock::time_point notBefore = {});

    // Takes no more jobs, starts every queued one at once (delays no longer apply), waits until all have run
    // and joins the threads. Jobs learn of the stop through stopping().
    void stop();
    bool stopping() const;

    // Threads made so far and jobs queued or running; for reports and tests.
    size_t threadCount() const;
    size_t pending() const;

private:
    void work();
    // Makes threads for ready jobs that no idle thread will take, up to the limit.
    void grow();
    // Moves the jobs whose time has come to the ready queue; the time of the next one still waiting.
    std::optional<Clock::time_point> promoteDue(Clock::time_point now);

    const std::string name;
    mutable std::mutex lock; // guards everything below
    std::condition_variable changed;
    size_t limit;
    bool stopRequested = false;
    size_t running = 0;
    size_t idle = 0; // threads waiting for a job, and new ones before their first
    std::deque<Job> ready;
    std::multimap<Clock::time_point, Job> delayed; // equal times keep their order
    std::vector<std::thread> threads;
};

} // namespace Vexa
