#include <functional>
#include <limits>

#include <gtest/gtest.h>

#include "common/json_config.h"
#include "session/service_defaults.h"
#include "test_support.h"

using namespace Vexa;

namespace {

JsonConfig parsed(const std::string& text) {
    return JsonConfig(parseJsonStrict(text));
}

} // namespace

TEST(ReadJson, StrictReaderRejectsWhatTheConfigurationMustNotContain) {
    struct Case {
        const char* text;
        bool isObject;
    };
    const Case cases[] = {
        {R"({"debug:level": "debug"})", true},
        {"", false},                       // empty input
        {R"({"a": 1,})", false},           // trailing comma
        {"// comment\n{\"a\": 1}", false}, // comments are not JSON
        {R"("text")", false},              // root must be a container
        {"42", false},
        {R"([1, 2])", false},           // valid JSON, but not an object
        {R"({"a": 1} trailing)", true}, // the library accepts text after the root value
    };
    for (const auto& c : cases) {
        TempFile file(c.text);
        EXPECT_EQ(readJson(file.path).isObject(), c.isObject) << c.text;
    }
}

TEST(ReadJson, DeepNestingIsAParseErrorNotAnException) {
    const std::string nested = R"({"a": )" + std::string(5000, '[') + std::string(5000, ']') + "}";
    TempFile file(nested);
    Json::Value value;
    EXPECT_NO_THROW(value = readJson(file.path));
    EXPECT_TRUE(value.isNull());

    const JsonConfigString fromText(nested);
    EXPECT_FALSE(fromText.isValid());
    EXPECT_FALSE(fromText.parseErrors().empty());
}

TEST(ReadJson, MissingFileGivesNull) {
    EXPECT_TRUE(readJson("/nonexistent/vexa/config.json").isNull());
}

TEST(JsonConfig, GettersReturnDefaultsForAbsentKeysAndTreatColonsAsPartOfTheName) {
    const auto config = parsed(R"({"debug:level": "trace", "debug": {"level": "info"}, "n": -7, "d": 2.5,
                                   "b": true, "list": ["a", "b"]})");
    EXPECT_EQ(config.getString("debug:level", "x"), "trace");
    EXPECT_EQ(config.getString("missing", "fallback"), "fallback");
    EXPECT_EQ(config.getInteger("n", 1), -7);
    EXPECT_EQ(config.getInteger("missing", 9), 9);
    EXPECT_DOUBLE_EQ(config.getDouble("d", 0), 2.5);
    EXPECT_TRUE(config.getBoolean("b", false));
    EXPECT_TRUE(config.getBoolean("missing", true));
    EXPECT_EQ(config.getStringList("list"), (std::list<std::string>{"a", "b"}));
    EXPECT_EQ(config.getVectorList("list"), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(config.getStringList("missing").empty());
    EXPECT_TRUE(config.getValue("missing").isNull());
    EXPECT_TRUE(config.hasValue("debug:level"));
    EXPECT_FALSE(config.hasValue("debug:missing"));
    EXPECT_EQ(config.getKeys().size(), 6u);
}

TEST(JsonConfig, NonObjectValueAnswersDefaultsInsteadOfThrowing) {
    for (const char* text : {"[1, 2]", "3", "\"text\"", ""}) {
        const JsonConfigString config(text);
        EXPECT_FALSE(config.isValid()) << text;
        EXPECT_EQ(config.getInteger("a", 5), 5) << text;
        EXPECT_FALSE(config.hasValue("a")) << text;
        EXPECT_TRUE(config.getKeys().empty()) << text;
    }
}

TEST(JsonConfig, WrongTypesFollowTheLibraryConversionRules) {
    const auto config = parsed(R"({"n": "abc", "b": "yes", "s": 12, "list": "single"})");
    EXPECT_THROW(config.getInteger("n", 0), std::exception);
    EXPECT_THROW(config.getBoolean("b", false), std::exception);
    EXPECT_EQ(config.getString("s", ""), "12");
    EXPECT_TRUE(config.getStringList("list").empty());
}

TEST(JsonConfigString, KeepsParserMessagesForBrokenText) {
    const JsonConfigString broken(R"({"username": )");
    EXPECT_FALSE(broken.isValid());
    EXPECT_FALSE(broken.parseErrors().empty());
    const JsonConfigString good(R"({"username": "u1"})");
    EXPECT_TRUE(good.isValid());
    EXPECT_TRUE(good.parseErrors().empty());
    EXPECT_EQ(good.getString("username"), "u1");
}

TEST(ServiceDefaults, EmptyConfigurationGivesEveryDocumentedDefault) {
    const auto d = loadServiceDefaults(parsed("{}"));
    EXPECT_EQ(d.debugLevel, "info");
    EXPECT_EQ(d.startTimeout, 15u);
    EXPECT_EQ(d.seamlessTimeout, 60u);
    EXPECT_EQ(d.durationTimeout, 0u);
    EXPECT_EQ(d.inactivityTimeout, 0u);
    EXPECT_EQ(d.disconnectTimeout, 0u);
    EXPECT_EQ(d.clipboardLimit, 0u);
    EXPECT_EQ(d.keepAliveInterval, 0u);
    EXPECT_EQ(d.keepAliveFailures, 0u);
    EXPECT_EQ(d.connectPolicy, ConnectPolicy::PrevReplace);
    EXPECT_FALSE(d.disconnectedFreeze);
    EXPECT_FALSE(d.loginHelper || d.loginSessions || d.loginKeyboard || d.shadowPolicy);
    EXPECT_EQ(d.displayStart, 101u);
    EXPECT_EQ(d.runtimeDir, "/run/vexa");
    const auto& r = d.redirect;
    EXPECT_TRUE(r.printer && r.audio && r.microphone && r.clipboardServer && r.clipboardClient && r.clipboardFile &&
                r.drive && r.smartcard);
}

TEST(ServiceDefaults, EachKeyReachesItsOwnMember) {
    struct Case {
        const char* json;
        std::function<bool(const ServiceDefaults&)> check;
    };
    const Case cases[] = {
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
        {R"({"clipboard:server": false})",
         [](const auto& d) { return !d.redirect.clipboardServer && d.redirect.clipboardClient; }},
        {R"({"clipboard:client": false})",
         [](const auto& d) { return !d.redirect.clipboardClient && d.redirect.clipboardServer; }},
        {R"({"clipboard:file": false})", [](const auto& d) { return !d.redirect.clipboardFile; }},
        {R"({"connect:policy": "MULTIALLOW"})",
         [](const auto& d) { return d.connectPolicy == ConnectPolicy::MultiAllow; }},
        {R"({"connect:policy": "bogus"})", [](const auto& d) { return d.connectPolicy == ConnectPolicy::NextDeny; }},
        {R"({"session:disconnected:freeze": true})", [](const auto& d) { return d.disconnectedFreeze; }},
        {R"({"login:helper": true})", [](const auto& d) { return d.loginHelper && !d.loginSessions; }},
        {R"({"login:sessions": true})", [](const auto& d) { return d.loginSessions && !d.loginKeyboard; }},
        {R"({"login:keyboard": true})", [](const auto& d) { return d.loginKeyboard && !d.shadowPolicy; }},
        {R"({"shadow:policy": true})", [](const auto& d) { return d.shadowPolicy && !d.loginHelper; }},
        {R"({"display:start": -105})", [](const auto& d) { return d.displayStart == 105; }},
        {R"({"display:start": 200})", [](const auto& d) { return d.displayStart == 200; }},
        {R"({"runtime:dir": "/run/other"})", [](const auto& d) { return d.runtimeDir == "/run/other"; }},
        // A negative integer is stored as read: it becomes a large unsigned number.
        {R"({"duration:timeout": -1})",
         [](const auto& d) { return d.durationTimeout == std::numeric_limits<uint32_t>::max(); }},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(c.check(loadServiceDefaults(parsed(c.json)))) << c.json;
    }
}

TEST(ServiceDefaults, KeyOfTheWrongTypeThrowsSoThatNothingIsApplied) {
    EXPECT_THROW(loadServiceDefaults(parsed(R"({"start:timeout": "abc"})")), std::exception);
    EXPECT_THROW(loadServiceDefaults(parsed(R"({"redirect:drive": [true]})")), std::exception);
}
