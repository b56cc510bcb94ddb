"""The bus face of the service: what it exports, who may use it, what it answers and logs."""

import collections
import re
import subprocess
import time

import dbus
import pytest

from conftest import (API_VERSION, BUS_NAME, DECLARED, INTERFACE, OBJECT_PATH, VERSION, as_user,
                      assert_level, cursor, interface_members)

# Declared on the bus but not built yet: each answers an ordinary reply and logs
# "<name>: not implemented". Remove a name here when its operation lands.
NOT_IMPLEMENTED = """
    vexaDisconnect proxyListenStarted proxyClientConnected proxyListenTimeout vexaSendNotify
    vexaSessionGeometry vexaConnectRdpTransport proxySessionConnected vexaDisplayResize
    vexaSessionDurationLimit vexaSessionInactivityLimit vexaSessionPolicyConnect
    vexaSessionDisconnectLimit vexaSessionSeamlessLimit vexaTransportDisplayInactivity
    vexaTransportDisplayInactivityEvent vexaSessionRemoteAssistance vexaSessionLimitCpuWeight
    vexaUserLimitCpuWeight vexaSessionLimitCpuQuota vexaUserLimitCpuQuota vexaSessionLimitMemoryHigh
    vexaUserLimitMemoryHigh vexaSessionLimitMemoryMax vexaUserLimitMemoryMax
    vexaSessionLimitTasksMax vexaUserLimitTasksMax vexaSessionDisconnectedFreeze
    vexaSessionNetworkDeny vexaUserNetworkDeny vexaSessionNetworkAllow vexaUserNetworkAllow
    vexaTransportDisplayMonitorsChanged vexaUserSessionsCheckTimeouts vexaTransportDisplayShutdown""".split()

# Run as a test user: calls the daemon, then prints signalVexaStopped when it hears it.
LISTENER = """
import dbus, dbus.mainloop.glib
from gi.repository import GLib
bus = dbus.SystemBus(mainloop=dbus.mainloop.glib.DBusGMainLoop())
loop = GLib.MainLoop()
bus.add_signal_receiver(lambda: print("signalVexaStopped") or loop.quit(), "signalVexaStopped")
try:
    print(bus.call_blocking("ru.kelvo.vexa", "/ru/kelvo/vexa", "ru.kelvo.vexa", "vexaApiVersion",
                            "", []), flush=True)
except dbus.exceptions.DBusException as e:
    print(e.get_dbus_name(), flush=True)
loop.run()
"""


def test_introspection_is_the_interface_file(running):
    xml_text = running.bus.get_object(BUS_NAME, OBJECT_PATH).Introspect(
        dbus_interface="org.freedesktop.DBus.Introspectable")
    exported = interface_members(str(xml_text))
    # compared as dicts: the binding lists members sorted by name
    assert exported[INTERFACE] == DECLARED
    kinds = collections.Counter(kind for kind, _ in exported[INTERFACE])
    assert kinds == {"method": 103, "signal": 8}  # and no properties
    assert set(exported) - {INTERFACE} <= {f"org.freedesktop.DBus.{name}" for name in (
        "Introspectable", "Peer", "Properties")}


def test_list_argument_of_the_wrong_type_is_refused(running):
    after = cursor()
    with pytest.raises(dbus.exceptions.DBusException) as err:
        running.call("vexaTransportDisplayMonitorsChanged", "uu", 1, 2)
    assert err.value.get_dbus_name() == "org.freedesktop.DBus.Error.InvalidArgs"
    # the operation never ran, and the daemon lives on to log the barrier
    assert not [e for e in running.barrier(after)
                if e["MESSAGE"].startswith("vexaTransportDisplayMonitorsChanged")]


def test_every_method_answers_and_unbuilt_ones_say_so(running):
    after = cursor()
    for (kind, name), args in DECLARED.items():
        if kind == "method" and name != "busServiceShutdown":
            ins = [t for _, t, d in args if d == "in"]
            zeros = [{"s": "", "b": False}.get(t, [] if t[0] == "a" else 0) for t in ins]
            reply = running.call(name, "".join(ins), *zeros)
            assert reply.get_signature() == "".join(t for _, t, d in args if d == "out"), name
    said = [m[1] for e in running.barrier(after)
            if (m := re.fullmatch(r"(\w+): not implemented", e["MESSAGE"]))]
    assert sorted(said) == sorted(NOT_IMPLEMENTED)


def test_only_members_may_call_and_hear(running, users):
    procs = {u: subprocess.Popen(as_user(u, "/usr/bin/python3", "-c", LISTENER), text=True,
                                 stdout=subprocess.PIPE) for u in users}
    answers = {u: p.stdout.readline().strip() for u, p in procs.items()}
    running.call("busServiceShutdown")
    procs["e2e-member"].wait(timeout=10)
    procs["e2e-admin"].wait(timeout=10)
    time.sleep(0.3)  # the stranger would have heard it by now
    procs["e2e-plain"].terminate()
    heard = {u: p.communicate(timeout=10)[0].strip() for u, p in procs.items()}
    assert answers == {"e2e-plain": "org.freedesktop.DBus.Error.AccessDenied",
                       "e2e-member": str(API_VERSION), "e2e-admin": str(API_VERSION)}
    assert heard == {"e2e-plain": "", "e2e-member": "signalVexaStopped",
                     "e2e-admin": "signalVexaStopped"}


def test_debug_level_decides_what_reaches_the_journal(running):
    def status_lines():
        after = cursor()
        running.call("vexaStatus")
        return [e for e in running.barrier(after) if e["MESSAGE"] == "vexaStatus"]

    after = cursor()
    assert running.value("vexaTest") == VERSION
    assert status_lines() == []  # the installed configuration says "info"
    running.call("busSetDebugLevel", "s", "debug")
    assert_level(status_lines()[0], "debug")
    running.call("busSetDebugLevel", "s", "Debug")  # unknown: logged, level kept
    assert len(status_lines()) == 1
    lines = {e["MESSAGE"]: e for e in running.barrier(after)}
    assert_level(lines["vexaTest send ping version success"], "info")
    assert_level(lines["setDebugLevel: unknown level: Debug"], "error")
