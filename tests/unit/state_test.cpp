#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "test_support.h"

#include "session/connect_policy.h"
#include "session/redirect_policy.h"
#include "session/service_defaults.h"
#include "session/state.h"

using namespace Vexa;
namespace fs = std::filesystem;

namespace {

// A session of uid 1000 whose nine saved values all differ.
std::shared_ptr<Session> session() {
    passwd entry{};
    entry.pw_name = const_cast<char*>("state-user");
    entry.pw_uid = 1000;
    auto s = std::make_shared<Session>(1, std::make_shared<UserEx>(entry, false), ServiceDefaults{});
    s->durationLimit = 1;
    s->inactivityLimit = 2;
    s->disconnectLimit = 3;
    s->seamlessLimit = 4;
    s->clipboardLimit = 5;
    s->redirectPolicy = 0xffffffffu;
    s->policyConnect = ConnectPolicy::MultiAllow;
    s->rdpKeepAliveInterval = 8;
    s->rdpKeepAliveFailures = 9;
    return s;
}

} // namespace

TEST(SessionState, SavedFileIsOneLineInTheFixedKeyOrderReplacedAtomicallyWithMode0640) {
    const TestSupport::TempDir store;
    const auto file = store.path / "1000.json";
    std::ofstream(file) << "{\"duration:limit\": 7}\n";
    ASSERT_TRUE(sessionSaveState(session().get(), store.path));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(std::ifstream(file).rdbuf()), {}),
              "{\"duration:limit\":1,\"inactivity:limit\":2,\"disconnect:limit\":3,"
              "\"seamless:limit\":4,\"clipboard:limit\":5,\"redirect:policy\":4294967295,"
              "\"connect:policy\":3,\"rdp:keepalive:interval\":8,\"rdp:keepalive:failures\":9}\n");
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    // The temporary file was renamed over the file: nothing else is left.
    EXPECT_EQ(std::distance(fs::directory_iterator(store.path), fs::directory_iterator()), 1);
}

TEST(SessionState, RestoreTakesThePresentIntegerKeysAsUnsignedAndKeepsTheRest) {
    const TestSupport::TempDir store;
    const std::pair<const char*, uint32_t> cases[] = {
        {"600", 600}, {"-1", 4294967295u}, {"3000000000", 3000000000u}, {"4294967296", 1}, {"\"600\"", 1},
    };
    for (const auto& [json, duration] : cases) {
        std::ofstream(store.path / "1000.json") << "{\"duration:limit\": " << json << "}";
        auto restored = session();
        sessionLoadState(restored.get(), store.path);
        auto expected = session();
        expected->durationLimit = duration;
        EXPECT_EQ(sessionStateText(*restored), sessionStateText(*expected)) << json;
    }
}

TEST(ConnectPolicy, OnlyTwoNamesAreRecognisedInAnyCaseEverythingElseDeniesNextConnections) {
    EXPECT_EQ(connectPolicy("PREVREPLACE"), ConnectPolicy::PrevReplace);
    EXPECT_EQ(connectPolicy("multiallow"), ConnectPolicy::MultiAllow);
    EXPECT_EQ(connectPolicy("NextDeny"), ConnectPolicy::NextDeny);
    EXPECT_EQ(connectPolicy("multiallow "), ConnectPolicy::NextDeny);
}

TEST(RedirectPolicy, EachDefaultFlagOwnsItsFixedBit) {
    using R = RedirectDefaults;
    bool R::*const flags[] = {&R::printer,         &R::drive,         &R::smartcard,  &R::clipboardServer,
                              &R::clipboardClient, &R::clipboardFile, &R::microphone, &R::audio};
    const int bits[] = {2, 3, 5, 24, 25, 26, 28, 29};
    constexpr uint32_t all = 0x3700002C; // never the transport marker bit 27
    EXPECT_EQ(redirectPolicyWord(R{}), all);
    for (size_t i = 0; i < std::size(flags); ++i) {
        R defaults;
        defaults.*flags[i] = false;
        const uint32_t word = all & ~(1u << bits[i]);
        EXPECT_EQ(redirectPolicyWord(defaults), word) << bits[i];
        EXPECT_EQ(clipboardPolicyWord(defaults), word & 0x3000000u) << bits[i];
    }
}
