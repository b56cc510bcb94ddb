#include <algorithm>

#include <gtest/gtest.h>

#include "session/session.h"

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
