#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

#include "test_support.h"

#include "common/process.h"
#include "common/vexa_error.h"

using namespace Vexa;
using namespace TestSupport;
namespace fs = std::filesystem;

TEST(Process, EnvironmentListDropsInheritedEntriesWhoseNameItStartsWithAndComesLast) {
    const std::pair<std::list<std::string>, bool> cases[] = {
        {{"VEXA_T_DISPLAYX=1"}, false}, // a plain prefix, whatever follows the name
        {{"VEXA_T_DISPLA=1"}, true},
        {{"OTHER=1", "VEXA_T_DISPLAY"}, false}, // a list entry without '=' counts too
    };
    ::setenv("VEXA_T_DISPLAY", ":0", 1);
    for (const auto& [envs, kept] : cases) {
        std::vector<std::string> envp;
        for (const char* entry : Utils::createENVP(envs)) {
            envp.emplace_back(entry ? entry : "<null>");
        }
        std::vector<std::string> tail(envs.begin(), envs.end());
        tail.emplace_back("<null>");
        ASSERT_GE(envp.size(), tail.size());
        EXPECT_EQ(std::vector(envp.end() - static_cast<long>(tail.size()), envp.end()), tail) << envs.front();
        EXPECT_EQ(std::count(envp.begin(), envp.end(), "VEXA_T_DISPLAY=:0"), kept ? 1 : 0) << envs.front();
    }
    ::unsetenv("VEXA_T_DISPLAY");
}

TEST(Process, OutputLogIsInHomeOrInTmpWhenHomeIsMissing) {
    const TempDir home;
    UserInfo user(passwd{}, false);
    user.name = "alice";
    const std::tuple<fs::path, const char*, fs::path> cases[] = {
        {home.path, "/usr/bin/foo.sh", home.path / ".vexa/foo.log"},
        {home.path, "/usr/bin/", home.path / ".vexa/.log"},
        {home.path / "missing", "xsession.sh", "/tmp/.vexa_alice/xsession.log"},
    };
    for (const auto& [dir, program, expected] : cases) {
        user.home = dir;
        EXPECT_EQ(Utils::userOutputLog(user, program), expected) << dir << " " << program;
    }
}

TEST(Process, StdoutCommandLosesOnlyTheLastNewlineAndNeverUsesAShell) {
    EXPECT_EQ(Utils::runStdoutCommand("/usr/bin/printf", {"a\\nb\\n\\n"}), "a\nb\n");
    EXPECT_EQ(Utils::runStdoutCommand("/usr/bin/printf", {"%s|", "$(id)", ";", "`x`", "a b"}), "$(id)|;|`x`|a b|");
    EXPECT_THROW(Utils::runStdoutCommand("/nonexistent/program", {}), vexa_error);
}
