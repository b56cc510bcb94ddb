#include "resource_limits.h"

#include <array>
#include <filesystem>
#include <string_view>

#include "common/json_config.h"
#include "common/logger.h"

namespace Vexa {

namespace {

struct ControlNames {
    const char* json;
    const char* systemd;
};

constexpr std::array<ControlNames, 7> controlNames{{
    {"cpu:quota", "CPUQuota"},
    {"cpu:weight", "CPUWeight"},
    {"memory:high", "MemoryHigh"},
    {"memory:max", "MemoryMax"},
    {"tasks:max", "TasksMax"},
    {"network:deny", "IPAddressDeny"},
    {"network:allow", "IPAddressAllow"},
}};

const ControlNames* namesOf(ResourceControl control) noexcept {
    const auto index = static_cast<size_t>(control);
    return index < controlNames.size() ? &controlNames[index] : nullptr;
}

} // namespace

const char* ResourceControlJsonName(ResourceControl control) noexcept {
    const auto* names = namesOf(control);
    return names ? names->json : nullptr;
}

const char* ResourceControlSystemdName(ResourceControl control) noexcept {
    const auto* names = namesOf(control);
    return names ? names->systemd : nullptr;
}

ResourceLimits::ResourceLimits(const Json::Value& object) {
    if (!object.isObject()) {
        return;
    }
    const JsonConfig values(object);

    for (auto control : {ResourceControl::CpuQuota, ResourceControl::CpuWeight, ResourceControl::TasksMax}) {
        const char* key = ResourceControlJsonName(control);
        if (!values.hasValue(key)) {
            continue;
        }
        const int32_t number = values.getInteger(key);
        std::string text;
        if (control != ResourceControl::CpuQuota) {
            text = std::to_string(number);
        } else if (number >= 1) {
            text = std::to_string(number).append("%");
        }
        emplace(control, std::move(text));
    }

    for (auto control : {ResourceControl::MemoryHigh, ResourceControl::MemoryMax, ResourceControl::NetworkDeny,
                         ResourceControl::NetworkAllow}) {
        const char* key = ResourceControlJsonName(control);
        if (!values.hasValue(key)) {
            continue;
        }
        auto text = values.getString(key);
        if (!text.empty()) {
            emplace(control, std::move(text));
        }
    }
}

LimitsDefaults readLimitsDefaults(const Json::Value& limitsFile) {
    LimitsDefaults defaults;
    if (!limitsFile.isObject()) {
        return defaults;
    }
    const JsonConfig values(limitsFile.get("default", Json::Value()));
    defaults.cpuQuota = values.getInteger("cpu:quota", 0);
    defaults.cpuWeight = values.getInteger("cpu:weight", 0);
    defaults.tasksMax = values.getInteger("tasks:max", 0);
    defaults.memoryHigh = values.getString("memory:high");
    defaults.memoryMax = values.getString("memory:max");
    defaults.networkDeny = values.getString("network:deny");
    defaults.networkAllow = values.getString("network:allow");
    return defaults;
}

std::map<std::string, ResourceLimits> getScopeLimits(const char* scope, const char* path) {
    std::map<std::string, ResourceLimits> result;
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
        Syslog::error("%s: path not found: %s", "getScopeLimits", path);
        return result;
    }
    const auto json = readJson(path);
    if (!json.isObject()) {
        Syslog::error("%s: json not object, file: %s", "getScopeLimits", path);
        return result;
    }
    const auto& entries = json[scope];
    if (!entries.isArray()) {
        return result;
    }
    for (const auto& entry : entries) {
        if (entry.isObject() && entry.isMember("name") && entry["name"].isString()) {
            result.emplace(entry["name"].asString(), ResourceLimits(entry));
        }
    }
    return result;
}

} // namespace Vexa
