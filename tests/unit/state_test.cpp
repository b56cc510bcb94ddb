#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "session/state.h"

using namespace Vexa;
namespace fs = std::filesystem;

namespace {

class SessionState : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(store); }
    void TearDown() override { fs::remove_all(store); }

    // A session of uid 1000 whose nine saved values all differ.
    static std::shared_ptr<Session> session() {
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

    const fs::path store = fs::temp_directory_path() / ("vexa-state-" + std::to_string(::getpid()));
};

} // namespace

TEST_F(SessionState, SavedFileIsOneLineInTheFixedKeyOrderReplacedAtomicallyWithMode0640) {
    const auto file = store / "1000.json";
    std::ofstream(file) << "{\"duration:limit\": 7}\n";
    ASSERT_TRUE(sessionSaveState(session().get(), store));
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    EXPECT_EQ(text.str(), "{\"duration:limit\":1,\"inactivity:limit\":2,\"disconnect:limit\":3,"
                          "\"seamless:limit\":4,\"clipboard:limit\":5,\"redirect:policy\":4294967295,"
                          "\"connect:policy\":3,\"rdp:keepalive:interval\":8,\"rdp:keepalive:failures\":9}\n");
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    // The temporary file was renamed over the file: nothing else is left.
    EXPECT_EQ(std::distance(fs::directory_iterator(store), fs::directory_iterator()), 1);
}

TEST_F(SessionState, RestoreTakesThePresentIntegerKeysAsUnsignedAndKeepsTheRest) {
    const std::pair<const char*, uint32_t> cases[] = {
        {R"({"duration:limit": 600})", 600},
        {R"({"duration:limit": -1})", 4294967295u},
        {R"({"duration:limit": -2147483648})", 2147483648u},
        {R"({"duration:limit": 4294967296})", 1},
        {R"({"duration:limit": "600"})", 1},
    };
    for (const auto& [json, duration] : cases) {
        std::ofstream(store / "1000.json") << json;
        auto restored = session();
        sessionLoadState(restored.get(), store);
        auto expected = session();
        expected->durationLimit = duration;
        EXPECT_EQ(sessionStateText(*restored), sessionStateText(*expected)) << json;
    }
}
