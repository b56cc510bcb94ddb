#pragma once

// Resource-control values for user slices and session scopes, as read from the limits file and kept per
// session. Plain values; no locking of their own.

#include <cstdint>
#include <map>
#include <string>

#include <json/value.h>

namespace Vexa {

enum class ResourceControl : uint8_t {
    CpuQuota = 0,
    CpuWeight = 1,
    MemoryHigh = 2,
    MemoryMax = 3,
    TasksMax = 4,
    NetworkDeny = 5,
    NetworkAllow = 6,
};

// Key in the limits file and in reports ("cpu:quota"...); null for a value above NetworkAllow.
const char* ResourceControlJsonName(ResourceControl control) noexcept;
// systemd property name ("CPUQuota"...); null for a value above NetworkAllow.
const char* ResourceControlSystemdName(ResourceControl control) noexcept;

// Control to text value; an empty value means "reset the property to the systemd default".
class ResourceLimits : public std::map<ResourceControl, std::string> {
public:
    ResourceLimits() = default;
    // Built from one object of the limits file; anything but an object gives no entries.
    explicit ResourceLimits(const Json::Value& object);
};

// Service-wide defaults: the "default" object of the limits file.
struct LimitsDefaults {
    int32_t cpuQuota = 0;
    int32_t cpuWeight = 0;
    int32_t tasksMax = 0;
    std::string memoryHigh;
    std::string memoryMax;
    std::string networkDeny;
    std::string networkAllow;
};

// Reads the "default" object of a parsed limits file; absent keys keep 0 / "".
LimitsDefaults readLimitsDefaults(const Json::Value& limitsFile);

inline constexpr const char* limitsFilePath = "/etc/vexa/limits.json";

// The limits of the "groups" or "users" member of the limits file, by name (the first entry of a repeated
// name wins). Read anew on every call; empty, and logged, when the file is missing or not an object.
std::map<std::string, ResourceLimits> getScopeLimits(const char* scope, const char* path = limitsFilePath);

} // namespace Vexa
