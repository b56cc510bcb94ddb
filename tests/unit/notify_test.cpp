#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "notify/notify.h"

using namespace Vexa::Notify;

TEST(NotifyHelper, ArgumentsAreTakenWholeAndAnythingElseIsRefused) {
    struct Case {
        std::vector<std::string_view> args;
        bool accepted;
        std::string problem;
    };
    const Case cases[] = {
        {{"--header", "Hi", "--message", "a \"b\" $(c)", "--level", "0"}, true, ""},
        {{}, true, ""},
        {{"--level", "256"}, false, "level not a number from 0 to 255: 256"},
        {{"--level", "1x"}, false, "level not a number from 0 to 255: 1x"},
        {{"--header"}, false, "missing value of --header"},
        {{"--title", "x"}, false, "unknown argument: --title"},
        {{"--header", "a", "--header", "b"}, false, "repeated argument: --header"},
    };
    for (const auto& c : cases) {
        std::string problem;
        const auto options = parseArguments(c.args, problem);
        EXPECT_EQ(options.has_value(), c.accepted) << problem;
        EXPECT_EQ(problem, c.problem);
    }
    std::string problem;
    const auto options = parseArguments({"--header", "Hi", "--message", "a \"b\" $(c)", "--level", "7"}, problem);
    ASSERT_TRUE(options);
    EXPECT_EQ(options->header, "Hi");
    EXPECT_EQ(options->message, "a \"b\" $(c)"); // kept as given: no shell, no quoting
    EXPECT_EQ(options->level, 7);
    EXPECT_EQ(std::vector<int>({urgency(0), urgency(1), urgency(2), urgency(200)}), std::vector<int>({0, 1, 2, 2}));
}

TEST(NotifyHelper, TextIsWrappedAtBlanksCutWithoutThemAndEllipsizedPastTheLastLine) {
    struct Case {
        std::string text;
        size_t columns;
        size_t maxLines;
        std::vector<std::string> lines;
    };
    const Case cases[] = {
        {"", 10, 3, {""}},
        {"one two three", 10, 3, {"one two", "three"}},
        {"abcdefghijkl", 5, 5, {"abcde", "fghij", "kl"}},
        {"a\n\nb\n", 10, 5, {"a", "", "b"}},
        {"1\n2\n3\n4", 10, 2, {"1", "2..."}},
        {"aaaa bbbb cccc dddd", 9, 1, {"aaaa b..."}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(wrapText(c.text, c.columns, c.maxLines), c.lines) << c.text;
    }
}
