#pragma once

// Who may call what: the one table of the interface's methods by group, the roles allowed to call each group and
// the polkit action an administrator needs for it. The bus policy file is generated from this table at build
// time (vexa_bus_policy), and the daemon checks every call against it again, so the two cannot disagree.
// Constant data and pure functions; usable from any thread.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace Vexa::Access {

// Roles as bits; a caller may hold several (one per group it is a member of). Root holds every role and more.
enum Role : uint8_t {
    Monitor = 1,   // group vexa-monitor: read-only calls and the signals
    Transport = 2, // group vexa: the product's own processes (proxy, transports, login helper, helpers)
    Admin = 4,     // group vexa-admin: administrators, each administrator group behind a polkit action
};
using Roles = uint8_t;

struct RoleGroup {
    Role role;
    std::string_view group; // the Unix group of the role
};
inline constexpr RoleGroup roleGroups[] = {
    {Monitor, "vexa-monitor"},
    {Transport, "vexa"},
    {Admin, "vexa-admin"},
};

struct MethodGroup {
    std::string_view name;   // what the group is, as the README's table says
    Roles roles;             // who may call it besides root; 0: root only
    std::string_view action; // polkit action asked for a caller allowed only as an administrator; empty: none
    bool requests;           // session requests: counted by the per-caller rate limits
    std::vector<std::string_view> methods;
};

// The table: every method of the interface in exactly one group.
const std::vector<MethodGroup>& methodGroups();

// The daemon's metrics, on the same object under an interface of their own (the interface above stays as it is):
// one method, metricsText, for every role.
inline constexpr std::string_view metricsInterface = "ru.kelvo.vexa.Metrics";
const MethodGroup& metricsGroup();

// The group of a method (of the interface, or metricsText); nullptr for any other name.
const MethodGroup* findMethodGroup(std::string_view method);

// The roles given by a caller's supplementary and primary groups, with `gidOf` the gid of each role's group (-1
// when the group does not exist).
Roles rolesOfGroups(std::span<const gid_t> gids, const gid_t (&gidOf)[std::size(roleGroups)]);

// What the table allows a caller with `roles` (never root) for one group: refused, allowed, or allowed once
// polkit grants the group's action (only when the caller holds no other role that the group allows).
enum class Decision { Refused, Allowed, AskPolkit };
Decision decide(const MethodGroup& group, Roles roles);

// The bus policy file of the table: root owns the name and may call everything, each role's group may call
// exactly the members the table gives it and hear the signals, everybody else nothing.
std::string busPolicy();

} // namespace Vexa::Access
