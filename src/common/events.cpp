#include "events.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <sstream>
#include <string>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "utils.h"

namespace Vexa::Utils {

namespace fs = std::filesystem;

void UniqueFd::reset(int fd) noexcept {
    if (value >= 0) {
        close(value);
    }
    value = fd;
}

UniqueFd processFd(pid_t pid) {
    if (pid <= 0) {
        return UniqueFd();
    }
    return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

bool processAlive(int pidfd) noexcept {
    if (pidfd < 0) {
        return false;
    }
    pollfd polled{pidfd, POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&polled, 1, 0);
    } while (ready < 0 && errno == EINTR);
    // A pidfd becomes readable when its process has ended; an error leaves nothing to signal either.
    return ready == 0;
}

bool signalProcess(int pidfd, int sig) noexcept {
    return pidfd >= 0 && syscall(SYS_pidfd_send_signal, pidfd, sig, nullptr, 0) == 0;
}

std::optional<pid_t> parentPid(pid_t pid) {
    if (pid <= 0) {
        return std::nullopt;
    }
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) {
        return std::nullopt;
    }
    // "pid (comm) state ppid ...": the command may hold blanks and parentheses, the last ')' ends it.
    const auto close = line.rfind(')');
    if (close == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream rest(line.substr(close + 1));
    std::string state;
    pid_t parent = -1;
    if (!(rest >> state >> parent)) {
        return std::nullopt;
    }
    return parent;
}

std::optional<size_t> waitReadable(std::span<const int> fds, std::optional<SteadyClock::time_point> deadline) {
    std::vector<pollfd> polled;
    polled.reserve(fds.size());
    for (const int fd : fds) {
        polled.push_back(pollfd{fd, POLLIN, 0});
    }
    for (;;) {
        int timeout = -1;
        if (deadline) {
            const auto left = *deadline - SteadyClock::now();
            if (left <= SteadyClock::duration::zero()) {
                timeout = 0;
            } else {
                // Rounded up: a wake before the deadline would only poll again.
                timeout = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
            }
        }
        const int ready = poll(polled.data(), polled.size(), timeout);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return std::nullopt;
        }
        for (size_t i = 0; i < polled.size(); ++i) {
            if (polled[i].revents != 0) {
                return i;
            }
        }
        if (deadline && SteadyClock::now() >= *deadline) {
            return std::nullopt;
        }
    }
}

namespace {

constexpr uint32_t watchMask =
    IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

fs::path nearestDirectory(const fs::path& path) {
    auto dir = path.parent_path();
    std::error_code ec;
    while (!dir.empty() && dir != dir.root_path() && !fs::is_directory(dir, ec)) {
        dir = dir.parent_path();
    }
    return dir.empty() ? fs::path(".") : dir;
}

int threadInotify() {
    static thread_local const UniqueFd instance(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    return instance.get();
}

void drain(int fd) {
    std::array<char, 4096> buffer{};
    while (fd >= 0 && read(fd, buffer.data(), buffer.size()) > 0) {
    }
}

} // namespace

PathWatch::PathWatch(fs::path path) : target(std::move(path)), inotify(threadInotify()) {
    drain(inotify); // what an earlier watch of this thread left
    rearm();
}

PathWatch::~PathWatch() {
    if (inotify >= 0 && watch >= 0) {
        inotify_rm_watch(inotify, watch);
    }
}

void PathWatch::changed() {
    drain(inotify);
    if (nearestDirectory(target) != watched) {
        rearm();
    }
}

void PathWatch::rearm() {
    if (inotify < 0) {
        return;
    }
    const auto dir = nearestDirectory(target);
    const int next = inotify_add_watch(inotify, dir.c_str(), watchMask);
    if (watch >= 0 && watch != next) {
        inotify_rm_watch(inotify, watch);
    }
    watch = next;
    watched = dir;
}

PathWaitResult waitForPath(const fs::path& path, const std::function<bool()>& ready, SteadyClock::time_point deadline,
                           std::span<const int> wake, SteadyClock::duration recheck) {
    PathWatch watch(path);
    if (watch.fd() < 0) {
        recheck = std::min<SteadyClock::duration>(recheck, std::chrono::milliseconds(100));
    }
    std::vector<int> fds{watch.fd()};
    fds.insert(fds.end(), wake.begin(), wake.end());
    for (;;) {
        if (ready()) {
            return {PathWait::Ready};
        }
        const auto now = SteadyClock::now();
        if (now >= deadline) {
            return {PathWait::Timeout};
        }
        const auto woken = waitReadable(fds, std::min(deadline, now + recheck));
        if (!woken) {
            watch.rearm();
        } else if (*woken == 0) {
            watch.changed();
        } else {
            return {PathWait::Woken, *woken - 1};
        }
    }
}

std::optional<uint64_t> processStartTime(pid_t pid) {
    if (pid <= 0) {
        return std::nullopt;
    }
    const std::string text = readFileText("/proc/" + std::to_string(pid) + "/stat");
    // The command name may hold blanks and parentheses: the fields count from the last ')'.
    const auto close = text.rfind(')');
    if (close == std::string::npos) {
        return std::nullopt;
    }
    // After the name: state (field 3) ... starttime (field 22), i.e. the 20th word after ')'.
    size_t pos = close + 1;
    for (int field = 3; field < 22; ++field) {
        pos = text.find(' ', pos + 1);
        if (pos == std::string::npos) {
            return std::nullopt;
        }
    }
    uint64_t start = 0;
    const char* first = text.data() + pos + 1;
    const auto [end, ec] = std::from_chars(first, text.data() + text.size(), start);
    if (ec != std::errc() || end == first) {
        return std::nullopt;
    }
    return start;
}

} // namespace Vexa::Utils
