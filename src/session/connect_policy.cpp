#include "connect_policy.h"

#include "common/utils.h"

namespace Vexa {

ConnectPolicy connectPolicy(std::string_view name) {
    const auto lower = Utils::stringLower(name);
    if (lower == "prevreplace") {
        return ConnectPolicy::PrevReplace;
    }
    if (lower == "multiallow") {
        return ConnectPolicy::MultiAllow;
    }
    return ConnectPolicy::NextDeny;
}

const char* connectPolicyName(ConnectPolicy policy) noexcept {
    switch (policy) {
    case ConnectPolicy::NextDeny:
        return "ConnectPolicy::NextDeny";
    case ConnectPolicy::PrevReplace:
        return "ConnectPolicy::PrevReplace";
    case ConnectPolicy::MultiAllow:
        return "ConnectPolicy::MultiAllow";
    }
    return nullptr;
}

} // namespace Vexa
