#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/logger.h"
#include "session/state.h"

using namespace Vexa;
namespace fs = std::filesystem;

namespace {

std::string logged(const std::function<void()>& call) {
    Syslog::setDebugLevel(DebugLevel::Console);
    ::testing::internal::CaptureStderr();
    call();
    Syslog::setDebugLevel(DebugLevel::None);
    return ::testing::internal::GetCapturedStderr();
}

class StoreDir {
public:
    StoreDir() {
        std::string name = (fs::temp_directory_path() / "vexa-state-XXXXXX").string();
        path = ::mkdtemp(name.data());
    }
    ~StoreDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& file : fs::directory_iterator(path)) {
            found.push_back(file.path().filename().string());
        }
        return found;
    }
    fs::path path;
};

std::shared_ptr<Session> makeSession(uid_t uid) {
    passwd entry{};
    entry.pw_name = const_cast<char*>("state-user");
    entry.pw_uid = uid;
    return std::make_shared<Session>(1, std::make_shared<UserEx>(entry, false), ServiceDefaults{});
}

void setAll(Session& s, uint32_t base) {
    s.durationLimit = base + 1;
    s.inactivityLimit = base + 2;
    s.disconnectLimit = base + 3;
    s.seamlessLimit = base + 4;
    s.clipboardLimit = base + 5;
    s.redirectPolicy = base + 6;
    s.policyConnect = static_cast<ConnectPolicy>(base + 7);
    s.rdpKeepAliveInterval = base + 8;
    s.rdpKeepAliveFailures = base + 9;
}

auto saved(const Session& s) {
    return std::make_tuple(s.durationLimit, s.inactivityLimit, s.disconnectLimit, s.seamlessLimit, s.clipboardLimit,
                           s.redirectPolicy, static_cast<uint32_t>(s.policyConnect), s.rdpKeepAliveInterval,
                           s.rdpKeepAliveFailures);
}

std::string content(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

TEST(SessionState, SavedTextIsOneLineInTheFixedKeyOrder) {
    StoreDir store;
    auto session = makeSession(1000);
    setAll(*session, 0);
    session->durationLimit = 600;
    session->redirectPolicy = 0xffffffffu;
    session->policyConnect = ConnectPolicy::MultiAllow;
    const std::string expected = "{\"duration:limit\":600,\"inactivity:limit\":2,\"disconnect:limit\":3,"
                                 "\"seamless:limit\":4,\"clipboard:limit\":5,\"redirect:policy\":4294967295,"
                                 "\"connect:policy\":3,\"rdp:keepalive:interval\":8,\"rdp:keepalive:failures\":9}\n";
    EXPECT_EQ(sessionStateText(*session), expected);

    EXPECT_TRUE(sessionSaveState(session.get(), store.path));
    const auto file = store.path / "1000.json";
    EXPECT_EQ(content(file), expected);
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(store.names(), std::vector<std::string>{"1000.json"}); // no temporary file left

    // Two sessions of one user share the file: the one that ends last wins.
    auto other = makeSession(1000);
    setAll(*other, 20);
    EXPECT_TRUE(sessionSaveState(other.get(), store.path));
    EXPECT_EQ(content(file), sessionStateText(*other));
}

TEST(SessionState, SaveWithoutStoreDirectoryWritesNothing) {
    StoreDir store;
    auto session = makeSession(1002);
    std::string text = logged([&] { EXPECT_FALSE(sessionSaveState(session.get(), store.path / "missing")); });
    EXPECT_NE(text.find("sessionSaveState: mkostemp failed, error: No such file or directory, code: 2"),
              std::string::npos)
        << text;
    EXPECT_FALSE(sessionSaveState(nullptr, store.path));
    EXPECT_TRUE(store.names().empty());
}

TEST(SessionState, SavedValuesComeBackInTheNextSessionOfTheUser) {
    StoreDir store;
    auto ended = makeSession(1003);
    setAll(*ended, 0x7ffffff0u); // above the signed range on purpose
    ASSERT_TRUE(sessionSaveState(ended.get(), store.path));
    auto next = makeSession(1003);
    sessionLoadState(next.get(), store.path);
    EXPECT_EQ(saved(*next), saved(*ended));

    // A user without a file keeps the values the session has, and nothing is logged.
    auto otherUser = makeSession(1004);
    const auto before = saved(*otherUser);
    EXPECT_EQ(logged([&] { sessionLoadState(otherUser.get(), store.path); }), "");
    EXPECT_EQ(saved(*otherUser), before);
}

TEST(SessionState, LoadTakesThePresentIntegerKeysAndKeepsTheRest) {
    struct Case {
        std::string json;
        uint32_t duration;     // 7 when kept
        uint32_t interval;     // 9 when kept
        bool warnsAboutAValue; // "value not integer"
    };
    const Case cases[] = {
        {R"({"duration:limit": 600})", 600, 9, false},
        {R"({"duration:limit": -1, "rdp:keepalive:interval": -600})", 4294967295u, 4294966696u, false},
        {R"({"duration:limit": 4294967295, "rdp:keepalive:interval": 0})", 4294967295u, 0, false},
        {R"({"duration:limit": -2147483648})", 2147483648u, 9, false},
        {R"({"duration:limit": 4294967296})", 7, 9, true},
        {R"({"duration:limit": "600"})", 7, 9, true},
        {R"({"duration:limit": 1.5, "rdp:keepalive:interval": 30.0})", 7, 30, true},
        {R"({"other": 1})", 7, 9, false},
    };
    for (const auto& c : cases) {
        StoreDir store;
        std::ofstream(store.path / "1005.json") << c.json;
        auto session = makeSession(1005);
        setAll(*session, 6); // duration 7 ... failures 15
        session->rdpKeepAliveInterval = 9;
        auto expected = saved(*session);
        std::get<0>(expected) = c.duration;
        std::get<7>(expected) = c.interval;
        const auto text = logged([&] { sessionLoadState(session.get(), store.path); });
        EXPECT_EQ(saved(*session), expected) << c.json;
        EXPECT_EQ(text.find("sessionLoadState: value not integer, key: duration:limit") != std::string::npos,
                  c.warnsAboutAValue)
            << c.json << "\n"
            << text;
    }
}

TEST(SessionState, FileThatIsNoObjectIsLoggedAndIgnored) {
    const std::string cases[] = {"[600]", "{\"duration:limit\": 600"};
    for (const auto& json : cases) {
        StoreDir store;
        const auto file = store.path / "1006.json";
        std::ofstream(file) << json;
        auto session = makeSession(1006);
        setAll(*session, 100);
        const auto before = saved(*session);
        const auto text = logged([&] { sessionLoadState(session.get(), store.path); });
        EXPECT_EQ(saved(*session), before) << json;
        EXPECT_NE(text.find("sessionLoadState: json not object, file: " + file.string()), std::string::npos) << text;
        EXPECT_TRUE(fs::exists(file)); // left for the next save to overwrite
    }
}
