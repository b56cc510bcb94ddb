#include <climits>

#include <gtest/gtest.h>
#include <json/writer.h>

#include "test_support.h"

#include "common/json_config.h"
#include "common/vexa_error.h"
#include "start/session_manager.h"

using namespace Vexa;
using TestSupport::contains;

namespace {

SessionManagerPlan fullPlan() {
    return {.sessionId = 7,
            .user = "alice",
            .pamService = "vexa",
            .password = "\"q\"\n\\ пароль ✓ \xff\xfe",
            .display = 55,
            .xauthfile = "/var/run/vexa/xauth/.Xauthority-55",
            .runtimeDir = "/run/user/1000",
            .dbusSessionFile = "/run/user/1000/vexa/dbus.session",
            .cookie = "00ff10ab",
            .depth = 16,
            .width = 1920,
            .height = 1080,
            .xorgPath = "/usr/bin/Xorg",
            .xorgArgs = {":55", "-auth", "/tmp/a"},
            .xorgSocket = "/tmp/.X11-unix/X55",
            .program = "/usr/bin/fly",
            .args = {"-b", "", "-a"},
            .onScreenKeyboard = true,
            .debugLevel = "debug"};
}

auto fields(const SessionManagerPlan& p) {
    return std::tie(p.sessionId, p.user, p.pamService, p.password, p.display, p.xauthfile, p.runtimeDir,
                    p.dbusSessionFile, p.cookie, p.depth, p.width, p.height, p.xorgPath, p.xorgArgs, p.xorgSocket,
                    p.program, p.args, p.onScreenKeyboard, p.debugLevel);
}

} // namespace

TEST(SessionManagerPlan, EveryFieldSurvivesTheRoundTrip) {
    const SessionManagerPlan bounds{.sessionId = UINT32_MAX,
                                    .user = "u",
                                    .pamService = "p",
                                    .display = INT32_MAX,
                                    .depth = 255,
                                    .width = 65535,
                                    .height = 0,
                                    .program = "/x"};
    auto emptyPassword = bounds;
    emptyPassword.password = "";
    for (const auto& plan : {fullPlan(), bounds, emptyPassword}) {
        const auto text = encodePlan(plan);
        EXPECT_EQ(fields(decodePlan(text)), fields(plan)) << text;
        // A plan without a password skips authentication; an empty one is still checked.
        EXPECT_EQ(contains(text, "\"password\""), plan.password.has_value()) << text;
    }
}

TEST(SessionManagerPlan, DecodingRefusesAnythingButACompletePlan) {
    const std::pair<const char*, Json::Value> changes[] = {
        {"session", Json::nullValue}, // removed
        {"session", 0},
        {"session", -1},
        {"session", "7"},
        {"display", Json::UInt(INT32_MAX) + 1},
        {"depth", 256},
        {"width", 65536},
        {"height", 1.5},
        {"user", ""},
        {"user", 5},
        {"pam:service", ""},
        {"program", ""},
        {"cookie", Json::nullValue},
        {"password", 5},
        {"args", Json::arrayValue},
        {"xvfb:args", "a"},
        {"keyboard", "true"},
    };
    for (const auto& [key, value] : changes) {
        auto json = parseJsonStrict(encodePlan(fullPlan()));
        if (value.isNull()) {
            json.removeMember(key);
        } else if (value.isArray()) {
            json[key].append(1); // a non-string among the strings
        } else {
            json[key] = value;
        }
        const auto text = Json::writeString(Json::StreamWriterBuilder(), json);
        EXPECT_THROW(decodePlan(text), vexa_error) << text;
    }
    for (const char* text : {"", "not json", "[]", R"({"session": 7)"}) {
        EXPECT_THROW(decodePlan(text), vexa_error) << text;
    }
}

TEST(SessionManagerPlan, EnvironmentNamesTheSessionInHexAndTheKeyboardOnlyWhenAsked) {
    auto plan = fullPlan();
    plan.sessionId = 0xDEADBEEF;
    EXPECT_EQ(sessionManagerEnvironment(plan),
              (std::list<std::string>{"VEXA_SESSION=deadbeef", "XCB_AUTH_COOKIE=00ff10ab",
                                      "VEXA_DBUS_SESSION_FILE=/run/user/1000/vexa/dbus.session",
                                      "QT_IM_MODULE=qtvirtualkeyboard"}));
    plan.sessionId = 42;
    plan.onScreenKeyboard = false;
    const auto env = sessionManagerEnvironment(plan);
    EXPECT_EQ(env.front(), "VEXA_SESSION=0000002a");
    EXPECT_EQ(env.size(), 3u);
    EXPECT_EQ(pamTtyItem(0), "X11:0");
    EXPECT_EQ(pamTtyItem(INT32_MAX), "X11:2147483647");
}
