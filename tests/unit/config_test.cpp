#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "common/json_config.h"
#include "session/service_defaults.h"

using namespace Vexa;

namespace {

JsonConfig parsed(const std::string& text) {
    return JsonConfig(parseJsonStrict(text));
}

Json::Value readFrom(const std::string& content) {
    const auto path = std::filesystem::temp_directory_path() / ("vexa-config-test-" + std::to_string(getpid()));
    std::ofstream(path, std::ios::binary) << content;
    auto value = readJson(path);
    std::filesystem::remove(path);
    return value;
}

} // namespace

TEST(ReadJson, StrictReaderAcceptsOnlyAnObjectWithoutComments) {
    const std::pair<std::string, bool> cases[] = {
        {R"({"debug:level": "debug"})", true},
        {R"({"a": 1,})", false},
        {"// comment\n{\"a\": 1}", false},
        {R"([1, 2])", false},
        // Nesting beyond the reader's stack limit makes the library throw: a parse error, not a crash.
        {R"({"a": )" + std::string(5000, '[') + std::string(5000, ']') + "}", false},
    };
    for (const auto& [text, isObject] : cases) {
        EXPECT_EQ(readFrom(text).isObject(), isObject) << text.substr(0, 40);
        EXPECT_EQ(JsonConfigString(text).isValid(), isObject) << text.substr(0, 40);
    }
    EXPECT_TRUE(readJson("/nonexistent/vexa/config.json").isNull());
    EXPECT_FALSE(JsonConfigString(R"({"username": )").parseErrors().empty());
}

TEST(JsonConfig, GettersTreatTheColonAsPartOfTheNameAndDefaultWhenAbsent) {
    const auto config = parsed(R"({"debug:level": "trace", "debug": {"level": "info"}, "n": -7, "list": ["a", "b"],
                                   "bad": "abc", "one": "single"})");
    EXPECT_EQ(config.getString("debug:level", "x"), "trace");
    EXPECT_EQ(config.getString("missing", "fallback"), "fallback");
    EXPECT_EQ(config.getInteger("n", 1), -7);
    EXPECT_EQ(config.getVectorList("list"), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(config.getStringList("missing").empty());
    EXPECT_TRUE(config.getStringList("one").empty());
    EXPECT_THROW(config.getInteger("bad", 0), std::exception); // a wrong type throws
    // A value that is not an object answers defaults instead of throwing.
    const JsonConfigString array("[1, 2]");
    EXPECT_EQ(array.getInteger("a", 5), 5);
    EXPECT_TRUE(array.getKeys().empty());
}

namespace {

auto values(const ServiceDefaults& d) {
    return std::make_tuple(d.debugLevel, d.startTimeout, d.seamlessTimeout, d.durationTimeout, d.inactivityTimeout,
                           d.disconnectTimeout, d.clipboardLimit, d.keepAliveInterval, d.keepAliveFailures,
                           d.connectPolicy, d.displayStart, d.runtimeDir);
}

std::vector<bool> flags(const ServiceDefaults& d) {
    const auto& r = d.redirect;
    return {r.printer,       r.audio,         r.microphone,  r.clipboardServer,    r.clipboardClient,
            r.clipboardFile, r.drive,         r.smartcard,   d.disconnectedFreeze, d.loginHelper,
            d.loginSessions, d.loginKeyboard, d.shadowPolicy};
}

} // namespace

TEST(ServiceDefaults, EachKeyReachesItsOwnMemberAndAbsentKeysKeepTheDefaults) {
    EXPECT_EQ(values(loadServiceDefaults(parsed("{}"))), values(ServiceDefaults{}));
    // A negative integer is stored as read, except the display's absolute value.
    const auto d = loadServiceDefaults(parsed(R"({"debug:level": "trace", "start:timeout": 20, "seamless:timeout": 5,
        "duration:timeout": -1, "inactivity:timeout": 61, "disconnect:timeout": 62, "clipboard:limit": 4096,
        "rdp:keepalive:interval": 7, "rdp:keepalive:failures": 3, "connect:policy": "MULTIALLOW",
        "display:start": -105, "runtime:dir": "/run/other"})"));
    EXPECT_EQ(values(d), std::make_tuple(std::string("trace"), 20u, 5u, 0xFFFFFFFFu, 61u, 62u, 4096u, 7u, 3u,
                                         ConnectPolicy::MultiAllow, 105u, std::filesystem::path("/run/other")));
    // The flags in the order of flags(): each key turns exactly its own.
    const char* const flagKeys[] = {"redirect:print",   "redirect:audio",     "redirect:microphone",
                                    "clipboard:server", "clipboard:client",   "clipboard:file",
                                    "redirect:drive",   "redirect:smartcard", "session:disconnected:freeze",
                                    "login:helper",     "login:sessions",     "login:keyboard",
                                    "shadow:policy"};
    for (size_t i = 0; i < std::size(flagKeys); ++i) {
        auto expected = flags(ServiceDefaults{});
        expected[i] = !expected[i];
        const auto json = std::string("{\"") + flagKeys[i] + "\": " + (expected[i] ? "true" : "false") + "}";
        EXPECT_EQ(flags(loadServiceDefaults(parsed(json))), expected) << json;
    }
    // A key of the wrong type throws, so that a reload applies nothing of a bad file.
    EXPECT_THROW(loadServiceDefaults(parsed(R"({"start:timeout": "abc"})")), std::exception);
}
