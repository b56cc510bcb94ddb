#include "profile.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>

#include "common/logger.h"
#include "common/utils.h"

namespace Vexa {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

bool isUnder(const fs::path& target, const fs::path& path) {
    auto [end, _] = std::mismatch(path.begin(), path.end(), target.begin(), target.end());
    return end == path.end();
}

bool holdsPath(const fs::path& proc, const fs::path& path) {
    std::error_code ec;
    for (const char* link : {"cwd", "root"}) {
        const auto target = fs::read_symlink(proc / link, ec);
        if (!ec && isUnder(target, path)) {
            return true;
        }
    }
    for (fs::directory_iterator fd(proc / "fd", ec), end; !ec && fd != end; fd.increment(ec)) {
        const auto target = fs::read_symlink(fd->path(), ec);
        if (!ec && isUnder(target, path)) {
            return true;
        }
        ec.clear();
    }
    return false;
}

} // namespace

std::vector<pid_t> profileLockedPIDs(const fs::path& path, uid_t uid) {
    std::vector<pid_t> pids;
    std::error_code ec;
    for (fs::directory_iterator entry("/proc", ec), end; !ec && entry != end; entry.increment(ec)) {
        const auto name = entry->path().filename().string();
        pid_t pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ec != std::errc() || pid <= 0) {
            continue;
        }
        struct stat st {};
        if (stat(entry->path().c_str(), &st) != 0 || st.st_uid != uid) {
            continue;
        }
        if (holdsPath(entry->path(), path)) {
            pids.push_back(pid);
        }
    }
    return pids;
}

void startProfileCloseJob(const fs::path& path, uid_t uid) {
    std::thread([path, uid] {
        Syslog::debug("%s: busy, started job, path: `%s'", "ProfileClose", path.c_str());
        bool released = false;
        for (int check = 0; check < 8 && !released; ++check) {
            std::this_thread::sleep_for(550ms);
            released = profileLockedPIDs(path, uid).empty();
        }
        if (!released) {
            for (const pid_t pid : profileLockedPIDs(path, uid)) {
                Syslog::debug("%s: path: `%s', kill pid: %d", "ProfileClose", path.c_str(), pid);
                kill(pid, SIGTERM);
            }
            std::this_thread::sleep_for(150ms);
        }
        if (umount(path.c_str()) != 0) {
            const int err = errno;
            Syslog::error("%s: %s failed, error: %s, code: %d, path: `%s'", "ProfileClose", "umount",
                          Utils::errnoText(err).c_str(), err, path.c_str());
        }
    }).detach();
}

} // namespace Vexa
