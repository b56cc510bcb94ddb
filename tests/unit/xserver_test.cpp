#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <grp.h>
#include <pwd.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "test_support.h"

#include "common/logger.h"
#include "start/xserver.h"

using namespace Vexa;
using namespace TestSupport;
namespace fs = std::filesystem;
using namespace std::string_literals;

TEST(XserverDisplay, NewSessionTakesTheFirstNumberAfterTheRunFromBase) {
    // "display:start" raised above the displays in use gives base without looking further, even when base
    // itself is in use further up the list (kept as it has always behaved).
    const std::tuple<uint32_t, std::vector<int32_t>, uint32_t> cases[] = {
        {101, {}, 101},        {101, {104, 101, 102}, 103}, {101, {101, 101, 102}, 103},
        {101, {-1, 101}, 102}, {110, {101, 102}, 110},      {105, {101, 105}, 105}};
    for (const auto& [base, used, expected] : cases) {
        EXPECT_EQ(chooseDisplay(base, used), expected) << "base " << base << ", " << used.size() << " used";
    }
}

TEST(XserverXauth, CreatedFileIsOneLocalEntryWithA32ByteCookieThatReadsBack) {
    const TempDir dir;
    const auto path = createXauthFile(dir.path, 101, ::getpwuid(::getuid())->pw_name, ::getgrgid(::getgid())->gr_name);
    EXPECT_EQ(path, dir.path / "xauth_101");
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0440u);

    const auto cookie = Utils::readXauthfile(path);
    EXPECT_EQ(std::set<uint8_t>(cookie.begin(), cookie.end()).size(), 32u);
    const std::string host = Utils::getHostname();
    auto expected = "\x01\x00\x00"s + char(host.size()) + host + "\x00\x03"s + "101\x00\x12MIT-MAGIC-COOKIE-1\x00\x20"s;
    expected.append(cookie.begin(), cookie.end());
    std::ifstream file(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), expected);
    // data that ends inside the entry has no cookie
    const auto entry = xauthEntry(host, 101, cookie);
    for (size_t cut = 0; cut < entry.size(); ++cut) {
        EXPECT_FALSE(Utils::xauthCookie(std::span(entry).first(cut))) << "cut at " << cut;
    }
}

TEST(XserverArguments, LogfileDepthAndPlaceholdersAndNoTcpListenerByDefault) {
    using Args = std::list<std::string>;
    const std::tuple<Args, uint8_t, Args> rows[] = {
        {{":%{display}", "-logfile", "/var/log/x.log", "-ac"}, 24, {":7", "-logfile", "/dev/null", "-ac"}},
        {{"-depth", "%{depth}"}, 0, {"-depth", "24", "-logfile", "/dev/null"}},
        {{"%{depth}", "-logfile", "a", "-logfile"}, 32, {"24", "-logfile", "/dev/null", "-logfile", "/dev/null"}},
        {{"-screen", "0", "%{width}x%{height}x%{depth}", "-auth", "%{authfile}", "X%{display}%{display}"},
         16,
         {"-screen", "0", "1280x800x16", "-auth", "/run/vexa/xauth_7", "X77", "-logfile", "/dev/null"}},
    };
    for (const auto& [args, depth, expected] : rows) {
        Args result;
        const auto text = logged([&] { result = xorgArguments(args, 7, depth, 1280, 800, "/run/vexa/xauth_7"); });
        EXPECT_EQ(result, expected) << "depth " << int(depth) << ", " << args.size() << " args";
        const bool unknown = depth != 0 && depth != 16 && depth != 24;
        EXPECT_EQ(text.find("runXorgDisplay: unknown depth: " + std::to_string(depth)) != std::string::npos, unknown);
    }
    // Without a configured list: no TCP listener, and the session's authority file.
    std::string builtin;
    for (const auto& arg : xorgArguments({}, 7, 24, 1280, 800, "/run/vexa/xauth_7")) {
        builtin += arg + " ";
    }
    EXPECT_TRUE(contains(builtin, "-nolisten tcp -auth /run/vexa/xauth_7 ")) << builtin;
}

TEST(XserverWrapper, OnlyAllowedUsersAnybodyOnTheFirstMatchingLineKeepsTheWrapper) {
    const TempDir dir;
    const std::pair<std::string, bool> cases[] = {
        {"#\nallowed_users=anybody", false},
        {"allowed_users=console", true},
        {"allowed_users=console\nallowed_users=anybody", true},
    };
    for (const auto& [content, expected] : cases) {
        const auto path = dir.path / "Xwrapper.config";
        std::ofstream(path, std::ios::trunc) << content;
        bool result = !expected;
        const auto text = logged([&] { result = checkXWrapperAllowedOnlyConsole(path); });
        EXPECT_EQ(result, expected) << '"' << content << '"';
        const auto hint = "checkXWrapperAllowedOnlyConsole: not found token: `allowed_users=', please modify to: "
                          "`anybody', for detals check file: `" +
                          path.string() + "'";
        EXPECT_EQ(text.find(hint) != std::string::npos, expected) << text;
    }
    EXPECT_TRUE(checkXWrapperAllowedOnlyConsole(dir.path / "absent"));
}

TEST(XserverDeadServer, OnlyTheDeadServersLockAndSocketAreRemoved) {
    const TempDir dir;
    // A display number no X server of the test machine uses; the lock file's place is fixed by the X servers.
    const uint32_t display = 59000 + static_cast<uint32_t>(getpid() % 1000);
    const fs::path lock = "/tmp/.X" + std::to_string(display) + "-lock";
    const auto socket = dir.path / ("X" + std::to_string(display));
    struct Case {
        const char* name;
        std::optional<std::string> lockText; // nullopt: no lock file
        bool removed;
    };
    const Case cases[] = {
        {"lock of the dead server", "      4321\n", true},
        {"lock of another server", "      4322\n", false},
        {"lock without a pid", "\n", false},
        {"no lock", std::nullopt, false},
    };
    for (const auto& c : cases) {
        std::ofstream(socket) << "";
        if (c.lockText) {
            std::ofstream(lock) << *c.lockText;
        }
        removeDeadServerFiles((dir.path / "X%{display}").string(), display, 4321);
        EXPECT_EQ(!fs::exists(socket), c.removed) << c.name;
        EXPECT_EQ(!fs::exists(lock), c.removed || !c.lockText) << c.name;
        fs::remove(lock);
        fs::remove(socket);
    }
}
