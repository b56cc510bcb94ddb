#include "access/roles.h"

#include <unordered_map>

namespace Vexa::Access {

namespace {

constexpr Roles readers = Monitor | Transport | Admin;
constexpr Roles product = Transport | Admin;

} // namespace

const std::vector<MethodGroup>& methodGroups() {
    // The order is the README's; the unit tests hold it against the interface file.
    static const std::vector<MethodGroup> table{
        {"status and counters",
         readers,
         "",
         false,
         {"vexaStatus", "vexaTest", "vexaApiVersion", "vexaLoadAverage", "zabbixSessionsTotal", "zabbixSessionsOnline",
          "vexaCheckProxyListen"}},
        {"defaults",
         readers,
         "",
         false,
         {"vexaPolicyRedirectPrinterDefault",
          "vexaPolicyRedirectDriveDefault",
          "vexaPolicyRedirectSmartcardDefault",
          "vexaPolicyRedirectAudioDefault",
          "vexaPolicyRedirectMicrophoneDefault",
          "vexaPolicyRedirectClipboardDefault",
          "vexaPolicyRedirectClipboardFileDefault",
          "vexaPolicyRedirectClipboardLimitDefault",
          "vexaPolicyConnectDefault",
          "vexaSeamlessTimeoutDefault",
          "vexaDurationTimeoutDefault",
          "vexaInactivityTimeoutDefault",
          "vexaDisconnectTimeoutDefault",
          "vexaPolicyRdpKeepAliveDefault",
          "vexaCpuWeightDefault",
          "vexaCpuQuotaDefault",
          "vexaMemoryHighDefault",
          "vexaMemoryMaxDefault",
          "vexaTasksMaxDefault",
          "vexaSessionDisconnectedFreezeDefault",
          "vexaNetworkDenyDefault",
          "vexaNetworkAllowDefault",
          "vexaTransportPolicyShowLoginHelper",
          "vexaLoginHelperPolicyShowSessions",
          "vexaLoginHelperPolicyShowKeyboard"}},
        {"reports",
         readers,
         "",
         false,
         {"vexaSessions", "vexaSessionInfoJson", "vexaUserInfoJson", "vexaSessionProcess"}},
        {"published programs", readers, "", false, {"vexaProgramList", "vexaProgramIconPng"}},
        {"transport queries",
         product,
         "",
         false,
         {"vexaTransportDisplayInactivity", "vexaTransportDisplayPolicyRedirect", "vexaTransportDisplayRdpKeepAlive",
          "vexaTransportDisplayDBusAddress"}},
        {"session requests",
         product,
         "",
         true,
         {"busSessionRequest", "busSessionDomainRequest", "vexaSessionRequest", "busProgramRequest", "vexaLogin"}},
        {"credential checks", product, "", false, {"vexaCheckAuthUser", "vexaTestConnect", "vexaCheckAuthCertificate"}},
        {"display size", product, "ru.kelvo.vexa.manage-sessions", false, {"vexaSessionGeometry", "vexaDisplayResize"}},
        {"transport and proxy",
         Transport,
         "",
         false,
         {"proxyListenStarted", "proxyClientConnected", "proxyListenTimeout", "proxySessionConnected",
          "vexaConnectRdpTransport", "vexaRdpSecurityPolicy", "vexaTransportDisplayInactivityEvent",
          "vexaTransportDisplayShutdown", "vexaTransportDisplayMonitorsChanged"}},
        {"login-helper sessions", Transport, "", true, {"vexaLoginHelperStart"}},
        {"login helper", Transport, "", false, {"vexaLoginHelperStarted", "vexaLoginHelperAllowConnectForTransportTo"}},
        {"session control",
         Admin,
         "ru.kelvo.vexa.manage-sessions",
         false,
         {"vexaSessionShutdown", "busSessionShutdown", "vexaDisconnect", "vexaUserSessionsCheckTimeouts"}},
        {"session policies and time limits",
         Admin,
         "ru.kelvo.vexa.set-policy",
         false,
         {"vexaSessionPolicyRedirectPrinter", "vexaSessionPolicyRedirectAudio", "vexaSessionPolicyRedirectMicrophone",
          "vexaSessionPolicyRedirectClipboard", "vexaSessionPolicyRedirectClipboardFile",
          "vexaSessionPolicyRedirectClipboardLimit", "vexaSessionPolicyRedirectDrive",
          "vexaSessionPolicyRedirectSmartcard", "vexaSessionPolicyConnect", "vexaSessionPolicyRdpKeepAlive",
          "vexaSessionDisconnectedFreeze", "vexaSessionDurationLimit", "vexaSessionInactivityLimit",
          "vexaSessionDisconnectLimit", "vexaSessionSeamlessLimit"}},
        {"resource and session limits",
         Admin,
         "ru.kelvo.vexa.set-limits",
         false,
         {"vexaSessionLimitCpuWeight", "vexaUserLimitCpuWeight", "vexaSessionLimitCpuQuota", "vexaUserLimitCpuQuota",
          "vexaSessionLimitMemoryHigh", "vexaUserLimitMemoryHigh", "vexaSessionLimitMemoryMax",
          "vexaUserLimitMemoryMax", "vexaSessionLimitTasksMax", "vexaUserLimitTasksMax", "vexaSessionNetworkDeny",
          "vexaUserNetworkDeny", "vexaSessionNetworkAllow", "vexaUserNetworkAllow", "vexaSessionsLimit",
          "vexaUsersLimit"}},
        {"messages and remote assistance",
         Admin,
         "ru.kelvo.vexa.assist-users",
         false,
         {"vexaSendNotify", "vexaSessionRemoteAssistance"}},
        {"log level", Admin, "ru.kelvo.vexa.set-log-level", false, {"busSetDebugLevel"}},
        {"service stop", 0, "", false, {"busServiceShutdown"}},
    };
    return table;
}

const MethodGroup& metricsGroup() {
    static const MethodGroup group{"metrics", readers, "", false, {"metricsText"}};
    return group;
}

const MethodGroup* findMethodGroup(std::string_view method) {
    static const auto index = [] {
        std::unordered_map<std::string_view, const MethodGroup*> map{{"metricsText", &metricsGroup()}};
        for (const auto& group : methodGroups()) {
            for (const auto name : group.methods) {
                map.emplace(name, &group);
            }
        }
        return map;
    }();
    const auto found = index.find(method);
    return found == index.end() ? nullptr : found->second;
}

Roles rolesOfGroups(std::span<const gid_t> gids, const gid_t (&gidOf)[std::size(roleGroups)]) {
    Roles roles = 0;
    for (size_t i = 0; i < std::size(roleGroups); ++i) {
        if (gidOf[i] == static_cast<gid_t>(-1)) {
            continue;
        }
        for (const auto gid : gids) {
            if (gid == gidOf[i]) {
                roles |= roleGroups[i].role;
            }
        }
    }
    return roles;
}

Decision decide(const MethodGroup& group, Roles roles) {
    const Roles granted = group.roles & roles;
    if (granted == 0) {
        return Decision::Refused;
    }
    // A member of another role the group allows needs no administrator's grant for it.
    if (granted == Admin && !group.action.empty()) {
        return Decision::AskPolkit;
    }
    return Decision::Allowed;
}

std::string busPolicy() {
    std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
  "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<!--
  Vexa session manager. Generated at build time from src/access/roles.cpp: edit the table there.
  Only root may own the name and call everything; each role's group may call the members of its role and hear
  the signals; everybody else is refused. The daemon checks every call against the same table again.
-->
<busconfig>
  <policy context="default">
    <deny own="ru.kelvo.vexa"/>
    <deny send_destination="ru.kelvo.vexa"/>
    <deny receive_sender="ru.kelvo.vexa"/>
  </policy>

  <policy user="root">
    <allow own="ru.kelvo.vexa"/>
    <allow send_destination="ru.kelvo.vexa"/>
    <allow receive_sender="ru.kelvo.vexa"/>
  </policy>
)";
    for (const auto& [role, group] : roleGroups) {
        xml += "\n  <policy group=\"";
        xml += group;
        xml += "\">\n";
        // Introspection, so that the role's tools can see the interface.
        xml +=
            "    <allow send_destination=\"ru.kelvo.vexa\" send_interface=\"org.freedesktop.DBus.Introspectable\"/>\n";
        xml += "    <allow send_destination=\"ru.kelvo.vexa\" send_interface=\"org.freedesktop.DBus.Peer\"/>\n";
        for (const auto& methods : methodGroups()) {
            if ((methods.roles & role) == 0) {
                continue;
            }
            xml += "    <!-- ";
            xml += methods.name;
            xml += " -->\n";
            for (const auto name : methods.methods) {
                xml += "    <allow send_destination=\"ru.kelvo.vexa\" send_interface=\"ru.kelvo.vexa\" send_member=\"";
                xml += name;
                xml += "\"/>\n";
            }
        }
        if (metricsGroup().roles & role) {
            xml += "    <!-- metrics -->\n    <allow send_destination=\"ru.kelvo.vexa\" send_interface=\"";
            xml += metricsInterface;
            xml += "\" send_member=\"metricsText\"/>\n";
        }
        xml += "    <allow receive_sender=\"ru.kelvo.vexa\"/>\n  </policy>\n";
    }
    xml += "</busconfig>\n";
    return xml;
}

} // namespace Vexa::Access
