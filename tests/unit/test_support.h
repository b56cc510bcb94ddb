#pragma once

// Helpers shared by the unit tests.

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <pwd.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/logger.h"
#include "session/redirect_policy.h"
#include "session/session.h"
#include "session/user_info.h"

namespace TestSupport {

// A user whose reported fields all differ from their defaults.
inline std::shared_ptr<Vexa::UserEx> makeUser() {
    passwd entry{};
    entry.pw_name = const_cast<char*>("ann");
    entry.pw_uid = 1000;
    entry.pw_gid = 100;
    auto user = std::make_shared<Vexa::UserEx>(entry, false);
    user->home = "/home/ann";
    user->shell = "/bin/bash";
    user->gecos = "Ann \"Q\" \\ \x01 \xc3\xa9";
    user->domain = "CORP";
    user->ntlm = "ann:AB12";
    user->runtimedir = "/run/user/1000";
    user->profileMounted = true;
    user->userLimits[Vexa::ResourceControl::CpuQuota] = "50%";
    user->userLimits[Vexa::ResourceControl::MemoryMax] = "2G";
    user->userLimits[Vexa::ResourceControl::TasksMax] = ""; // back to the systemd default: no limit
    return user;
}

// A session of makeUser: every field differs from its default, so that a key written from the wrong field shows.
inline std::unique_ptr<Vexa::Session> makeSession(std::shared_ptr<Vexa::UserEx> user, uint32_t sid = 7) {
    auto s = std::make_unique<Vexa::Session>(sid, std::move(user), Vexa::ServiceDefaults{});
    s->display = 12;
    s->xauthfile = "/run/vexa/xauth12";
    s->gusId = "g-1";
    s->xsessionName = "kde";
    s->xsessionProg = "/usr/bin/startplasma-x11";
    s->xsessionArgs = {std::string("a\0b", 3), "--x"};
    s->dbusAddress = "unix:path=/run/user/1000/bus";
    s->durationLimit = 1;
    s->inactivityLimit = 2;
    s->disconnectLimit = 3;
    s->seamlessLimit = 4;
    s->clipboardLimit = 5;
    s->pid2 = 4242;
    s->assistance = 17;
    s->startedTimepoint = Vexa::Session::SystemTime(std::chrono::nanoseconds(1'700'000'000'999'999'999));
    s->onlinedTimepoint = Vexa::Session::SystemTime(std::chrono::seconds(1'700'000'100));
    // Slots taken by transports registered without a pidfd: none runs and none can be signalled.
    s->transports[1].pid = 0x7FFFFF01;
    s->transports[1].remoteaddr = "10.0.0.1";
    s->transports[3].pid = 0x7FFFFF03;
    s->transports[3].remoteaddr = "10.0.0.3";
    s->systemdSid = "c5";
    s->systemdSlice = "user-1000.slice";
    s->systemdCgroup = "/user.slice/user-1000.slice/session-c5.scope";
    s->sessionLimits[Vexa::ResourceControl::NetworkDeny] = "any";
    s->secTls = true;
    s->redirectPolicy = Vexa::redirectMask(Vexa::RedirectBit::Printer) |
                        Vexa::redirectMask(Vexa::RedirectBit::ClipboardClient) |
                        Vexa::redirectMask(Vexa::RedirectBit::Audio);
    s->policyConnect = Vexa::ConnectPolicy::MultiAllow;
    s->disconnectedFreeze = true;
    s->rdpKeepAliveInterval = 8;
    s->rdpKeepAliveFailures = 9;
    s->seamlessMode = true;
    return s;
}

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

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The methods of the interface file: name -> (in, out) signatures. Plain searches: std::regex recurses too deep
// for a sanitizer build's stack on a text this long.
inline std::map<std::string, std::pair<std::string, std::string>> interfaceMethods() {
    const auto xml = readFile(VEXA_SOURCE_DIR "/src/dbus/ru.kelvo.vexa.xml");
    const auto attribute = [](std::string_view tag, std::string_view name) {
        const std::string key = std::string(name) + "=\"";
        const size_t from = tag.find(key);
        const size_t begin = from + key.size();
        return from == std::string_view::npos ? std::string()
                                              : std::string(tag.substr(begin, tag.find('"', begin) - begin));
    };
    std::map<std::string, std::pair<std::string, std::string>> methods;
    for (size_t at = xml.find("<method "); at != std::string::npos; at = xml.find("<method ", at + 1)) {
        const size_t open = xml.find('>', at); // a method without arguments closes its own tag
        const std::string_view body(xml.data() + at, (xml[open - 1] == '/' ? open : xml.find("</method>", at)) - at);
        auto& sig = methods[attribute(body.substr(0, body.find('>')), "name")];
        for (size_t a = body.find("<arg "); a != std::string_view::npos; a = body.find("<arg ", a + 1)) {
            const std::string_view tag = body.substr(a, body.find('>', a) - a);
            (attribute(tag, "direction") == "in" ? sig.first : sig.second) += attribute(tag, "type");
        }
    }
    return methods;
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
