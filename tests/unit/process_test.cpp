#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/globals.h"
#include "common/logger.h"
#include "common/process.h"
#include "common/vexa_error.h"

using namespace Vexa;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

class TempDir {
public:
    TempDir() {
        std::string name = (fs::temp_directory_path() / "vexa-process-XXXXXX").string();
        path = ::mkdtemp(name.data());
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    fs::path path;
};

std::string readFile(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::vector<std::string> texts(const std::vector<const char*>& vec) {
    std::vector<std::string> result;
    for (const char* item : vec) {
        result.emplace_back(item ? item : "<null>");
    }
    return result;
}

// Everything the call logs, through the console sink.
std::string logged(const std::function<void()>& call) {
    Syslog::setDebugLevel(DebugLevel::Console);
    ::testing::internal::CaptureStderr();
    call();
    Syslog::setDebugLevel(DebugLevel::None);
    return ::testing::internal::GetCapturedStderr();
}

int runAndWait(const fs::path& program, const std::list<std::string>& args, const std::list<std::string>& envs,
               const fs::path& log) {
    return Utils::runChildProcessBack(program, args, envs, nullptr, log.c_str()).get();
}

} // namespace

TEST(Process, EnvironmentListDropsInheritedEntriesWhoseNameItStartsWith) {
    struct Case {
        const char* value;
        std::list<std::string> envs;
        bool inheritedKept;
    };
    const Case cases[] = {
        {"VEXA_T_DISPLAY=:0", {"VEXA_T_DISPLAYX=1"}, false}, // plain prefix, whatever follows the name
        {"VEXA_T_DISPLAY=:0", {"VEXA_T_DISPLAY=:5"}, false},
        {"VEXA_T_DISPLAY=:0", {"VEXA_T_DISPLA=1"}, true},
        {"VEXA_T_DISPLAY=:0", {"OTHER=1", "VEXA_T_DISPLAY"}, false}, // a list entry without '=' counts too
        {"VEXA_T_DISPLAY=:0", {}, true},
    };
    for (const auto& [value, envs, kept] : cases) {
        ::setenv("VEXA_T_DISPLAY", ":0", 1);
        const auto envp = texts(Utils::createENVP(envs));
        ::unsetenv("VEXA_T_DISPLAY");

        ASSERT_GE(envp.size(), envs.size() + 1);
        EXPECT_EQ(envp.back(), "<null>");
        // the list, in its order, right before the terminator
        const std::vector<std::string> tail(envp.end() - 1 - static_cast<long>(envs.size()), envp.end() - 1);
        EXPECT_EQ(tail, std::vector<std::string>(envs.begin(), envs.end()));
        const auto found = std::find(envp.begin(), envp.end() - 1 - static_cast<long>(envs.size()), value);
        EXPECT_EQ(found != envp.end() - 1 - static_cast<long>(envs.size()), kept) << envs.size();
    }
}

TEST(Process, ArgumentVectorIsPathArgumentsNull) {
    const std::list<std::string> args{"-a", "", "two words"};
    EXPECT_EQ(texts(Utils::createARGV("/usr/bin/prog", args)),
              (std::vector<std::string>{"/usr/bin/prog", "-a", "", "two words", "<null>"}));
    EXPECT_EQ(texts(Utils::createARGV("/bin/true", {})), (std::vector<std::string>{"/bin/true", "<null>"}));
}

TEST(Process, OutputLogIsInHomeOrInTmpWhenHomeIsMissing) {
    const TempDir home;
    UserInfo user(passwd{}, false);
    user.name = "alice";
    const std::tuple<std::string, const char*, fs::path> cases[] = {
        {home.path.string(), "/usr/bin/foo.sh", home.path / ".vexa/foo.log"},
        {home.path.string(), "/opt/x/run", home.path / ".vexa/run.log"},
        {home.path.string(), "/usr/bin/", home.path / ".vexa/.log"},
        {(home.path / "missing").string(), "/usr/bin/foo.sh", "/tmp/.vexa_alice/foo.log"},
        {"", "xsession.sh", "/tmp/.vexa_alice/xsession.log"},
    };
    for (const auto& [dir, program, expected] : cases) {
        user.home = dir;
        EXPECT_EQ(Utils::userOutputLog(user, program), expected) << dir << " " << program;
    }
}

TEST(Process, StdoutCommandLosesOnlyTheLastNewlineAndNeverUsesAShell) {
    const std::pair<std::list<std::string>, std::string> cases[] = {
        {{"one\\n"}, "one"},  {{"a\\nb\\nc\\n"}, "a\nb\nc"},
        {{"a\\n\\n"}, "a\n"}, {{"no newline"}, "no newline"},
        {{""}, ""},           {{"%s|", "$(id)", ";", "`x`", "a b"}, "$(id)|;|`x`|a b|"},
    };
    for (const auto& [args, expected] : cases) {
        EXPECT_EQ(Utils::runStdoutCommand("/usr/bin/printf", args), expected) << args.front();
    }
    try {
        Utils::runStdoutCommand("/nonexistent/program", {});
        FAIL() << "a missing program must throw";
    } catch (const vexa_error& err) {
        EXPECT_STREQ(err.what(), "runStdoutCommand");
    }
}

TEST(Process, BackgroundTaskYieldsTheRawWaitStatus) {
    const TempDir dir;
    const int exited = runAndWait("/bin/sh", {"-c", "exit 7"}, {}, dir.path / "log");
    EXPECT_TRUE(WIFEXITED(exited) && WEXITSTATUS(exited) == 7) << exited;
    // the child's SIGTERM is back to its default action
    const int killed = runAndWait("/bin/sh", {"-c", "kill -TERM $$; sleep 5"}, {}, dir.path / "log");
    EXPECT_TRUE(WIFSIGNALED(killed) && WTERMSIG(killed) == SIGTERM) << killed;
}

TEST(Process, ChildGetsTheMergedEnvironmentItsLogFileAndNoInheritedDescriptors) {
    const TempDir dir;
    ::setenv("VEXA_T_KEPT", "kept", 1);
    ::setenv("VEXA_T_ADD", "inherited", 1);
    const int leaked = ::dup(STDIN_FILENO); // no close-on-exec
    const int envStatus = runAndWait("/usr/bin/env", {}, {"VEXA_T_ADDED=list", "VEXA_T_LAST=2"}, dir.path / "env.log");
    const int fdStatus = runAndWait("/bin/ls", {"/proc/self/fd"}, {}, dir.path / "fd.log");
    ::close(leaked);
    ::unsetenv("VEXA_T_KEPT");
    ::unsetenv("VEXA_T_ADD");
    ASSERT_EQ(envStatus, 0);
    ASSERT_EQ(fdStatus, 0);

    const auto lines = [](const fs::path& path) {
        std::vector<std::string> result;
        std::istringstream text(readFile(path));
        for (std::string line; std::getline(text, line);) {
            result.push_back(line);
        }
        return result;
    };
    const auto env = lines(dir.path / "env.log");
    const auto at = [&env](std::string_view line) { return std::find(env.begin(), env.end(), line); };
    EXPECT_NE(at("VEXA_T_KEPT=kept"), env.end());
    EXPECT_EQ(at("VEXA_T_ADD=inherited"), env.end());
    ASSERT_NE(at("VEXA_T_ADDED=list"), env.end());
    EXPECT_LT(at("VEXA_T_KEPT=kept"), at("VEXA_T_ADDED=list"));
    EXPECT_EQ(at("VEXA_T_ADDED=list") + 1, at("VEXA_T_LAST=2"));
    EXPECT_EQ(at("VEXA_T_LAST=2") + 1, env.end());
    // ls holds one descriptor of its own, for the directory it reads
    EXPECT_EQ(lines(dir.path / "fd.log"), (std::vector<std::string>{"0", "1", "2", "3"}));
}

TEST(Process, UnusableLogFileBecomesDevNull) {
    const TempDir dir;
    const std::pair<fs::path, std::string> cases[] = {
        {dir.path / "out.log", (dir.path / "out.log").string()},
        {dir.path / "missing/out.log", "/dev/null"},
    };
    for (const auto& [log, expected] : cases) {
        const fs::path where = dir.path / "where";
        ASSERT_EQ(runAndWait("/bin/sh", {"-c", "echo $(readlink /proc/$$/fd/1) > \"$0\"", where.string()}, {}, log), 0);
        EXPECT_EQ(readFile(where), expected + "\n");
    }
}

TEST(Process, ProgramThatCannotBeStartedIsReported) {
    const TempDir dir;
    const fs::path script = dir.path / "not-executable";
    std::ofstream(script) << "#!/bin/sh\n";
    int status = -1;
    const std::string log = logged([&] { status = runAndWait(script, {}, {}, dir.path / "log"); });
    // the fallback to /bin/false
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    EXPECT_NE(log.find("runOwnerCommand: execv failed, error: Permission denied, code: 13"), std::string::npos) << log;

    for (const auto& start : std::initializer_list<std::function<void()>>{
             [] { Utils::runChildProcess("/nonexistent/program", {}, {}, nullptr, nullptr); },
             [] { Utils::runChildProcessBack("/nonexistent/program", {}, {}, nullptr, nullptr); }}) {
        try {
            start();
            FAIL() << "a missing program must throw";
        } catch (const vexa_error& err) {
            EXPECT_STREQ(err.what(), "runChildProcess");
        }
    }
    EXPECT_FALSE(Utils::runChildProcessWait("/nonexistent/program", {}, {}, nullptr, nullptr));
    EXPECT_TRUE(Utils::runChildProcessWait("/bin/true", {}, {}, nullptr, nullptr));
}

TEST(Process, WaitSocketSeesASocketAndGivesUpAfterTheTime) {
    const TempDir dir;
    const fs::path socketPath = dir.path / "X1";
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::thread later([&] {
        std::this_thread::sleep_for(300ms);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, socketPath.c_str(), sizeof(addr.sun_path) - 1);
        ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    });
    EXPECT_TRUE(Utils::waitSocketSec(socketPath, 5));
    later.join();
    ::close(fd);

    const fs::path plain = dir.path / "X2";
    std::ofstream(plain) << "not a socket";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Utils::waitSocketSec(plain, 1));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GT(waited, 1s);
    EXPECT_LT(waited, 3s);
}

TEST(Process, InputAndDataOnAPipe) {
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    EXPECT_FALSE(Utils::hasInput(fds[0], 0));
    EXPECT_FALSE(Utils::hasData(fds[0]));
    ASSERT_EQ(::write(fds[1], "x", 1), 1);
    EXPECT_TRUE(Utils::hasInput(fds[0], 0));
    EXPECT_TRUE(Utils::hasData(fds[0]));
    ::close(fds[0]);
    ::close(fds[1]);
    EXPECT_FALSE(Utils::hasInput(-1, 0));
    EXPECT_FALSE(Utils::hasData(-1));
    EXPECT_THROW(Utils::hasData(fds[0]), vexa_error); // closed
}

TEST(Process, PidFilesLiveInTheVexaDirectoryOfHome) {
    const TempDir home;
    fs::create_directory(home.path / ".vexa");
    const char* saved = std::getenv("HOME");
    const std::string oldHome = saved ? saved : "";
    ::setenv("HOME", home.path.c_str(), 1);

    Utils::saveSessionPidFor("agent");
    EXPECT_EQ(readFile(home.path / ".vexa/agent"), std::to_string(::getpid()));
    EXPECT_TRUE(Utils::waitSessionPidFor("agent"));
    Utils::removeSessionPidFor("agent");
    EXPECT_FALSE(fs::exists(home.path / ".vexa/agent"));

    std::thread later([&] {
        std::this_thread::sleep_for(300ms);
        std::ofstream(home.path / ".vexa/late") << 1;
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(Utils::waitSessionPidFor("late"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    later.join();

    ::unsetenv("HOME");
    EXPECT_FALSE(Utils::waitSessionPidFor("late"));
    Utils::removeSessionPidFor("late");
    EXPECT_TRUE(fs::exists(home.path / ".vexa/late"));
    if (saved) {
        ::setenv("HOME", oldHome.c_str(), 1);
    }
}

TEST(Process, ProcessArgsAreCutToTheirSlots) {
    char area[] = "vexa_service\0--config\0/etc/x.json";
    char* argv[] = {area, area + 13, area + 22, nullptr};
    char** const saved = programArgv;
    programArgv = argv;
    changeProcessArgs("session-manager-of-alice", "X");
    EXPECT_EQ(std::string_view(argv[1]), "session-");
    EXPECT_EQ(std::string_view(argv[2]), "X          ");
    EXPECT_EQ(std::string_view(argv[0]), "vexa_service");

    char* shortArgv[] = {area, nullptr};
    programArgv = shortArgv;
    changeProcessArgs("a", "b");
    EXPECT_EQ(std::string_view(argv[1]), "session-");
    programArgv = saved;
}
