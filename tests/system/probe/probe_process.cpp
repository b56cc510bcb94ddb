// vexa_probe process SUBCOMMAND:
//   run [-e NAME=VALUE]... USER|- LOGFILE|- PROGRAM [ARGS...]
//       runChildProcess (as USER, output to LOGFILE; "-" for none), then waitpid: prints "PID STATUS" with the
//       raw wait status
//   bench-exec USER|- N
//       N runs of /bin/true: the time from calling runChildProcess to its return, which comes when the child
//       has made its execve. Prints "samples N median_us M min_us A max_us B not_exec K failed F": K counts
//       children found before their exec at that moment (still running this program), F children whose exit
//       status was not 0.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <string>
#include <string_view>
#include <sys/wait.h>
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
    const pid_t pid = Vexa::Utils::runChildProcess(argv[i + 2], args, envs, optional(argv[i]), optional(argv[i + 1]));
    std::printf("%d %d\n", pid, waitStatus(pid));
    return 0;
}

int benchExec(const char* user, int samples) {
    std::vector<long> micros;
    int notExec = 0;
    int failed = 0;
    const auto self = std::filesystem::read_symlink("/proc/self/exe");
    for (int n = 0; n < samples; ++n) {
        const auto start = std::chrono::steady_clock::now();
        const pid_t pid = Vexa::Utils::runChildProcess("/bin/true", {}, {}, optional(user), nullptr);
        const auto took = std::chrono::steady_clock::now() - start;
        std::error_code ec; // before its exec a child still runs this very program
        notExec += std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec) == self ? 1 : 0;
        const int status = waitStatus(pid);
        failed += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
        micros.push_back(std::chrono::duration_cast<std::chrono::microseconds>(took).count());
    }
    std::sort(micros.begin(), micros.end());
    const long median = (micros[(micros.size() - 1) / 2] + micros[micros.size() / 2]) / 2;
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
    } else if (command == "bench-exec" && argc == 3 && std::atoi(argv[2]) > 0) {
        rc = benchExec(argv[1], std::atoi(argv[2]));
    }
    if (rc == 2) {
        std::fprintf(stderr, "usage: vexa_probe process run [-e NAME=VALUE]... USER|- LOGFILE|- PROGRAM [ARGS...]"
                             " | bench-exec USER|- N\n");
    }
    return rc;
}
