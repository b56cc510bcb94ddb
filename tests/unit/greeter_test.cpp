// The login screen's pure parts: its command line, the session request it sends (read back by the daemon's own
// parser), what it tells the user, where it finds the user's display, and its bus calls held against the interface
// description.

#include <set>

#include <gtest/gtest.h>

#include "greeter/login_form.h"
#include "start/session_request.h"
#include "test_support.h"

using namespace Vexa;
using namespace Vexa::Greeter;

TEST(GreeterArguments, OnlyOnePositiveTransportPidIsTaken) {
    struct Case {
        std::vector<std::string_view> args;
        pid_t transport; // 0: refused
    };
    const Case cases[] = {
        {{"--transport", "4242"}, 4242},
        {{"--transport", "1"}, 1},
        {{}, 0},
        {{"--transport"}, 0},
        {{"--transport", "0"}, 0},
        {{"--transport", "-7"}, 0},
        {{"--transport", "12x"}, 0},
        {{"--transport", ""}, 0},
        {{"--transport", "99999999999"}, 0},
        {{"--transport", "5", "--transport", "6"}, 0},
        {{"--transport", "5", "--verbose"}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        std::string problem;
        const auto options = parseArguments(c.args, problem);
        if (c.transport == 0) {
            EXPECT_FALSE(options.has_value());
            EXPECT_FALSE(problem.empty());
        } else {
            ASSERT_TRUE(options.has_value()) << problem;
            EXPECT_EQ(options->transport, c.transport);
        }
    }
}

TEST(GreeterRequest, TheDaemonReadsWhatWasTypedOnTheScreen) {
    const Program editor{"editor", "/usr/bin/editor", {"--new"}};
    struct Case {
        LoginRequest typed;
        std::string user;
        uint16_t width, height;
        std::string sessionPath;
        RunMode mode;
    };
    const Case cases[] = {
        {{"alice", "pa\"ss\\word", "", "", 1024, 768},
         "alice",
         1024,
         768,
         terminalProgram,
         RunMode::UserSessionRequest},
        {{"bob", "ü€ x", "CORP", "", 1920, 1080}, "bob", 1920, 1080, terminalProgram, RunMode::UserSessionRequest},
        {{"carol", "p", "", "editor", 800, 600}, "carol", 800, 600, "/usr/bin/editor", RunMode::UserSession},
        {{"dave", "p", "", "", 20000, 10}, "dave", 8192, 64, terminalProgram, RunMode::UserSessionRequest},
        {{"erin", "p", "", "", 0, 0}, "erin", 1280, 1024, terminalProgram, RunMode::UserSessionRequest},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.typed.user);
        const auto parsed = parseSessionRequest(sessionRequestJson(c.typed), [&](std::string_view name) {
            return name == editor.name ? std::optional<Program>(editor) : std::nullopt;
        });
        ASSERT_TRUE(parsed.request.has_value()) << parsed.reply;
        const auto& r = *parsed.request;
        EXPECT_EQ(r.username, c.user);
        EXPECT_EQ(r.domain, c.typed.domain);
        EXPECT_EQ(r.credentials.password, c.typed.password);
        EXPECT_EQ(r.width, c.width);
        EXPECT_EQ(r.height, c.height);
        EXPECT_EQ(r.depth, 24);
        EXPECT_EQ(r.sessionPath, c.sessionPath);
        EXPECT_EQ(r.mode, c.mode);
    }
    EXPECT_EQ(trimmedUserName("  alice\t"), "alice");
    EXPECT_EQ(trimmedUserName(" \t "), "");
}

TEST(GreeterRequest, RefusalsNeverTellWhichAccountsExist) {
    // An unknown user reads like a wrong password; every other refusal has a text of its own.
    EXPECT_EQ(refusalText(-1), refusalText(-4));
    std::set<std::string> texts;
    for (const int32_t reply : {-2, -3, -4, -5, -6, -8, -9, -7}) {
        const auto text = refusalText(reply);
        EXPECT_FALSE(text.empty());
        EXPECT_TRUE(texts.insert(text).second) << reply;
    }
    EXPECT_EQ(refusalText(-7), refusalText(0));
    EXPECT_EQ(refusalText(-100), refusalText(0));
}

TEST(GreeterSession, TheDisplayComesFromTheSessionReport) {
    struct Case {
        std::string report;
        int32_t display; // -1: none found
    };
    const Case cases[] = {
        {R"({"display": 103, "xauthfile": "/run/vexa/xauth_103", "username": "alice"})", 103},
        {R"({"display": 0, "xauthfile": "/run/vexa/xauth_0"})", 0},
        {R"({"xauthfile": "/run/vexa/xauth_103"})", -1},
        {R"({"display": 103})", -1},
        {R"({"display": "103", "xauthfile": "/run/vexa/xauth_103"})", -1},
        {R"({"display": 103, "xauthfile": ""})", -1},
        {R"({"display": -2, "xauthfile": "/x"})", -1},
        {"", -1},
        {"[1, 2]", -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.report);
        const auto shown = sessionDisplay(c.report);
        if (c.display < 0) {
            EXPECT_FALSE(shown.has_value());
        } else {
            ASSERT_TRUE(shown.has_value());
            EXPECT_EQ(shown->display, c.display);
            EXPECT_EQ(shown->xauthfile, "/run/vexa/xauth_" + std::to_string(c.display));
        }
    }
}

TEST(GreeterSession, TheScreenKeepsTheLimitsOfItsSessionOnItsDisplay) {
    struct Case {
        std::string report;
        uint32_t seconds;
    };
    const Case cases[] = {
        {R"({"display": 101, "duration:limit": 300, "disconnect:limit": 30, "inactivity:limit": 60})", 330},
        {R"({"duration:limit": 300})", 300},
        {R"({"duration:limit": 0, "disconnect:limit": 0})", 0},
        {R"({"duration:limit": -5, "disconnect:limit": "30"})", 0},
        {R"({"duration:limit": 4000000000})", 86400},
        {"not json", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.report);
        EXPECT_EQ(screenLifetime(c.report), c.seconds);
    }
    const std::pair<std::string_view, std::optional<int32_t>> names[] = {
        {":101", 101},         {":101.0", 101},     {"unix:7", 7},         {"localhost:12.1", 12}, {"", std::nullopt},
        {"101", std::nullopt}, {":", std::nullopt}, {":x1", std::nullopt}, {":-3", std::nullopt},
    };
    for (const auto& [name, number] : names) {
        SCOPED_TRACE(name);
        EXPECT_EQ(displayNumber(name), number);
    }
}

TEST(GreeterBusCalls, SignaturesMatchTheInterfaceDescription) {
    const auto described = TestSupport::interfaceMethods();
    for (const auto& m : busMethods()) {
        SCOPED_TRACE(std::string(m.name));
        const auto found = described.find(std::string(m.name));
        ASSERT_NE(found, described.end());
        EXPECT_EQ(found->second.first, m.in);
        EXPECT_EQ(found->second.second, m.out);
    }
    EXPECT_THROW(busMethod("vexaNoSuchMethod"), std::logic_error);
}
