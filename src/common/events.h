#pragma once

// Waiting for things to happen instead of looking for them at intervals: readable descriptors with a deadline,
// processes that end (pidfds), and paths that appear (inotify). Callable from any thread; each object belongs
// to the thread that made it.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <sys/types.h>

namespace Vexa::Utils {

using SteadyClock = std::chrono::steady_clock;

// An owned file descriptor, closed on destruction.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) noexcept : value(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : value(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const noexcept { return value; }
    explicit operator bool() const noexcept { return value >= 0; }
    int release() noexcept {
        const int fd = value;
        value = -1;
        return fd;
    }
    void reset(int fd = -1) noexcept;

private:
    int value = -1;
};

// A descriptor that becomes readable when the process ends (it need not be our child). Empty when the
// process is gone already (reaped) or no pidfd can be had.
UniqueFd processFd(pid_t pid);

// The process behind a pidfd still runs: false once it has ended (also while it is a zombie not yet reaped by
// its parent) and for an empty descriptor. Unlike a pid, a pidfd never names a later process that reuses the pid.
bool processAlive(int pidfd) noexcept;

// Sends `sig` through a pidfd; false when the descriptor is empty or the process has ended.
bool signalProcess(int pidfd, int sig) noexcept;

// The start time of a process (clock ticks since boot, field 22 of /proc/PID/stat): with the pid, it names one
// process for good, also for a later run of the daemon. nullopt when there is no such process.
std::optional<uint64_t> processStartTime(pid_t pid);

// The parent of a process, from /proc; nullopt when the process is not there.
std::optional<pid_t> parentPid(pid_t pid);

// Waits until one of `fds` is readable (or hung up), at most until `deadline` (none: without limit); a signal
// does not end the wait. The index of the first readable descriptor, or nullopt at the deadline. Negative
// descriptors are ignored.
std::optional<size_t> waitReadable(std::span<const int> fds, std::optional<SteadyClock::time_point> deadline);

// Follows a path that may not exist yet. Watches, through inotify, the directory that holds the path or, while
// that does not exist, the nearest ancestor that does, and moves closer as directories appear. fd() becomes
// readable when something changed there; call changed() before looking at the path again. A directory mounted
// over while watched sends nothing: rearm() watches whatever is at the paths now.
// The inotify instance is the calling thread's own, made at its first use and kept for the thread's life
// (closing an instance waits for the kernel's grace period, some milliseconds that a start must not pay): one
// PathWatch at a time per thread.
class PathWatch {
public:
    explicit PathWatch(std::filesystem::path path);
    ~PathWatch();

    PathWatch(const PathWatch&) = delete;
    PathWatch& operator=(const PathWatch&) = delete;

    int fd() const noexcept { return inotify; }
    // Drains the pending events and moves the watch when the nearest existing directory changed.
    void changed();
    void rearm();

private:
    std::filesystem::path target;
    int inotify; // the thread's instance, or -1
    std::filesystem::path watched;
    int watch = -1;
};

enum class PathWait { Ready, Timeout, Woken };
struct PathWaitResult {
    PathWait outcome = PathWait::Timeout;
    size_t woken = 0; // with Woken: the index of the readable descriptor in `wake`
};

// Waits until `ready()` holds: looks when the wait begins, whenever something changes near `path`, and at least
// every `recheck` (a missed change, e.g. under a directory mounted meanwhile, costs no more than that; without
// inotify the path is looked at every 100 ms). Ends early when one of `wake` becomes readable, and at the
// deadline (Timeout, after one last look).
PathWaitResult waitForPath(const std::filesystem::path& path, const std::function<bool()>& ready,
                           SteadyClock::time_point deadline, std::span<const int> wake = {},
                           SteadyClock::duration recheck = std::chrono::milliseconds(500));

} // namespace Vexa::Utils
