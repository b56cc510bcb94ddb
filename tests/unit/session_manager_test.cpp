#include <climits>

#include <gtest/gtest.h>
#include <json/writer.h>

#include "common/json_config.h"
#include "common/vexa_error.h"
#include "start/session_manager.h"

using namespace Vexa;

namespace {

// A full plan as encodePlan writes it: members in name order, the bytes of the password as they are.
const std::string full =
    R"({"args":["-b","","-a"],"cookie":"00ff10ab","dbus:file":"/run/user/1000/vexa/dbus.session",)"
    R"("debug:level":"debug","depth":16,"display":55,"height":1080,"keyboard":true,"pam:service":"vexa",)"
    R"("password":"\"q\"\n\\ пароль ✓ )"
    "\xff\xfe"
    R"(","program":"/usr/bin/fly","runtimedir":"/run/user/1000","session":7,"user":"alice","width":1920,)"
    R"("xauthfile":"/var/run/vexa/xauth/.Xauthority-55","xvfb:args":[":55","-auth","/tmp/a"],)"
    R"("xvfb:path":"/usr/bin/Xorg","xvfb:sock":"/tmp/.X11-unix/X55"})";

} // namespace

TEST(SessionManagerPlan, EveryFieldSurvivesTheRoundTrip) {
    auto plan = decodePlan(full);
    EXPECT_EQ(encodePlan(plan), full);
    EXPECT_EQ(plan.password, "\"q\"\n\\ пароль ✓ \xff\xfe");
    plan.sessionId = UINT32_MAX;
    plan.display = INT32_MAX;
    plan.depth = 255;
    plan.width = 65535;
    plan.height = 0;
    // A plan without a password skips authentication; an empty one is still checked.
    for (const auto& password : {std::optional<std::string>(""), std::optional<std::string>()}) {
        plan.password = password;
        const auto text = encodePlan(plan);
        EXPECT_EQ(encodePlan(decodePlan(text)), text);
        EXPECT_EQ(decodePlan(text).password, password) << text;
    }
}

TEST(SessionManagerPlan, DecodingRefusesAnythingButACompletePlan) {
    // A null value removes the member; an array value adds a number to the list.
    const std::pair<const char*, Json::Value> changes[] = {
        {"session", Json::nullValue}, {"session", 0},       {"session", -1},
        {"display", 2147483648u},     {"depth", 256},       {"user", ""},
        {"pam:service", ""},          {"program", ""},      {"password", 5},
        {"args", Json::arrayValue},   {"keyboard", "true"},
    };
    for (const auto& [key, value] : changes) {
        auto json = parseJsonStrict(full);
        if (value.isNull()) {
            json.removeMember(key);
        } else if (value.isArray()) {
            json[key].append(1);
        } else {
            json[key] = value;
        }
        const auto text = Json::writeString(Json::StreamWriterBuilder(), json);
        EXPECT_THROW(decodePlan(text), vexa_error) << text;
    }
    EXPECT_THROW(decodePlan(""), vexa_error);
    EXPECT_THROW(decodePlan("[]"), vexa_error);
}

TEST(SessionManagerPlan, EnvironmentNamesTheSessionInHexAndTheKeyboardOnlyWhenAsked) {
    auto plan = decodePlan(full);
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
    EXPECT_EQ(pamTtyItem(INT32_MAX), "X11:2147483647");
}
