#include <filesystem>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/json_config.h"
#include "session/redirect_policy.h"
#include "session/report.h"
#include "test_support.h"

using namespace Vexa;
namespace fs = std::filesystem;
using TestSupport::contains;
using TestSupport::logged;
using TestSupport::makeSession;
using TestSupport::makeUser;

namespace {

const std::string userKeys = R"("home":"/home/ann","runtimedir":"/run/user/1000","gecos":"Ann \"Q\" \\ \u0001 \u00e9",)"
                             R"("shell":"/bin/bash","username":"ann","domain":"CORP","ntlm":"ann:AB12","uid":1000,)"
                             R"("gid":100,"profile:mounted":true,"user:sessions":2,)";
const std::string sessionKeys =
    R"("xauthfile":"/run/vexa/xauth12","gus:id":"g-1","xsession:name":"kde",)"
    R"("xsession:prog":"/usr/bin/startplasma-x11","xsession:args":["a\u0000b","--x"],"display":12,)"
    R"("dbus:address":"unix:path=/run/user/1000/bus","duration:limit":1,"inactivity:limit":2,"disconnect:limit":3,)"
    R"("seamless:limit":4,"clipboard:limit":5,"pid2":4242,"assistance":17,"started:timepoint":1700000000,)"
    R"("onlined:timepoint":1700000100,"disconnected:timepoint":0,"remote:connected":false,"systemd:sid":"c5",)"
    R"("systemd:slice":"user-1000.slice","systemd:cgroup":"/user.slice/user-1000.slice/session-c5.scope",)";
const std::string userLimits = R"({"scope":"user","cpu:quota":"50%","memory:max":"2G"},)";
const std::string sessionLimits = R"({"scope":"session","network:deny":"any"})";
const std::string transports =
    R"("remote:connects":[{"remoteaddr":"10.0.0.1","pid":2147483393},{"remoteaddr":"10.0.0.3","pid":2147483395}],)";
const std::string policies =
    R"("sec:nla":false,"sec:tls":true,"sec:rdp":false,"sec:auth":false,"redirect:printer":true,)"
    R"("redirect:audio":true,"redirect:microphone":false,"redirect:drive":false,"redirect:smartcard":false,)"
    R"("redirect:clipboard:server":false,"redirect:clipboard:client":true,"redirect:clipboard:file":false,)"
    R"("redirect:clipboard:limit":5,"policy:connect":3,"disconnected:freeze":true,"rdp:keepalive:interval":8,)"
    R"("rdp:keepalive:failures":9,"seamless:mode":true,"login:mode":false,"session:frozen":false)";

} // namespace

TEST(SessionReport, DocumentHasEveryKeyInOrderWithUserOnlyWhenPresentAndGeometryOnlyWhenGiven) {
    const auto user = makeUser(); // held here and by the session: two holders
    const auto text = sessionJson(*makeSession(user), std::nullopt, true);
    EXPECT_EQ(text, "{" + userKeys + sessionKeys + "\"resource:limits\":[" + userLimits + sessionLimits + "]," +
                        transports + policies + "}");
    EXPECT_EQ(sessionJson(*makeSession(nullptr), DisplayGeometry{24, 1920, 1080}, true),
              "{" + sessionKeys + "\"resource:limits\":[" + sessionLimits + "]," + transports +
                  R"("depth":24,"width":1920,"height":1080,)" + policies + "}");
    // The escapes are JSON that gives the bytes back.
    const auto json = parseJsonStrict(text);
    EXPECT_EQ(json["gecos"].asString(), user->gecos);
    EXPECT_EQ(json["xsession:args"][0].asString(), std::string("a\0b", 3));
}

TEST(SessionReport, ProcessesAreTheUsersProcessDirectoriesWithAReadableExecutable) {
    TestSupport::TempDir proc;
    const auto process = [&proc](const char* pid, const char* exe) {
        fs::create_directory(proc.path / pid);
        if (exe != nullptr) {
            fs::create_symlink(exe, proc.path / pid / "exe");
        }
    };
    process("120", "/usr/bin/a\"b");
    process("345", "/usr/bin/c");
    process("500", nullptr); // a kernel thread: no executable
    process("sys", "/usr/bin/d");

    // In directory order, which is not fixed: these two entries and nothing else.
    const std::string first = R"({"pid":120,"cmd":"/usr/bin/a\"b"})", second = R"({"pid":345,"cmd":"/usr/bin/c"})";
    const auto text = userProcessesJson(::getuid(), proc.path);
    EXPECT_TRUE(contains(text, first) && contains(text, second)) << text;
    EXPECT_EQ(text.size(), ("[" + first + "," + second + "]").size()) << text;

    EXPECT_EQ(userProcessesJson(::getuid() + 1, proc.path), "[]");
    std::string missing;
    const auto log = logged([&] { missing = userProcessesJson(::getuid(), proc.path / "missing"); });
    EXPECT_EQ(missing, "[]");
    EXPECT_TRUE(contains(log, "vexaSessionProcess: directory_iterator failed")) << log;
}
