#include <algorithm>
#include <csignal>
#include <fstream>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <sys/wait.h>

#include "common/logger.h"
#include "common/vexa_error.h"
#include "session/session.h"
#include "test_support.h"

using namespace Vexa;

namespace {

std::shared_ptr<UserEx> alice(const std::filesystem::path& runtimeDir) {
    passwd entry{};
    entry.pw_name = const_cast<char*>("alice");
    entry.pw_dir = const_cast<char*>("/home/alice");
    auto user = std::make_shared<UserEx>(entry, false);
    user->runtimedir = runtimeDir;
    return user;
}

} // namespace

TEST(SessionEnvironment, ListsTheDisplayAuthorityUserAndSmartcardSocketInOrder) {
    Session session(5, alice("/run/user/1000"), ServiceDefaults{});
    session.display = 103;
    session.xauthfile = "/run/vexa/xauth_103";
    session.xsessionProg = "/usr/bin/kiv-wm";
    // The kiv window manager is marked right after the run-time directory ...
    EXPECT_EQ(
        session.environments(),
        (std::list<std::string>{"DISPLAY=:103", "XAUTHORITY=/run/vexa/xauth_103", "XDG_RUNTIME_DIR=/run/user/1000",
                                "VEXA_KIV_WM=1", "KSCREEND_DISABLED=1", "USER=alice", "LOGNAME=alice",
                                "HOME=/home/alice", "PCSCLITE_CSOCK_NAME=/run/user/1000/vexa/pcsc_comm_103"}));
    // ... recognised by its exact file name only.
    for (const char* program : {"/usr/bin/kiv-wm-other", "/usr/bin/xkiv-wm", "/usr/bin/kiv-wm/"}) {
        session.xsessionProg = program;
        const auto env = session.environments();
        EXPECT_EQ(std::count(env.begin(), env.end(), "VEXA_KIV_WM=1"), 0) << program;
    }
}

TEST(SessionTearDown, EndsTheSessionManagerAndRemovesItsFiles) {
    TestSupport::TempDir dir;
    TestSupport::Child child;
    std::filesystem::path busFile;
    const auto inode = [](const std::filesystem::path& file) {
        struct stat status {};
        return ::stat(file.c_str(), &status) == 0 ? status.st_ino : ino_t{0};
    };
    {
        Session session(7, alice(dir.path), ServiceDefaults{});
        session.pid2 = child.pid;
        session.pid2fd = Utils::processFd(child.pid);
        session.xauthfile = dir.path / "xauth_101";
        busFile = session.dbusSessionPath();
        std::filesystem::create_directories(busFile.parent_path());
        for (const auto& file : {session.xauthfile, busFile}) {
            std::ofstream(file) << "x";
        }
        session.xauthInode = inode(session.xauthfile);
    }
    EXPECT_EQ(child.reap(), SIGTERM);
    EXPECT_FALSE(std::filesystem::exists(dir.path / "xauth_101"));
    EXPECT_FALSE(std::filesystem::exists(busFile));
    EXPECT_EQ(busFile, dir.path / "vexa" / "dbus_session_7");

    // A session torn down after a newer one took its display leaves the newer one's authority file alone.
    {
        Session old(8, alice(dir.path), ServiceDefaults{});
        old.xauthfile = dir.path / "xauth_101";
        std::ofstream(old.xauthfile) << "old";
        old.xauthInode = inode(old.xauthfile);
        std::filesystem::remove(old.xauthfile);
        std::ofstream(dir.path / "xauth_102") << "new"; // keeps the old inode number from being handed out again
        std::ofstream(old.xauthfile) << "new";
        ASSERT_NE(inode(old.xauthfile), old.xauthInode);
    }
    EXPECT_TRUE(std::filesystem::exists(dir.path / "xauth_101"));
}
