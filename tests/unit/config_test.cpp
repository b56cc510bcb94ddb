#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>

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
        {"", false},
        {R"({"a": 1,})", false},
        {"// comment\n{\"a\": 1}", false},
        {R"("text")", false},
        {R"([1, 2])", false},
        {R"({"a": 1} trailing)", true}, // the library accepts text after the root value
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
    const auto config = parsed(R"({"debug:level": "trace", "debug": {"level": "info"}, "n": -7, "d": 2.5,
                                   "b": true, "list": ["a", "b"], "bad": "abc", "one": "single"})");
    EXPECT_EQ(config.getString("debug:level", "x"), "trace");
    EXPECT_EQ(config.getString("missing", "fallback"), "fallback");
    EXPECT_EQ(config.getInteger("n", 1), -7);
    EXPECT_EQ(config.getInteger("missing", 9), 9);
    EXPECT_DOUBLE_EQ(config.getDouble("d", 0), 2.5);
    EXPECT_TRUE(config.getBoolean("b", false));
    EXPECT_EQ(config.getStringList("list"), (std::list<std::string>{"a", "b"}));
    EXPECT_EQ(config.getVectorList("list"), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(config.getStringList("missing").empty());
    EXPECT_TRUE(config.getStringList("one").empty());
    EXPECT_FALSE(config.hasValue("debug:missing"));
    EXPECT_EQ(config.getKeys().size(), 8u);
    // Wrong types follow the library's conversion rules.
    EXPECT_THROW(config.getInteger("bad", 0), std::exception);
    EXPECT_EQ(config.getString("n", ""), "-7");

    // A value that is not an object answers defaults instead of throwing.
    const JsonConfigString array("[1, 2]");
    EXPECT_EQ(array.getInteger("a", 5), 5);
    EXPECT_TRUE(array.getKeys().empty());
}

TEST(ServiceDefaults, EmptyConfigurationGivesTheDocumentedDefaults) {
    const auto d = loadServiceDefaults(parsed("{}"));
    EXPECT_EQ(d.debugLevel, "info");
    EXPECT_EQ(std::make_tuple(d.startTimeout, d.seamlessTimeout, d.durationTimeout, d.inactivityTimeout,
                              d.disconnectTimeout, d.clipboardLimit, d.keepAliveInterval, d.keepAliveFailures),
              std::make_tuple(15u, 60u, 0u, 0u, 0u, 0u, 0u, 0u));
    EXPECT_EQ(d.connectPolicy, ConnectPolicy::PrevReplace);
    EXPECT_FALSE(d.disconnectedFreeze || d.loginHelper || d.loginSessions || d.loginKeyboard || d.shadowPolicy);
    EXPECT_EQ(d.displayStart, 101u);
    EXPECT_EQ(d.runtimeDir, "/run/vexa");
    EXPECT_EQ(redirectPolicyWord(d.redirect), redirectPolicyWord(RedirectDefaults{}));
}

TEST(ServiceDefaults, EachKeyReachesItsOwnMember) {
    using Check = std::function<bool(const ServiceDefaults&)>;
    const std::pair<const char*, Check> cases[] = {
        {R"({"debug:level": "trace"})", [](const auto& d) { return d.debugLevel == "trace"; }},
        {R"({"start:timeout": 20})", [](const auto& d) { return d.startTimeout == 20; }},
        {R"({"seamless:timeout": 5})", [](const auto& d) { return d.seamlessTimeout == 5; }},
        {R"({"duration:timeout": 600})", [](const auto& d) { return d.durationTimeout == 600; }},
        {R"({"inactivity:timeout": 61})", [](const auto& d) { return d.inactivityTimeout == 61; }},
        {R"({"disconnect:timeout": 62})", [](const auto& d) { return d.disconnectTimeout == 62; }},
        {R"({"clipboard:limit": 4096})", [](const auto& d) { return d.clipboardLimit == 4096; }},
        {R"({"rdp:keepalive:interval": 7})", [](const auto& d) { return d.keepAliveInterval == 7; }},
        {R"({"rdp:keepalive:failures": 3})", [](const auto& d) { return d.keepAliveFailures == 3; }},
        {R"({"redirect:drive": false})", [](const auto& d) { return !d.redirect.drive && d.redirect.printer; }},
        {R"({"redirect:print": false})", [](const auto& d) { return !d.redirect.printer && d.redirect.drive; }},
        {R"({"redirect:smartcard": false})", [](const auto& d) { return !d.redirect.smartcard; }},
        {R"({"redirect:audio": false})", [](const auto& d) { return !d.redirect.audio && d.redirect.microphone; }},
        {R"({"redirect:microphone": false})", [](const auto& d) { return !d.redirect.microphone && d.redirect.audio; }},
        {R"({"clipboard:server": false})", [](const auto& d) { return !d.redirect.clipboardServer; }},
        {R"({"clipboard:client": false})", [](const auto& d) { return !d.redirect.clipboardClient; }},
        {R"({"clipboard:file": false})", [](const auto& d) { return !d.redirect.clipboardFile; }},
        {R"({"connect:policy": "MULTIALLOW"})",
         [](const auto& d) { return d.connectPolicy == ConnectPolicy::MultiAllow; }},
        {R"({"session:disconnected:freeze": true})", [](const auto& d) { return d.disconnectedFreeze; }},
        {R"({"login:helper": true})", [](const auto& d) { return d.loginHelper && !d.loginSessions; }},
        {R"({"login:sessions": true})", [](const auto& d) { return d.loginSessions && !d.loginKeyboard; }},
        {R"({"login:keyboard": true})", [](const auto& d) { return d.loginKeyboard && !d.shadowPolicy; }},
        {R"({"shadow:policy": true})", [](const auto& d) { return d.shadowPolicy && !d.loginHelper; }},
        {R"({"display:start": -105})", [](const auto& d) { return d.displayStart == 105; }},
        {R"({"runtime:dir": "/run/other"})", [](const auto& d) { return d.runtimeDir == "/run/other"; }},
        // A negative integer is stored as read: it becomes a large unsigned number.
        {R"({"duration:timeout": -1})",
         [](const auto& d) { return d.durationTimeout == std::numeric_limits<uint32_t>::max(); }},
    };
    for (const auto& [json, check] : cases) {
        EXPECT_TRUE(check(loadServiceDefaults(parsed(json)))) << json;
    }
    // A key of the wrong type throws, so that a reload applies nothing of a bad file.
    EXPECT_THROW(loadServiceDefaults(parsed(R"({"start:timeout": "abc"})")), std::exception);
}
