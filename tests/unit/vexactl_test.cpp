#include <gtest/gtest.h>

#include <json/reader.h>

#include "vexactl/report.h"

namespace {

using namespace Vexa::Ctl;

Json::Value doc(const std::string& text) {
    Json::Value value;
    Json::Reader().parse(text, value);
    return value;
}

TEST(VexactlReport, StateFollowsTheSessionDocument) {
    const struct {
        const char* json;
        const char* state;
    } cases[] = {
        {R"({"systemd:sid": "", "pid2": 10})", "starting"},
        {R"({"systemd:sid": "4", "pid2": 0, "remote:connected": true})", "ending"},
        {R"({"systemd:sid": "4", "pid2": 10, "login:mode": true, "remote:connected": true})", "login"},
        {R"({"systemd:sid": "4", "pid2": 10, "session:frozen": true})", "frozen"},
        {R"({"systemd:sid": "4", "pid2": 10, "remote:connected": true})", "connected"},
        {R"({"systemd:sid": "4", "pid2": 10, "remote:connected": false})", "disconnected"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sessionState(doc(c.json)), c.state) << c.json;
    }
}

TEST(VexactlReport, IdleCountsFromTheLastDisconnectOrTheStart) {
    const int64_t now = 10'000;
    const struct {
        const char* json;
        int64_t idle;
        unsigned transports;
    } cases[] = {
        // never connected: idle since the start
        {R"({"started:timepoint": 9000, "disconnected:timepoint": 0})", 1000, 0},
        {R"({"started:timepoint": 9000, "disconnected:timepoint": 9900})", 100, 0},
        {R"({"started:timepoint": 9000, "remote:connected": true,
             "remote:connects": [{"remoteaddr": "a", "pid": 5}, {"remoteaddr": "b", "pid": 6}]})",
         -1, 2},
    };
    for (const auto& c : cases) {
        const SessionRow row = sessionRow(7, doc(c.json), now);
        EXPECT_EQ(row.idle, c.idle) << c.json;
        EXPECT_EQ(row.transports, c.transports) << c.json;
    }
}

TEST(VexactlWords, RefuseWhatTheDaemonCouldMisread) {
    EXPECT_EQ(parseSwitch("on"), true);
    EXPECT_EQ(parseSwitch("0"), false);
    EXPECT_EQ(parseSwitch("On"), std::nullopt);
    EXPECT_EQ(parseUnsigned("4294967295"), 4294967295u);
    for (const char* bad : {"", "-1", "4294967296", "12a", " 1"}) {
        EXPECT_EQ(parseUnsigned(bad), std::nullopt) << bad;
    }
    // Setters take the id as a signed number, where a negative one means every session: never send one.
    for (const char* bad : {"0", "2147483648", "all"}) {
        EXPECT_EQ(parseSessionId(bad), std::nullopt) << bad;
    }
    EXPECT_EQ(parseConnectPolicy("multi-allow"), 3u);
    EXPECT_EQ(parseConnectPolicy("1"), 1u);
    EXPECT_EQ(parseConnectPolicy("4"), std::nullopt);
    EXPECT_EQ(connectPolicyWord(parseConnectPolicy("prev-replace").value()), "prev-replace");
}

} // namespace
