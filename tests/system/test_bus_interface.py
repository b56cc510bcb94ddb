"""The bus face of the service: what it exports, who may use it, how calls with wrong arguments
and calls of operations not built yet are answered."""

import re
import xml.etree.ElementTree as ET

import dbus
import pytest

from conftest import (API_VERSION, BUS_NAME, INTERFACE, OBJECT_PATH, assert_level_fields,
                      bus_as, parse_interface, run, zero_value)

# Operations that are declared on the bus but not built yet: each answers an ordinary reply
# and logs "<name>: not implemented". Remove a name here when its operation lands.
NOT_IMPLEMENTED = [
    "busSessionRequest", "busSessionShutdown", "vexaTestConnect", "vexaLogin",
    "vexaSessionShutdown", "vexaDisconnect", "proxyListenStarted", "proxyClientConnected",
    "proxyListenTimeout", "vexaSendNotify", "vexaRdpSecurityPolicy", "vexaSessionInfoJson",
    "vexaUserInfoJson", "vexaSessionGeometry", "vexaProgramList", "busProgramRequest",
    "busSessionDomainRequest", "vexaSessionRequest", "vexaConnectRdpTransport",
    "proxySessionConnected", "vexaSessionProcess", "vexaCheckAuthUser", "vexaDisplayResize",
    "vexaSessionDurationLimit", "vexaSessionInactivityLimit", "vexaSessionPolicyRedirectPrinter",
    "vexaSessionPolicyRedirectAudio", "vexaSessionPolicyRedirectMicrophone",
    "vexaSessionPolicyRedirectClipboard", "vexaSessionPolicyRedirectClipboardFile",
    "vexaSessionPolicyRedirectClipboardLimit", "vexaSessionPolicyRedirectDrive",
    "vexaSessionPolicyRedirectSmartcard", "vexaSessionPolicyConnect", "vexaSessionDisconnectLimit",
    "vexaSessionSeamlessLimit", "vexaTransportDisplayInactivity",
    "vexaTransportDisplayInactivityEvent", "vexaTransportDisplayPolicyRedirect",
    "vexaSessionRemoteAssistance", "vexaTransportDisplayDBusAddress",
    "vexaTransportDisplayRdpKeepAlive", "vexaSessionPolicyRdpKeepAlive",
    "vexaSessionLimitCpuWeight", "vexaUserLimitCpuWeight", "vexaSessionLimitCpuQuota",
    "vexaUserLimitCpuQuota", "vexaSessionLimitMemoryHigh", "vexaUserLimitMemoryHigh",
    "vexaSessionLimitMemoryMax", "vexaUserLimitMemoryMax", "vexaSessionLimitTasksMax",
    "vexaUserLimitTasksMax", "vexaSessionDisconnectedFreeze", "vexaSessionNetworkDeny",
    "vexaUserNetworkDeny", "vexaSessionNetworkAllow", "vexaUserNetworkAllow",
    "vexaLoginHelperStart", "vexaLoginHelperStarted", "vexaLoginHelperAllowConnectForTransportTo",
    "vexaTransportDisplayMonitorsChanged", "vexaProgramIconPng", "vexaUserSessionsCheckTimeouts",
    "vexaCheckAuthCertificate", "vexaTransportDisplayShutdown",
]

STANDARD_INTERFACES = {"org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Peer",
                       "org.freedesktop.DBus.Properties"}


def _introspect_python(bus):
    obj = bus.get_object(BUS_NAME, OBJECT_PATH)
    return str(obj.Introspect(dbus_interface="org.freedesktop.DBus.Introspectable"))


def _introspect_busctl(_bus):
    return run(["busctl", "--system", "introspect", "--xml-interface", BUS_NAME,
                OBJECT_PATH]).stdout


@pytest.mark.parametrize("introspect", [_introspect_python, _introspect_busctl],
                         ids=["Introspect", "busctl"])
def test_introspection_is_the_interface_description(shared_service, bus, interface, introspect):
    xml_text = introspect(bus)
    methods, signals, props = parse_interface(xml_text)

    assert len(methods) == 103 and len(signals) == 8
    # Names, argument names, types and directions first, then the order of the description.
    assert methods == interface["methods"]
    assert signals == interface["signals"]
    assert props == []
    # The binding publishes its table sorted by name; the description file keeps the interface's own order.

    names = [i.get("name") for i in ET.fromstring(xml_text).findall("interface")]
    assert names.count(INTERFACE) == 1
    others = set(names) - {INTERFACE}
    assert "org.freedesktop.DBus.Introspectable" in others
    assert others <= STANDARD_INTERFACES, others


def test_interface_has_no_properties(shared_service, bus):
    obj = bus.get_object(BUS_NAME, OBJECT_PATH)
    assert dict(obj.GetAll(INTERFACE, dbus_interface="org.freedesktop.DBus.Properties")) == {}


@pytest.mark.parametrize("method,signature,args", [
    ("vexaTransportDisplayMonitorsChanged", "uu", (1, 2)),       # a list argument that is none
    ("vexaTransportDisplayMonitorsChanged", "u", (1,)),          # an argument missing
    ("vexaSessionShutdown", "s", ("1",)),                        # a wrong scalar type
    ("vexaApiVersion", "s", ("extra",)),                         # an argument too many
    ("busSetDebugLevel", "", ()),                                # no argument at all
], ids=["array-expected", "missing", "wrong-type", "extra", "none"])
def test_call_with_wrong_signature_is_rejected(shared_service, journal, method, signature, args):
    cursor = journal.cursor()
    with pytest.raises(dbus.exceptions.DBusException) as err:
        shared_service.client.call(method, signature, *args)
    assert err.value.get_dbus_name() == "org.freedesktop.DBus.Error.InvalidArgs"
    # The operation itself never ran, and the service lives on.
    entries = shared_service.barrier(cursor)
    assert not [e for e in entries if e["MESSAGE"].startswith(method + ":")]
    assert shared_service.client.value("vexaApiVersion") == API_VERSION


def test_every_method_answers_and_unbuilt_ones_say_so(running, journal, interface):
    assert len(set(NOT_IMPLEMENTED)) == len(NOT_IMPLEMENTED)
    assert set(NOT_IMPLEMENTED) <= set(interface["methods"])

    cursor = journal.cursor()
    failures = {}
    for name, args in interface["methods"].items():
        if name == "busServiceShutdown":
            continue
        in_types = [t for _, t, d in args if d == "in"]
        out_sig = "".join(t for _, t, d in args if d == "out")
        try:
            reply = running.client.call(name, "".join(in_types), *[zero_value(t) for t in in_types])
        except dbus.exceptions.DBusException as e:
            failures[name] = e.get_dbus_name()
            continue
        if reply.get_signature() != out_sig:
            failures[name] = f"reply signature {reply.get_signature()!r}, wanted {out_sig!r}"
    assert failures == {}

    entries = running.barrier(cursor)
    said = {}
    for e in entries:
        m = re.fullmatch(r"(\w+): not implemented", e["MESSAGE"])
        if m:
            said.setdefault(m.group(1), []).append(e)
    assert sorted(said) == sorted(NOT_IMPLEMENTED)
    for name, lines in said.items():
        assert len(lines) == 1, name
        assert_level_fields(lines[0], "error")
    assert running.state() == "active"


@pytest.mark.parametrize("user,allowed", [
    ("e2e-plain", False),
    ("e2e-member", True),
    ("e2e-admin", True),
])
def test_only_members_may_call(shared_service, users, user, allowed):
    result = bus_as(user, "call", "vexaApiVersion")
    if allowed:
        assert result == {"reply": [API_VERSION]}
    else:
        assert result == {"error": "org.freedesktop.DBus.Error.AccessDenied"}


@pytest.mark.parametrize("user", ["e2e-plain", "e2e-member", "e2e-admin"])
def test_only_root_may_own_the_name(shared_service, users, user):
    assert bus_as(user, "own", BUS_NAME) == {"error": "org.freedesktop.DBus.Error.AccessDenied"}

