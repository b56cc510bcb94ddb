#include <gtest/gtest.h>

#include "session/connect_policy.h"
#include "session/redirect_policy.h"
#include "session/service_defaults.h"

using namespace Vexa;

TEST(ConnectPolicy, OnlyTwoNamesAreRecognisedEverythingElseDeniesNextConnections) {
    struct Case {
        const char* name;
        ConnectPolicy expected;
    };
    const Case cases[] = {
        {"PrevReplace", ConnectPolicy::PrevReplace}, {"prevreplace", ConnectPolicy::PrevReplace},
        {"PREVREPLACE", ConnectPolicy::PrevReplace}, {"MultiAllow", ConnectPolicy::MultiAllow},
        {"MULTIALLOW", ConnectPolicy::MultiAllow},   {"NextDeny", ConnectPolicy::NextDeny},
        {"nextdeny", ConnectPolicy::NextDeny},       {"", ConnectPolicy::NextDeny},
        {"bogus", ConnectPolicy::NextDeny},          {"prev replace", ConnectPolicy::NextDeny},
        {"multiallow ", ConnectPolicy::NextDeny},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(connectPolicy(c.name), c.expected) << '"' << c.name << '"';
    }
}

TEST(ConnectPolicy, LogNamesExistForKnownValuesOnly) {
    EXPECT_STREQ(connectPolicyName(ConnectPolicy::NextDeny), "ConnectPolicy::NextDeny");
    EXPECT_STREQ(connectPolicyName(ConnectPolicy::PrevReplace), "ConnectPolicy::PrevReplace");
    EXPECT_STREQ(connectPolicyName(ConnectPolicy::MultiAllow), "ConnectPolicy::MultiAllow");
    EXPECT_EQ(connectPolicyName(static_cast<ConnectPolicy>(0)), nullptr);
    EXPECT_EQ(connectPolicyName(static_cast<ConnectPolicy>(4)), nullptr);
}

TEST(RedirectPolicy, EachDefaultFlagOwnsItsFixedBit) {
    struct Case {
        bool RedirectDefaults::*flag;
        uint32_t mask;
    };
    const Case cases[] = {
        {&RedirectDefaults::printer, 0x4},
        {&RedirectDefaults::drive, 0x8},
        {&RedirectDefaults::smartcard, 0x20},
        {&RedirectDefaults::clipboardServer, 0x1000000},
        {&RedirectDefaults::clipboardClient, 0x2000000},
        {&RedirectDefaults::clipboardFile, 0x4000000},
        {&RedirectDefaults::microphone, 0x10000000},
        {&RedirectDefaults::audio, 0x20000000},
    };
    constexpr uint32_t all = 0x4 | 0x8 | 0x20 | 0x1000000 | 0x2000000 | 0x4000000 | 0x10000000 | 0x20000000;
    EXPECT_EQ(redirectPolicyWord(RedirectDefaults{}), all);
    for (const auto& c : cases) {
        RedirectDefaults flags;
        flags.*c.flag = false;
        EXPECT_EQ(redirectPolicyWord(flags), all & ~c.mask) << std::hex << c.mask;
    }
    // The transport marker bit is never part of a stored word.
    EXPECT_EQ(redirectPolicyWord(RedirectDefaults{}) & redirectTransportMarker, 0u);
}

TEST(RedirectPolicy, ClipboardWordCarriesBothDirections) {
    RedirectDefaults flags;
    EXPECT_EQ(clipboardPolicyWord(flags), 0x3000000u);
    flags.clipboardServer = false;
    EXPECT_EQ(clipboardPolicyWord(flags), 0x2000000u);
    flags.clipboardClient = false;
    EXPECT_EQ(clipboardPolicyWord(flags), 0u);
}

TEST(RedirectPolicy, SetAndClearTouchOnlyTheirBit) {
    uint32_t word = 0;
    word = redirectSet(word, RedirectBit::Audio, true);
    EXPECT_EQ(word, 0x20000000u);
    EXPECT_TRUE(redirectAllowed(word, RedirectBit::Audio));
    EXPECT_FALSE(redirectAllowed(word, RedirectBit::Microphone));
    word = redirectSet(0xFFFFFFFFu, RedirectBit::Printer, false);
    EXPECT_EQ(word, 0xFFFFFFFBu);
}

TEST(PackPair, FirstValueInTheHighHalf) {
    EXPECT_EQ(packPair(3, 30), 0x000000030000001EULL);
    EXPECT_EQ(packPair(0xFFFFFFFFu, 0), 0xFFFFFFFF00000000ULL);
    EXPECT_EQ(packPair(0, 0xFFFFFFFFu), 0x00000000FFFFFFFFULL);
}
