#include <array>
#include <chrono>
#include <fstream>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/events.h"
#include "common/process.h"
#include "test_support.h"

using namespace Vexa;
using namespace std::chrono_literals;
using TestSupport::TempDir;
namespace fs = std::filesystem;

namespace {

// A deadline that only a wait that missed its event would reach; no recheck before it.
constexpr auto eventOnly = 1h;

int threadCount() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("Threads:")) {
            return std::stoi(line.substr(8));
        }
    }
    return -1;
}

} // namespace

TEST(Events, PathWaitFollowsDirectoriesAsTheyAppearAndEndsOnItsEvent) {
    const TempDir dir;
    const auto target = dir.path / "run/user/vexa/dbus_session_7";
    std::thread writer([&] {
        std::this_thread::sleep_for(50ms);
        fs::create_directories(target.parent_path());
        std::ofstream(target.string() + ".tmp") << "unix:path=/run/bus";
        fs::rename(target.string() + ".tmp", target);
    });
    const auto ready = [&] { return fs::exists(target); };
    const auto waited = Utils::waitForPath(target, ready, Utils::SteadyClock::now() + 30s, {}, eventOnly);
    writer.join();
    EXPECT_EQ(waited.outcome, Utils::PathWait::Ready);
}

TEST(Events, PathWaitEndsOnAWakeDescriptorOrAtTheDeadline) {
    const TempDir dir;
    const Utils::UniqueFd quiet(eventfd(0, EFD_CLOEXEC));
    const Utils::UniqueFd woken(eventfd(1, EFD_CLOEXEC));
    const auto never = [] { return false; };
    const std::array<int, 2> wake{quiet.get(), woken.get()};
    const auto byFd = Utils::waitForPath(dir.path / "x", never, Utils::SteadyClock::now() + 30s, wake, eventOnly);
    EXPECT_EQ(byFd.outcome, Utils::PathWait::Woken);
    EXPECT_EQ(byFd.woken, 1U);
    const std::array<int, 1> none{quiet.get()};
    EXPECT_EQ(Utils::waitForPath(dir.path / "x", never, Utils::SteadyClock::now() + 50ms, none).outcome,
              Utils::PathWait::Timeout);
}

TEST(Events, ChildrenAreReapedByOneThreadWithTheirOwnRawWaitStatus) {
    // The first child starts the reaper; the others must not add a thread each.
    Utils::waitChildBack(Utils::runChildProcess("/bin/true", {}, {}, nullptr, nullptr)).get();
    const int before = threadCount();
    std::vector<std::future<int>> statuses;
    for (int code = 0; code < 24; ++code) {
        statuses.push_back(Utils::runChildProcessBack("/bin/sh", {"-c", "sleep 0.2; exit " + std::to_string(code)}, {},
                                                      nullptr, nullptr));
    }
    EXPECT_EQ(threadCount(), before);
    for (int code = 0; code < 24; ++code) {
        const int status = statuses[static_cast<size_t>(code)].get();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == code) << code << ": " << status;
    }
    // the raw wait status, and a child's SIGTERM is back to its default action
    const int killed = Utils::runChildProcessBack("/bin/sh", {"-c", "kill $$; sleep 5"}, {}, nullptr, nullptr).get();
    EXPECT_TRUE(WIFSIGNALED(killed) && WTERMSIG(killed) == SIGTERM) << killed;
}
