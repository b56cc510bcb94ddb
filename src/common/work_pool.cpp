#include "work_pool.h"

#include <algorithm>
#include <exception>

#include "logger.h"

namespace Vexa {

WorkPool::WorkPool(std::string poolName, size_t maxThreads)
    : name(std::move(poolName)), limit(std::max<size_t>(1, maxThreads)) {}

WorkPool::~WorkPool() {
    stop();
}

void WorkPool::setLimit(size_t maxThreads) {
    std::lock_guard guard(lock);
    limit = std::max<size_t>(1, maxThreads);
    changed.notify_all();
}

bool WorkPool::submit(Job job, Clock::time_point notBefore) {
    std::lock_guard guard(lock);
    if (stopRequested) {
        return false;
    }
    if (notBefore > Clock::now()) {
        delayed.emplace(notBefore, std::move(job));
    } else {
        ready.push_back(std::move(job));
    }
    grow();
    changed.notify_all();
    return true;
}

void WorkPool::stop() {
    std::vector<std::thread> joining;
    {
        std::lock_guard guard(lock);
        stopRequested = true;
        for (auto& [due, job] : delayed) {
            ready.push_back(std::move(job));
        }
        delayed.clear();
        grow();
        changed.notify_all();
    }
    // Joined outside the lock, which the workers need to finish. A worker may still make threads for the jobs
    // queued above; they are joined in a further round.
    for (;;) {
        {
            std::lock_guard guard(lock);
            if (threads.empty()) {
                return;
            }
            joining.swap(threads);
        }
        for (auto& thread : joining) {
            thread.join();
        }
        joining.clear();
    }
}

bool WorkPool::stopping() const {
    std::lock_guard guard(lock);
    return stopRequested;
}

size_t WorkPool::threadCount() const {
    std::lock_guard guard(lock);
    return threads.size();
}

size_t WorkPool::pending() const {
    std::lock_guard guard(lock);
    return ready.size() + delayed.size() + running;
}

std::optional<WorkPool::Clock::time_point> WorkPool::promoteDue(Clock::time_point now) {
    while (!delayed.empty() && delayed.begin()->first <= now) {
        ready.push_back(std::move(delayed.begin()->second));
        delayed.erase(delayed.begin());
    }
    if (delayed.empty()) {
        return std::nullopt;
    }
    return delayed.begin()->first;
}

void WorkPool::grow() {
    // Jobs ready beyond what the idle threads will take get threads of their own, up to the limit; a delayed job
    // needs an idle thread to wake at its time.
    const auto wanted = ready.size() + (delayed.empty() ? 0 : 1);
    while (wanted > idle && threads.size() < limit) {
        threads.emplace_back([this] { work(); });
        ++idle; // counted as idle until it takes its first job
    }
}

void WorkPool::work() {
    std::unique_lock guard(lock);
    --idle;
    for (;;) {
        const auto next = promoteDue(Clock::now());
        grow();
        if (!ready.empty() && running < limit) {
            auto job = std::move(ready.front());
            ready.pop_front();
            ++running;
            guard.unlock();
            try {
                job();
            } catch (const std::exception& err) {
                Syslog::error("%s: exception: %s", name.c_str(), err.what());
            }
            job = nullptr; // what the job held goes before the next one starts
            guard.lock();
            --running;
            changed.notify_all();
            continue;
        }
        if (stopRequested && ready.empty() && delayed.empty()) {
            return;
        }
        ++idle;
        if (next) {
            changed.wait_until(guard, *next);
        } else {
            changed.wait(guard);
        }
        --idle;
    }
}

} // namespace Vexa
