#include <filesystem>
#include <fstream>
#include <functional>
#include <grp.h>
#include <pwd.h>
#include <set>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/logger.h"
#include "common/vexa_error.h"
#include "start/xserver.h"

using namespace Vexa;
namespace fs = std::filesystem;

namespace {

// Everything the call logs, through the console sink.
std::string logged(const std::function<void()>& call) {
    Syslog::setDebugLevel(DebugLevel::Console);
    ::testing::internal::CaptureStderr();
    call();
    Syslog::setDebugLevel(DebugLevel::None);
    return ::testing::internal::GetCapturedStderr();
}

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

class TempDir {
public:
    TempDir() {
        std::string name = (fs::temp_directory_path() / "vexa-xserver-XXXXXX").string();
        path = ::mkdtemp(name.data());
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    fs::path write(const std::string& name, const std::string& content) const {
        std::ofstream(path / name, std::ios::binary) << content;
        return path / name;
    }
    fs::path path;
};

std::vector<uint8_t> bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

std::string currentUser() {
    return ::getpwuid(::getuid())->pw_name;
}

std::string currentGroup() {
    return ::getgrgid(::getgid())->gr_name;
}

} // namespace

TEST(XserverDisplay, NewSessionTakesTheFirstNumberAfterTheRunFromBase) {
    const std::tuple<uint32_t, std::vector<int32_t>, uint32_t> cases[] = {
        {101, {}, 101},
        {101, {101, 102, 104}, 103},
        {101, {104, 101, 102}, 103},
        {101, {102}, 101},
        {101, {101, 102, 103, 104, 105}, 106},
        {101, {101}, 102},
        {101, {101, 101, 102}, 103},
        {101, {-1, 101}, 102},
        {0, {0, 1, 2}, 3},
        // "display:start" raised above the displays in use: base, without looking further.
        {110, {101, 102}, 110},
        // ... even when base itself is in use further up the list (kept as it has always behaved).
        {105, {101, 105}, 105},
    };
    for (const auto& [base, used, expected] : cases) {
        EXPECT_EQ(chooseDisplay(base, used), expected) << "base " << base << ", " << used.size() << " used";
    }
}

TEST(XserverXauth, EntryIsFamilyLocalThenLengthPrefixedHostDisplayNameAndCookie) {
    using namespace std::string_view_literals;
    const auto expected = "\x01\x00"
                          "\x00\x04host"
                          "\x00\x03"
                          "101"
                          "\x00\x12MIT-MAGIC-COOKIE-1"
                          "\x00\x04\xde\xad\xbe\xef"sv;
    EXPECT_EQ(xauthEntry("host", 101, {0xde, 0xad, 0xbe, 0xef}), bytes(expected));

    EXPECT_THROW(xauthEntry(std::string(0x10000, 'h'), 1, {}), std::length_error);
    EXPECT_THROW(xauthEntry("h", 1, std::vector<uint8_t>(0x10000)), std::length_error);
    const auto longest = xauthEntry(std::string(0xffff, 'h'), 1, {});
    EXPECT_EQ(std::vector<uint8_t>(longest.begin() + 2, longest.begin() + 4), (std::vector<uint8_t>{0xff, 0xff}));
}

TEST(XserverXauth, HostIsTheNodeNameXlibLooksUp) {
    utsname name{};
    ASSERT_EQ(::uname(&name), 0);
    EXPECT_EQ(Utils::getHostname(), name.nodename);
}

TEST(XserverXauth, CookieOfTheFirstEntryIsReadBackAndTruncationAtAnyByteIsRefused) {
    const std::vector<uint8_t> cookie = Utils::randomBytes(32);
    const auto entry = xauthEntry("somehost", 7, cookie);
    EXPECT_EQ(Utils::xauthCookie(entry), cookie);

    for (size_t cut = 0; cut < entry.size(); ++cut) {
        EXPECT_FALSE(Utils::xauthCookie(std::span(entry).first(cut))) << "cut at " << cut;
    }

    auto two = entry;
    const auto second = xauthEntry("otherhost", 8, bytes("0123456789abcdef"));
    two.insert(two.end(), second.begin(), second.end());
    EXPECT_EQ(Utils::xauthCookie(two), cookie);

    EXPECT_EQ(Utils::xauthCookie(xauthEntry("", 0, {})), std::vector<uint8_t>{});
}

TEST(XserverXauth, CreatedFileHoldsOneEntryWithA32ByteCookieMode0440AndTheOwner) {
    const TempDir dir;
    const mode_t before = ::umask(022);
    const auto path = createXauthFile(dir.path, 101, currentUser(), currentGroup());
    EXPECT_EQ(::umask(before), 022) << "umask not restored";

    EXPECT_EQ(path, dir.path / "xauth_101");
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0440u);
    EXPECT_EQ(st.st_uid, ::getuid());
    EXPECT_EQ(st.st_gid, ::getgid());

    const auto cookie = Utils::readXauthfile(path);
    ASSERT_EQ(cookie.size(), 32u);
    EXPECT_EQ(std::set<uint8_t>(cookie.begin(), cookie.end()).size(), 32u);

    std::ifstream file(path, std::ios::binary);
    const std::vector<uint8_t> content{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(content, xauthEntry(Utils::getHostname(), 101, cookie));
}

TEST(XserverXauth, SecondCreationReplacesTheFileWithANewCookieAndLeavesNothingElse) {
    const TempDir dir;
    const auto first = Utils::readXauthfile(createXauthFile(dir.path, 102, currentUser(), currentGroup()));
    const auto path = createXauthFile(dir.path, 102, currentUser(), currentGroup());
    const auto second = Utils::readXauthfile(path);
    ASSERT_EQ(second.size(), 32u);
    EXPECT_NE(first, second);
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0440u);
    std::vector<fs::path> names;
    for (const auto& entry : fs::directory_iterator(dir.path)) {
        names.push_back(entry.path());
    }
    EXPECT_EQ(names, std::vector<fs::path>{path});
}

TEST(XserverXauth, CreationInAMissingDirectoryThrowsAndLogsThePath) {
    const TempDir dir;
    const auto missing = dir.path / "missing";
    std::string what;
    const auto text = logged([&] {
        try {
            createXauthFile(missing, 103, currentUser(), currentGroup());
        } catch (const std::runtime_error& e) {
            what = e.what();
        }
    });
    EXPECT_EQ(what, "createXauthFile");
    EXPECT_TRUE(contains(text, "createXauthFile: create xauthfile failed, path: " + (missing / "xauth_103").string()))
        << text;
}

TEST(XserverXauth, UnreadableOrShortFilesGiveAnEmptyCookieAndAnError) {
    const TempDir dir;
    const auto entry = xauthEntry("h", 1, bytes("cookie"));
    const std::pair<fs::path, std::string> cases[] = {
        {dir.path / "absent", ""},
        {dir.write("empty", ""), ""},
        {dir.write("short", std::string(entry.begin(), entry.end() - 1)), ""},
        {dir.path, ""},
        {dir.write("whole", std::string(entry.begin(), entry.end())), "cookie"},
    };
    for (const auto& [path, expected] : cases) {
        std::vector<uint8_t> cookie;
        const auto text = logged([&] { cookie = Utils::readXauthfile(path); });
        EXPECT_EQ(cookie, bytes(expected)) << path;
        EXPECT_EQ(contains(text, "readXauthfile: read xauthfile failed, path: " + path.string()), expected.empty())
            << text;
    }
}

TEST(XserverXauth, RandomBytesShuffleEveryByteValueOncePer256Block) {
    const auto cookie = Utils::randomBytes(32);
    EXPECT_EQ(cookie.size(), 32u);
    EXPECT_EQ(std::set<uint8_t>(cookie.begin(), cookie.end()).size(), 32u);

    const auto many = Utils::randomBytes(300);
    ASSERT_EQ(many.size(), 300u);
    EXPECT_EQ(std::set<uint8_t>(many.begin(), many.begin() + 256).size(), 256u);
    EXPECT_EQ(std::set<uint8_t>(many.begin() + 256, many.end()).size(), 44u);

    EXPECT_NE(Utils::randomBytes(32), Utils::randomBytes(32));
    EXPECT_TRUE(Utils::randomBytes(0).empty());
}

TEST(XserverArguments, TemplateLogfileDepthAndPlaceholders) {
    using Args = std::list<std::string>;
    const Args builtin{
        ":7",     "-nolisten",  "tcp",    "-auth",      "/run/vexa/xauth_7", "-config",    "vexa.conf", "-depth",
        "24",     "+extension", "DAMAGE", "+extension", "MIT-SHM",           "+extension", "RANDR",     "+extension",
        "XFIXES", "+extension", "XTEST",  "-logfile",   "/dev/null"};
    struct Row {
        Args args;
        uint8_t depth;
        Args expected;
    };
    const Row rows[] = {
        {{}, 24, builtin},
        {{":%{display}", "-logfile", "/var/log/x.log", "-ac"}, 24, {":7", "-logfile", "/dev/null", "-ac"}},
        {{":%{display}", "-logfile"}, 24, {":7", "-logfile", "/dev/null"}},
        {{":%{display}"}, 24, {":7", "-logfile", "/dev/null"}},
        {{"-logfile", "a", "-logfile", "b"}, 24, {"-logfile", "/dev/null", "-logfile", "/dev/null"}},
        {{"-depth", "%{depth}"}, 16, {"-depth", "16", "-logfile", "/dev/null"}},
        {{"-depth", "%{depth}"}, 0, {"-depth", "24", "-logfile", "/dev/null"}},
        {{"-depth", "%{depth}"}, 32, {"-depth", "24", "-logfile", "/dev/null"}},
        {{"-depth", "%{depth}"}, 8, {"-depth", "24", "-logfile", "/dev/null"}},
        {{"-screen", "0", "%{width}x%{height}x%{depth}", "-auth", "%{authfile}", "X%{display}%{display}"},
         16,
         {"-screen", "0", "1280x800x16", "-auth", "/run/vexa/xauth_7", "X77", "-logfile", "/dev/null"}},
    };
    for (const auto& row : rows) {
        Args args;
        const auto text = logged([&] { args = xorgArguments(row.args, 7, row.depth, 1280, 800, "/run/vexa/xauth_7"); });
        EXPECT_EQ(args, row.expected) << "depth " << int(row.depth) << ", " << row.args.size() << " args";
        const bool unknown = row.depth != 0 && row.depth != 16 && row.depth != 24;
        EXPECT_EQ(contains(text, "runXorgDisplay: unknown depth: " + std::to_string(row.depth)), unknown) << text;
    }
}

TEST(XserverWrapper, OnlyAllowedUsersAnybodyOnTheFirstMatchingLineKeepsTheWrapper) {
    const TempDir dir;
    const std::pair<std::string, bool> cases[] = {
        {"allowed_users=anybody\n", false},
        {"# comment\nneeds_root_rights=yes\nallowed_users=anybody", false},
        {"allowed_users=console\n", true},
        {"allowed_users=rootonly\n", true},
        {"allowed_users=anybody \n", true},
        {"allowed_users = anybody\n", true},
        {" allowed_users=anybody\n", true},
        {"needs_root_rights=yes\n", true},
        {"", true},
        {"allowed_users=console\nallowed_users=anybody\n", true},
        {"allowed_users=anybody\nallowed_users=console\n", false},
    };
    int n = 0;
    for (const auto& [content, expected] : cases) {
        const auto path = dir.write("Xwrapper" + std::to_string(n++), content);
        bool result = !expected;
        const auto text = logged([&] { result = checkXWrapperAllowedOnlyConsole(path); });
        EXPECT_EQ(result, expected) << '"' << content << '"';
        EXPECT_EQ(contains(text, "checkXWrapperAllowedOnlyConsole: not found token: `allowed_users=', please modify "
                                 "to: `anybody', for detals check file: `" +
                                     path.string() + "'"),
                  expected)
            << text;
    }

    const auto missing = dir.path / "absent";
    bool result = false;
    const auto text = logged([&] { result = checkXWrapperAllowedOnlyConsole(missing); });
    EXPECT_TRUE(result);
    EXPECT_TRUE(contains(text, "checkXWrapperAllowedOnlyConsole: file not found: `" + missing.string() + "'")) << text;
}

TEST(XserverStart, NullSessionIsRefusedWithVexaError) {
    bool thrown = false;
    const auto text = logged([&] {
        try {
            runXorgDisplay(nullptr, {}, "/usr/bin/Xorg", {}, 24, 1024, 768);
        } catch (const vexa_error&) {
            thrown = true;
        }
    });
    EXPECT_TRUE(thrown);
    EXPECT_TRUE(contains(text, "runXorgDisplay: session null")) << text;
}
