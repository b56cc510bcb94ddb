#include <algorithm>
#include <csignal>
#include <fstream>

#include <gtest/gtest.h>

#include <sys/wait.h>

#include "common/logger.h"
#include "common/vexa_error.h"
#include "session/session.h"
#include "start/session_command.h"
#include "test_support.h"

using namespace Vexa;

namespace {

std::list<std::string> environmentOf(const std::string& program) {
    passwd entry{};
    entry.pw_name = const_cast<char*>("alice");
    entry.pw_dir = const_cast<char*>("/home/alice");
    auto user = std::make_shared<UserEx>(entry, false);
    user->runtimedir = "/run/user/1000";
    Session session(5, user, ServiceDefaults{});
    session.display = 103;
    session.xauthfile = "/run/vexa/xauth_103";
    session.xsessionProg = program;
    return session.environments();
}

} // namespace

TEST(SessionEnvironment, ListsTheDisplayAuthorityUserAndSmartcardSocketInOrder) {
    const auto env = environmentOf("/usr/bin/xterm");
    EXPECT_EQ(env, (std::list<std::string>{
                       "DISPLAY=:103",
                       "XAUTHORITY=/run/vexa/xauth_103",
                       "XDG_RUNTIME_DIR=/run/user/1000",
                       "KSCREEND_DISABLED=1",
                       "USER=alice",
                       "LOGNAME=alice",
                       "HOME=/home/alice",
                       "PCSCLITE_CSOCK_NAME=/run/user/1000/vexa/pcsc_comm_103",
                   }));
}

TEST(SessionEnvironment, KivWindowManagerIsRecognisedByItsExactFileName) {
    const std::pair<const char*, bool> cases[] = {
        {"/usr/bin/kiv-wm", true},   {"kiv-wm", true}, {"/usr/bin/kiv-wm-other", false}, {"/usr/bin/kiv-wm/", false},
        {"/usr/bin/xkiv-wm", false}, {"", false},
    };
    for (const auto& [program, marked] : cases) {
        const auto env = environmentOf(program);
        const bool found = std::find(env.begin(), env.end(), "VEXA_KIV_WM=1") != env.end();
        EXPECT_EQ(found, marked) << program;
        if (marked) {
            // It stands right after the run-time directory.
            EXPECT_EQ(*std::next(env.begin(), 3), "VEXA_KIV_WM=1");
        }
    }
}

TEST(SessionCommand, StartsInTheBackgroundAndCanHideItsArguments) {
    Session session(9, nullptr, ServiceDefaults{});
    session.display = 104;
    Syslog::setDebugLevel(DebugLevel::Console);
    ::testing::internal::CaptureStderr();
    auto status =
        runSessionCommand(&session, "/bin/sh", {"-c", "test \"$DISPLAY\" = :104 && exit 7"}, {"EXTRA=1"}, true);
    const int raw = status.get();
    const auto log = ::testing::internal::GetCapturedStderr();
    Syslog::setDebugLevel(DebugLevel::None);
    EXPECT_TRUE(WIFEXITED(raw) && WEXITSTATUS(raw) == 7) << raw; // the session's environment reached the program
    EXPECT_NE(log.find("runSessionCommand: session id: 9, username: , cmd: /bin/sh, args: [ hidden arguments ], pid: "),
              std::string::npos)
        << log;
    EXPECT_THROW(runSessionCommand(nullptr, "/bin/true", {}, {}, false), vexa_error);
}

TEST(SessionTearDown, EndsTheSessionManagerAndRemovesItsFiles) {
    TestSupport::TempDir dir;
    passwd entry{};
    entry.pw_name = const_cast<char*>("alice");
    auto user = std::make_shared<UserEx>(entry, false);
    user->runtimedir = dir.path;
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    ASSERT_GT(child, 0);
    std::filesystem::path busFile;
    {
        Session session(7, user, ServiceDefaults{});
        session.pid2 = child;
        session.xauthfile = dir.path / "xauth_101";
        busFile = session.dbusSessionPath();
        std::filesystem::create_directories(busFile.parent_path());
        for (const auto& file : {session.xauthfile, busFile}) {
            std::ofstream(file) << "x";
        }
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_FALSE(std::filesystem::exists(dir.path / "xauth_101"));
    EXPECT_FALSE(std::filesystem::exists(busFile));
    EXPECT_EQ(busFile, dir.path / "vexa" / "dbus_session_7");
}
