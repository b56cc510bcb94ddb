#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/utils.h"

using namespace Vexa;

TEST(Utils, PlaceholdersAreReplacedEverywhere) {
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        {"/tmp/.X11-unix/X%{display}", "%{display}", "101", "/tmp/.X11-unix/X101"},
        {"%{uid}/%{uid}", "%{uid}", "1000", "1000/1000"},
        {"%{display", "%{display}", "1", "%{display"},
        {"abc", "", "x", "abc"},
    };
    for (const auto& [text, pattern, value, expected] : cases) {
        EXPECT_EQ(Utils::stringReplace(text, pattern, value), expected) << text;
    }
    EXPECT_EQ(Utils::stringLower("MultiAllow-42_X\xD0\x9F"), "multiallow-42_x\xD0\x9F");
}

TEST(Utils, ProcessRunningNeedsAPositiveLivePid) {
    EXPECT_TRUE(Utils::processRunning(getpid()));
    EXPECT_FALSE(Utils::processRunning(0));
    EXPECT_FALSE(Utils::processRunning(-1));
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(Utils::processRunning(child));
}

TEST(Utils, VersionText) {
    EXPECT_EQ(productVersion("SERVICE"), "VEXA SERVICE v.2.1.5 build(202507220750)");
}
