#pragma once

// Account records from the user, shadow and group databases, read with the reentrant lookups.
// Plain values; safe to use from any thread.

#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <grp.h>
#include <pwd.h>
#include <shadow.h>

namespace Vexa {

class UserInfo {
public:
    // From one user-database entry; the supplementary groups are looked up only when `withGroups` is set.
    UserInfo(const passwd& entry, bool withGroups);
    virtual ~UserInfo() = default;

    std::vector<gid_t> groups;
    std::string name;
    std::string home;
    std::string shell;
    std::string gecos;
    int32_t uid = -1;
    int32_t gid = -1;
};

// One shadow entry; day counts as in the shadow file (days since 1970-01-01).
class ShadowInfo {
public:
    explicit ShadowInfo(const spwd& entry);

    std::string name;
    int64_t lastChange = -1;
    int64_t minDays = -1;
    int64_t maxDays = -1;
    int64_t warnDays = -1;
    int64_t inactDays = -1;
    int64_t expireDay = -1;
};

// One group entry; only its explicit member list counts (not users whose primary group it is).
class GroupInfo {
public:
    GroupInfo(const group& entry, bool withMembers);

    std::list<std::string> members;
    std::string name;
    gid_t gid = 0;
};

// True when a line of the shells file equals the shell exactly (whole line, byte for byte).
bool checkAllowShell(std::string_view shell, const std::filesystem::path& shells = "/etc/shells");

namespace Utils {

// Null when the name is empty or unknown (the failure is logged as a warning).
std::unique_ptr<UserInfo> getUserInfo(std::string_view name, bool withGroups);
std::unique_ptr<ShadowInfo> getShadowInfo(std::string_view name);
std::unique_ptr<GroupInfo> getGroupInfo(std::string_view name, bool withMembers);
// The explicit members of a group; empty for an unknown group.
std::list<std::string> getGroupMembers(std::string_view name);

} // namespace Utils
} // namespace Vexa
