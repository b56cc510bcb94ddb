#include <gtest/gtest.h>

#include "test_support.h"

#include "start/session_request.h"

using namespace Vexa;
using namespace TestSupport;

namespace {

constexpr const char* uuid = "0f8fad5b-d9cb-469f-a165-70867728950e";
// "Top$ecret12", zero-padded, Blowfish-ECB under the 32 characters of `uuid` without its dashes.
const std::string secretCrypt = "\"password:enc\": \"blowfish:3d81b6589dc419f3da83474f759dc41d\"";

// Publishes only "Editor" and counts the look-ups.
int lookups = 0;
std::optional<Program> findProgram(std::string_view name) {
    ++lookups;
    return name == "Editor" ? std::optional(Program{"Editor", "/usr/bin/ed", {"-p", "*"}}) : std::nullopt;
}

auto fields(const SessionRequest& r) {
    return std::tie(r.username, r.domain, r.uizr, r.loginRequired, r.credentials.mode, r.credentials.error,
                    r.credentials.password, r.credentials.transportToken, r.serverId, r.depth, r.width, r.height,
                    r.sessionPath, r.sessionArgs, r.mode, r.secNla, r.secTls, r.secRdp, r.secAuth, r.gusId, r.useNtlmv2,
                    r.transportRun);
}

} // namespace

TEST(SessionRequest, AcceptedRequestsCarryEveryKeyOrItsDefault) {
    const std::string every = R"({"username": "bob", "domain": "CORP", "uizr": "u-1", "login_required": true,
        "password": "Pa55-w0rd!", "server_id": "srv-1", "depth": 16, "width": 1920, "height": 1080,
        "session:path": "/usr/bin/fly", "session:args": ["-b", "-a", "-b"], "sec:nla": true, "sec:tls": false,
        "sec:rdp": false, "sec:auth": true, "gus:id": "g-7", "use:ntlmv2": true, "transport:run": false})";
    const std::tuple<std::string, SessionRequest, std::string> cases[] = {
        {R"({"username": "alice"})", {.username = "alice"}, "session:path = `/usr/bin/xterm'"},
        {every, {}, "session:args = [ `-b', `-a', `-b' ]"}, // compared field by field below
        // A published program replaces the session program and its arguments.
        {R"({"username": "carol", "session:path": "/usr/bin/fly", "session:args": ["x"], "program": "Editor"})",
         {.username = "carol", .sessionPath = "/usr/bin/ed", .sessionArgs = {"-p", "*"}, .mode = RunMode::UserSession},
         "program = `Editor'"},
        {R"({"username": "dave", "depth": 255, "width": 65535, "height": 0})",
         {.username = "dave", .depth = 255, .width = 65535, .height = 0},
         ""},
        {R"({"username": "erin", "transport_token": "tok-123"})",
         {.username = "erin", .credentials = {.mode = AuthMode::TransportToken, .transportToken = "tok-123"}},
         ""},
        {R"({"username": "finn", )" + secretCrypt + R"(, "server_id": ")" + uuid + "\"}",
         {.username = "finn",
          .credentials = {.mode = AuthMode::PasswordEnc, .password = "Top$ecret12"},
          .serverId = uuid},
         "type: `blowfish', crypt: `HIDDEN'"},
    };
    for (const auto& [text, expected, message] : cases) {
        ParsedSessionRequest parsed;
        const auto log = logged([&] { parsed = parseSessionRequest(text, findProgram); });
        ASSERT_TRUE(parsed.request) << text << log;
        EXPECT_EQ(parsed.reply, 0);
        if (text == every) {
            EXPECT_EQ(fields(*parsed.request),
                      std::make_tuple("bob", "CORP", "u-1", true, AuthMode::Password, PasswordError::None, "Pa55-w0rd!",
                                      "", "srv-1", 16, 1920, 1080, "/usr/bin/fly",
                                      std::list<std::string>{"-b", "-a", "-b"}, RunMode::UserSessionRequest, true,
                                      false, false, true, "g-7", true, false));
        } else {
            EXPECT_EQ(fields(*parsed.request), fields(expected)) << text;
        }
        EXPECT_TRUE(contains(log, "vexaSessionRequest: " + message)) << log;
        const auto& password = parsed.request->credentials.password;
        EXPECT_TRUE(password.empty() || !contains(log, password)) << log;
    }
}

TEST(SessionRequest, RefusalsAreRepliedAndLoggedWithoutThrowing) {
    const std::string notFound = "vexaSessionRequest: params failed, not found: ";
    const std::string invalid = "vexaSessionRequest: exception: invalid value: ";
    const std::tuple<std::string, int32_t, std::string> cases[] = {
        // Without a user nothing else is looked at, not even the program.
        {R"({"domain": "CORP", "program": "Editor"})", -4, notFound + "`username'"},
        {R"([{"username": "alice"}])", -4, notFound + "`username'"},
        {R"({"username": "alice", "program": "Solitaire"})", -9,
         "vexaSessionRequest: program not registered, name: Solitaire"},
        {R"({"username": "alice", )" + secretCrypt + "}", -4, notFound + "`server_id'"},
        {R"({"username": "alice", )" + secretCrypt + R"(, "server_id": "my-host"})", -4,
         "vexaSessionRequest: invalid format, hexkey: `myhost'"},
        {R"({"username": "alice", "depth": 256})", -4, invalid + "depth"},
        {R"({"username": "alice", "height": 1.5})", -4, invalid + "height"},
        // Only a key's own JSON type counts: null, numbers and objects are not converted.
        {R"({"username": null})", -4, invalid + "username"},
        {R"({"username": "alice", "session:args": ["-a", {}]})", -4, invalid + "session:args"},
    };
    for (const auto& [text, reply, message] : cases) {
        lookups = 0;
        ParsedSessionRequest parsed{SessionRequest{}, 0};
        const auto log = logged([&] { EXPECT_NO_THROW(parsed = parseSessionRequest(text, findProgram)); });
        EXPECT_FALSE(parsed.request) << text;
        EXPECT_EQ(parsed.reply, reply) << text;
        EXPECT_TRUE(contains(log, message)) << text << "\n" << log;
        EXPECT_EQ(lookups, contains(text, "Solitaire") ? 1 : 0) << text;
    }
}

TEST(SessionRequest, StartStatusesAreNegatedExceptTheCrossedEightAndNine) {
    const std::pair<int, int32_t> cases[] = {{0, 0}, {1, -1}, {6, -6}, {7, -7}, {8, -9}, {9, -8}};
    for (const auto& [status, reply] : cases) {
        EXPECT_EQ(sessionRequestReply(static_cast<StartStatus>(status)), reply) << status;
    }
}
