// vexa_probe process SUBCOMMAND:
//   run [-e NAME=VALUE]... USER|- LOGFILE|- PROGRAM [ARGS...]
//       runChildProcess (as USER, output to LOGFILE; "-" for none), then waitpid: prints "PID STATUS" with the
//       raw wait status
//   stdout PROGRAM [ARGS...]
//       the output runStdoutCommand captured, byte for byte; exit 1 when it threw
//   bench-exec USER|- N
//       N runs of /bin/true: the time from calling runChildProcess to its return, which comes when the child
//       has made its execve. Prints "samples N median_us M min_us A max_us B not_exec K failed F": K counts
//       children found before their exec at that moment (still running this program), F children whose exit
//       status was not 0.

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "common/process.h"
#include "common/vexa_error.h"
#include "probe.h"

namespace {

const char* optional(const char* arg) {
    return std::string_view(arg) == "-" ? nullptr : arg;
}

int waitStatus(pid_t pid) {
    int status = -1;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

int run(int argc, char** argv) {
    std::list<std::string> envs;
    int i = 1;
    for (; i + 1 < argc && std::string_view(argv[i]) == "-e"; i += 2) {
        envs.emplace_back(argv[i + 1]);
    }
    if (argc - i < 3) {
        return 2;
    }
    const std::list<std::string> args(argv + i + 3, argv + argc);
    try {
        const pid_t pid =
            Vexa::Utils::runChildProcess(argv[i + 2], args, envs, optional(argv[i]), optional(argv[i + 1]));
        std::printf("%d %d\n", pid, waitStatus(pid));
        return 0;
    } catch (const Vexa::vexa_error& err) {
        std::fprintf(stderr, "vexa_error: %s\n", err.what());
        return 1;
    }
}

int captureStdout(int argc, char** argv) {
    if (argc < 2) {
        return 2;
    }
    try {
        const std::string out = Vexa::Utils::runStdoutCommand(argv[1], std::list<std::string>(argv + 2, argv + argc));
        std::fwrite(out.data(), 1, out.size(), stdout);
        return 0;
    } catch (const Vexa::vexa_error& err) {
        std::fprintf(stderr, "vexa_error: %s\n", err.what());
        return 1;
    }
}

// What /proc says the process runs: before its exec a child still runs this very program.
bool stillThisProgram(pid_t pid) {
    char exe[PATH_MAX] = {};
    char self[PATH_MAX] = {};
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    const ssize_t got = readlink(link.c_str(), exe, sizeof(exe) - 1);
    const ssize_t mine = readlink("/proc/self/exe", self, sizeof(self) - 1);
    return got > 0 && mine > 0 && std::string_view(exe, got) == std::string_view(self, mine);
}

int benchExec(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    const int samples = std::atoi(argv[2]);
    if (samples < 1) {
        return 2;
    }
    std::vector<long> micros;
    int notExec = 0;
    int failed = 0;
    for (int n = 0; n < samples; ++n) {
        const auto start = std::chrono::steady_clock::now();
        const pid_t pid = Vexa::Utils::runChildProcess("/bin/true", {}, {}, optional(argv[1]), nullptr);
        const auto took = std::chrono::steady_clock::now() - start;
        notExec += stillThisProgram(pid) ? 1 : 0;
        const int status = waitStatus(pid);
        failed += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
        micros.push_back(std::chrono::duration_cast<std::chrono::microseconds>(took).count());
    }
    std::sort(micros.begin(), micros.end());
    const size_t mid = micros.size() / 2;
    const long median = micros.size() % 2 ? micros[mid] : (micros[mid - 1] + micros[mid]) / 2;
    std::printf("samples %d median_us %ld min_us %ld max_us %ld not_exec %d failed %d\n", samples, median,
                micros.front(), micros.back(), notExec, failed);
    return 0;
}

} // namespace

int probeProcess(int argc, char** argv) {
    const std::string_view command = argc > 0 ? argv[0] : "";
    int rc = 2;
    if (command == "run") {
        rc = run(argc, argv);
    } else if (command == "stdout") {
        rc = captureStdout(argc, argv);
    } else if (command == "bench-exec") {
        rc = benchExec(argc, argv);
    }
    if (rc == 2) {
        std::fprintf(stderr, "usage: vexa_probe process run [-e NAME=VALUE]... USER|- LOGFILE|- PROGRAM [ARGS...]"
                             " | stdout PROGRAM [ARGS...] | bench-exec USER|- N\n");
    }
    return rc;
}
