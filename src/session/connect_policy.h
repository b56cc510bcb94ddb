#pragma once

#include <cstdint>
#include <string_view>

namespace Vexa {

// How further transports may attach to a session. Values other than the three names (0, above 3) are
// representable and mean "unknown": the decision refuses them, the setters never store them.
enum class ConnectPolicy : uint32_t {
    NextDeny = 1,
    PrevReplace = 2,
    MultiAllow = 3,
};

// The configuration name of "connect:policy", case-insensitive: "prevreplace" and "multiallow" are
// recognised; every other text (also empty or unknown) is NextDeny on purpose.
ConnectPolicy connectPolicy(std::string_view name);

// Text used in log lines, e.g. "ConnectPolicy::NextDeny"; null for an unknown value.
const char* connectPolicyName(ConnectPolicy policy) noexcept;

} // namespace Vexa
