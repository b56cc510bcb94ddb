#include <cerrno>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/utils.h"

using namespace Vexa;

TEST(Utils, PlaceholdersAreReplacedEverywhere) {
    struct Case {
        const char* text;
        const char* pattern;
        const char* value;
        const char* expected;
    };
    const Case cases[] = {
        {"/tmp/.X11-unix/X%{display}", "%{display}", "101", "/tmp/.X11-unix/X101"},
        {"%{uid}/%{uid}", "%{uid}", "1000", "1000/1000"},
        {"no placeholder", "%{uid}", "1000", "no placeholder"},
        {"%{display", "%{display}", "1", "%{display"},
        {"abc", "", "x", "abc"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Utils::stringReplace(c.text, c.pattern, c.value), c.expected) << c.text;
    }
}

TEST(Utils, LowerCaseTouchesAsciiLettersOnly) {
    EXPECT_EQ(Utils::stringLower("MultiAllow-42_X"), "multiallow-42_x");
    EXPECT_EQ(Utils::stringLower("\xD0\x9F"), "\xD0\x9F");
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

TEST(Utils, ErrnoTextIsTheSystemText) {
    EXPECT_EQ(Utils::errnoText(ENOENT), "No such file or directory");
    EXPECT_EQ(Utils::errnoText(EACCES), "Permission denied");
}

TEST(Utils, ProductVersionText) {
    EXPECT_EQ(productVersion("SERVICE"), "VEXA SERVICE v.2.1.5 build(202507220750)");
}
