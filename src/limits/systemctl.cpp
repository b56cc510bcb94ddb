#include "systemctl.h"

#include <list>

#include "common/logger.h"
#include "common/process.h"

namespace Vexa {

namespace {

std::string quoted(const std::string& value) {
    std::string text = "\"";
    for (const char c : value) {
        if (c == '"' || c == '\\') {
            text += '\\';
        }
        text += c;
    }
    return text + "\"";
}

} // namespace

std::string userSliceName(uid_t uid) {
    return "user-" + std::to_string(uid) + ".slice";
}

std::string systemctlCommandText(const std::string& unit, const std::vector<PropertyAssignment>& assignments) {
    std::string text = std::string(systemctlPath) + " set-property " + unit;
    for (const auto& [name, value] : assignments) {
        text += " " + name + "=" + (value.empty() ? std::string() : quoted(value));
    }
    return text;
}

std::list<std::string> systemctlArguments(const std::string& unit, const std::vector<PropertyAssignment>& assignments) {
    std::list<std::string> args{"set-property", unit};
    for (const auto& [name, value] : assignments) {
        args.push_back(name);
        args.back().append("=").append(value);
    }
    return args;
}

int systemctlSetProperties(const char* caller, const std::string& unit,
                           const std::vector<PropertyAssignment>& assignments) {
    const auto args = systemctlArguments(unit, assignments);
    int status = -1;
    try {
        status = Utils::waitStatus(Utils::runChildProcess(systemctlPath, args, {}, nullptr, "/dev/null"));
    } catch (const std::exception&) {
        status = -1; // already logged by the launcher
    }
    const auto command = systemctlCommandText(unit, assignments);
    if (status != 0) {
        Syslog::error("%s: system result: %d, cmd: `%s'", caller, status, command.c_str());
    } else {
        Syslog::debug("%s: system result: %d, cmd: `%s'", caller, status, command.c_str());
    }
    return status;
}

int systemctlSetUserProperties(uid_t uid, const ResourceLimits& limits) {
    std::vector<PropertyAssignment> assignments;
    for (const auto& [control, value] : limits) {
        if (const char* name = ResourceControlSystemdName(control)) {
            assignments.emplace_back(name, value);
        }
    }
    if (assignments.empty()) {
        return 0;
    }
    return systemctlSetProperties("systemctlSetUserProperties", userSliceName(uid), assignments);
}

int systemctlSetProperty(const std::string& unit, ResourceControl control, const std::string& value) {
    const char* name = ResourceControlSystemdName(control);
    if (!name) {
        return -1;
    }
    return systemctlSetProperties(value.empty() ? "systemctlResetProperty" : "systemctlSetProperty", unit,
                                  {{name, value}});
}

int systemctlResetAllUserProperties(uid_t uid) {
    std::vector<PropertyAssignment> resets;
    for (auto control = static_cast<uint8_t>(ResourceControl::CpuQuota);
         control <= static_cast<uint8_t>(ResourceControl::NetworkAllow); ++control) {
        resets.emplace_back(ResourceControlSystemdName(static_cast<ResourceControl>(control)), std::string());
    }
    return systemctlSetProperties("systemctlResetAllUserProperties", userSliceName(uid), resets);
}

} // namespace Vexa
