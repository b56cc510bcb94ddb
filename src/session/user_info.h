#pragma once

// Account records. A UserEx is shared by every session of the same user through a shared pointer; its
// per-service fields are reached through a session and so guarded by the sessions lock.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "common/accounts.h"
#include "limits/resource_limits.h"

namespace Vexa {

// A user with the service's own per-user state.
class UserEx : public UserInfo {
public:
    using UserInfo::UserInfo;
    explicit UserEx(const UserInfo& info) : UserInfo(info) {}

    std::string domain;
    std::string ntlm;                 // the user's NT hash line
    std::filesystem::path runtimedir; // the user's run-time directory
    std::string transportToken;       // one-time secret of a transport; empty when none is pending
    bool profileMounted = false;
    std::filesystem::path profileMountPoint;
    ResourceLimits userLimits; // limits set at user level, shared by all sessions of the user
};

} // namespace Vexa
