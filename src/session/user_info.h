#pragma once

// Account records. A UserEx is shared by every session of the same user through a shared pointer; its
// per-service fields are reached through a session and so guarded by the sessions lock.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <grp.h>
#include <pwd.h>

#include "limits/resource_limits.h"

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

// A user with the service's own per-user state.
class UserEx : public UserInfo {
public:
    using UserInfo::UserInfo;

    std::string domain;
    std::string ntlm;                 // the user's NT hash line
    std::filesystem::path runtimedir; // the user's run-time directory
    std::string transportToken;       // one-time secret of a transport; empty when none is pending
    bool profileMounted = false;
    std::filesystem::path profileMountPoint;
    ResourceLimits userLimits; // limits set at user level, shared by all sessions of the user
};

} // namespace Vexa
