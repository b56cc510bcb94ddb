#include "accounts.h"

#include <cerrno>
#include <fstream>
#include <unistd.h>

#include "logger.h"
#include "utils.h"

namespace Vexa {

namespace {

std::string text(const char* value) {
    return value ? std::string(value) : std::string();
}

std::vector<gid_t> supplementaryGroups(const char* name, gid_t primary) {
    if (!name) {
        return {};
    }
    int count = 16;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    // getgrouplist reports the size it needs when the buffer is too small.
    while (getgrouplist(name, primary, groups.data(), &count) < 0) {
        groups.resize(static_cast<size_t>(count));
    }
    groups.resize(static_cast<size_t>(count));
    return groups;
}

size_t bufferSize(int name, long fallback) {
    const long size = sysconf(name);
    return static_cast<size_t>(size > 0 ? size : fallback);
}

// getpwnam_r and friends report "not found" as success with a null result; errno is then meaningless.
int lookupError(int rc) {
    return rc != 0 ? rc : ENOENT;
}

} // namespace

UserInfo::UserInfo(const passwd& entry, bool withGroups)
    : groups(withGroups ? supplementaryGroups(entry.pw_name, entry.pw_gid) : std::vector<gid_t>{}),
      name(text(entry.pw_name)), home(text(entry.pw_dir)), shell(text(entry.pw_shell)), gecos(text(entry.pw_gecos)),
      uid(static_cast<int32_t>(entry.pw_uid)), gid(static_cast<int32_t>(entry.pw_gid)) {}

ShadowInfo::ShadowInfo(const spwd& entry)
    : name(text(entry.sp_namp)), lastChange(entry.sp_lstchg), minDays(entry.sp_min), maxDays(entry.sp_max),
      warnDays(entry.sp_warn), inactDays(entry.sp_inact), expireDay(entry.sp_expire) {}

GroupInfo::GroupInfo(const group& entry, bool withMembers) : name(text(entry.gr_name)), gid(entry.gr_gid) {
    if (withMembers && entry.gr_mem) {
        for (char** member = entry.gr_mem; *member; ++member) {
            members.emplace_back(*member);
        }
    }
}

bool checkAllowShell(std::string_view shell, const std::filesystem::path& shells) {
    std::ifstream file(shells);
    if (!file) {
        Syslog::error("%s: %s failed, path: `%s'", "checkAllowShell", "open", shells.c_str());
        return false;
    }
    for (std::string line; std::getline(file, line);) {
        if (line == shell) {
            return true;
        }
    }
    return false;
}

namespace Utils {

std::unique_ptr<UserInfo> getUserInfo(std::string_view name, bool withGroups) {
    if (name.empty()) {
        return nullptr;
    }
    const std::string user(name);
    std::vector<char> buf(bufferSize(_SC_GETPW_R_SIZE_MAX, 16384), 0);
    passwd entry{};
    passwd* found = nullptr;
    const int rc = getpwnam_r(user.c_str(), &entry, buf.data(), buf.size(), &found);
    if (rc != 0 || !found) {
        const int err = lookupError(rc);
        Syslog::warning("%s: %s failed, user: `%s', error: %s, code: %d", "getUserInfo", "getpwnam_r", user.c_str(),
                        errnoText(err).c_str(), err);
        return nullptr;
    }
    return std::make_unique<UserInfo>(entry, withGroups);
}

std::unique_ptr<ShadowInfo> getShadowInfo(std::string_view name) {
    if (name.empty()) {
        return nullptr;
    }
    const std::string user(name);
    std::vector<char> buf(bufferSize(_SC_LOGIN_NAME_MAX, 256) + 328, 0);
    spwd entry{};
    spwd* found = nullptr;
    const int rc = getspnam_r(user.c_str(), &entry, buf.data(), buf.size(), &found);
    if (rc != 0 || !found) {
        const int err = lookupError(rc);
        Syslog::warning("%s: %s failed, user: `%s', error: %s, code: %d", "getShadowInfo", "getspnam_r", user.c_str(),
                        errnoText(err).c_str(), err);
        return nullptr;
    }
    return std::make_unique<ShadowInfo>(entry);
}

std::unique_ptr<GroupInfo> getGroupInfo(std::string_view name, bool withMembers) {
    if (name.empty()) {
        return nullptr;
    }
    const std::string groupName(name);
    std::vector<char> buf(bufferSize(_SC_GETGR_R_SIZE_MAX, 16384), 0);
    group entry{};
    group* found = nullptr;
    int rc = 0;
    // A group with many members may need a larger buffer.
    while ((rc = getgrnam_r(groupName.c_str(), &entry, buf.data(), buf.size(), &found)) == ERANGE) {
        buf.resize(buf.size() * 2);
    }
    if (rc != 0 || !found) {
        const int err = lookupError(rc);
        Syslog::warning("%s: %s failed, group: `%s', error: %s, code: %d", "getGroupInfo", "getgrnam_r",
                        groupName.c_str(), errnoText(err).c_str(), err);
        return nullptr;
    }
    return std::make_unique<GroupInfo>(entry, withMembers);
}

std::list<std::string> getGroupMembers(std::string_view name) {
    auto info = getGroupInfo(name, true);
    return info ? std::move(info->members) : std::list<std::string>{};
}

} // namespace Utils
} // namespace Vexa
