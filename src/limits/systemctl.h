#pragma once

// Resource properties of user slices and session scopes, set through "/usr/bin/systemctl set-property".
// systemctl runs as a child process with its own argument vector (never through a shell); each run is logged
// with the command line an administrator would type.

#include <cstdint>
#include <list>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "resource_limits.h"

namespace Vexa {

inline constexpr const char* systemctlPath = "/usr/bin/systemctl";

// One property assignment: the systemd name and its value; an empty value resets the property.
using PropertyAssignment = std::pair<std::string, std::string>;

// "user-<uid>.slice"
std::string userSliceName(uid_t uid);

// The command as logged: the program, "set-property", the unit, then "Name=" for a reset or Name="value" with
// quotes and backslashes escaped.
std::string systemctlCommandText(const std::string& unit, const std::vector<PropertyAssignment>& assignments);

// The arguments systemctl is run with (after the program): "set-property", the unit, then one "Name=value"
// each, the value as it stands (no quoting: no shell reads it).
std::list<std::string> systemctlArguments(const std::string& unit, const std::vector<PropertyAssignment>& assignments);

// Runs the command and returns its raw wait status (-1 when it could not be started). Logged under `caller`
// as "system result": at error level unless the status is 0.
int systemctlSetProperties(const char* caller, const std::string& unit,
                           const std::vector<PropertyAssignment>& assignments);

// One run on the user's slice with an assignment for every entry of `limits`; nothing runs when there is none.
int systemctlSetUserProperties(uid_t uid, const ResourceLimits& limits);

// One resource property of a unit: set to `value`, or reset to the systemd default when it is empty (logged
// as systemctlSetProperty or systemctlResetProperty).
int systemctlSetProperty(const std::string& unit, ResourceControl control, const std::string& value);

// Resets all seven resource properties of the user's slice in one run.
int systemctlResetAllUserProperties(uid_t uid);

} // namespace Vexa
