#include <gtest/gtest.h>

#include "session/connect_policy.h"
#include "session/redirect_policy.h"
#include "session/service_defaults.h"

using namespace Vexa;

TEST(ConnectPolicy, OnlyTwoNamesAreRecognisedEverythingElseDeniesNextConnections) {
    const std::pair<const char*, ConnectPolicy> cases[] = {
        {"PrevReplace", ConnectPolicy::PrevReplace}, {"PREVREPLACE", ConnectPolicy::PrevReplace},
        {"MultiAllow", ConnectPolicy::MultiAllow},   {"multiallow", ConnectPolicy::MultiAllow},
        {"NextDeny", ConnectPolicy::NextDeny},       {"", ConnectPolicy::NextDeny},
        {"bogus", ConnectPolicy::NextDeny},          {"multiallow ", ConnectPolicy::NextDeny},
    };
    for (const auto& [name, expected] : cases) {
        EXPECT_EQ(connectPolicy(name), expected) << '"' << name << '"';
    }
}

TEST(RedirectPolicy, EachDefaultFlagOwnsItsFixedBit) {
    const std::pair<bool RedirectDefaults::*, uint32_t> cases[] = {
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
    EXPECT_EQ(redirectPolicyWord(RedirectDefaults{}), all); // never the transport marker bit 27
    for (const auto& [flag, mask] : cases) {
        RedirectDefaults flags;
        flags.*flag = false;
        EXPECT_EQ(redirectPolicyWord(flags), all & ~mask) << std::hex << mask;
        EXPECT_EQ(clipboardPolicyWord(flags), (all & ~mask) & 0x3000000u) << std::hex << mask;
    }
    EXPECT_EQ(redirectSet(0xFFFFFFFFu, RedirectBit::Printer, false), 0xFFFFFFFBu);
    EXPECT_TRUE(redirectAllowed(redirectSet(0, RedirectBit::Audio, true), RedirectBit::Audio));
}

TEST(PackPair, FirstValueInTheHighHalf) {
    EXPECT_EQ(packPair(3, 30), 0x000000030000001EULL);
    EXPECT_EQ(packPair(0, 0xFFFFFFFFu), 0x00000000FFFFFFFFULL);
}
