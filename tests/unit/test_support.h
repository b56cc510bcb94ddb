#pragma once

// Helpers shared by the unit tests.

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <pwd.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/logger.h"
#include "session/user_info.h"

namespace TestSupport {

// Everything `call` logs, through the console sink.
inline std::string logged(const std::function<void()>& call) {
    Vexa::Syslog::setDebugLevel(Vexa::DebugLevel::Console);
    ::testing::internal::CaptureStderr();
    call();
    Vexa::Syslog::setDebugLevel(Vexa::DebugLevel::None);
    return ::testing::internal::GetCapturedStderr();
}

// A user record with only a name.
inline std::shared_ptr<Vexa::UserEx> namedUser(const char* name) {
    passwd entry{};
    entry.pw_name = const_cast<char*>(name);
    return std::make_shared<Vexa::UserEx>(entry, false);
}

inline bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

// A private temporary directory, removed with its content.
struct TempDir {
    TempDir() {
        std::string name = (std::filesystem::temp_directory_path() / "vexa-test-XXXXXX").string();
        path = ::mkdtemp(name.data());
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::filesystem::path path;
};

// A child process that waits to be signalled, there once `prepare` has run in it; killed and reaped at the end
// unless reaped before.
class Child {
public:
    explicit Child(const std::function<void()>& prepare = {}) {
        int ready[2] = {-1, -1};
        EXPECT_EQ(::pipe(ready), 0);
        pid = ::fork();
        if (pid == 0) {
            if (prepare) {
                prepare();
            }
            [[maybe_unused]] const auto written = ::write(ready[1], "r", 1);
            for (;;) {
                ::pause();
            }
        }
        char byte = 0;
        EXPECT_EQ(::read(ready[0], &byte, 1), 1);
        ::close(ready[0]);
        ::close(ready[1]);
    }
    ~Child() {
        if (!reaped) {
            ::kill(pid, SIGKILL);
            reap();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Waits for its end: the signal that ended it, else 0.
    int reap() {
        int status = 0;
        ::waitpid(pid, &status, 0);
        reaped = true;
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    bool running() {
        reaped = ::waitpid(pid, nullptr, WNOHANG) == pid;
        return !reaped;
    }

    pid_t pid = -1;

private:
    bool reaped = false;
};

} // namespace TestSupport
