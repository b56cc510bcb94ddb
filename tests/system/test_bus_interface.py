"""The bus face of the service: what it exports, who may use it, what it answers and logs."""

import re
import subprocess
import xml.etree.ElementTree as ET

from conftest import (API_VERSION, BUS_NAME, INTERFACE, OBJECT_PATH, SRC_DIR, VERSION, as_user, assert_level,
                      cursor)

# Run as a test user: calls the daemon, prints the answer and then signalVexaStopped if it hears it. The daemon
# leaves the bus after that signal, so the bus delivers the signal before the name's change of owner.
LISTENER = """
import dbus, dbus.mainloop.glib
from gi.repository import GLib
bus = dbus.SystemBus(mainloop=dbus.mainloop.glib.DBusGMainLoop())
loop = GLib.MainLoop()
bus.add_signal_receiver(lambda: print("signalVexaStopped"), "signalVexaStopped")
bus.add_signal_receiver(lambda *_: loop.quit(), "NameOwnerChanged", arg0="ru.kelvo.vexa")
try:
    print(bus.call_blocking("ru.kelvo.vexa", "/ru/kelvo/vexa", "ru.kelvo.vexa", "vexaApiVersion", "", []), flush=True)
except dbus.exceptions.DBusException as e:
    print(e.get_dbus_name(), flush=True)
loop.run()
"""


def interface_members(xml_text):
    """{interface: {(kind, name): [(arg name, type, direction)]}} of an introspection document."""
    return {i.get("name"): {
        (m.tag, m.get("name")): [(a.get("name"), a.get("type"),
                                  a.get("direction", "out" if m.tag == "signal" else "in")) for a in m.findall("arg")]
        for m in i if m.tag in ("method", "signal", "property")}
        for i in ET.fromstring(xml_text).findall("interface")}


DECLARED = interface_members((SRC_DIR / "src/dbus/ru.kelvo.vexa.xml").read_text())[INTERFACE]


def zero_calls():
    """(method, input signature, zero or empty arguments) of every declared method."""
    for (kind, name), args in sorted(DECLARED.items()):
        if kind == "method":
            ins = [t for _, t, d in args if d == "in"]
            yield name, "".join(ins), [{"s": "", "b": False}.get(t, [] if t[0] == "a" else 0) for t in ins]


def test_introspection_is_the_interface_file(running):
    exported = interface_members(str(running.bus.get_object(BUS_NAME, OBJECT_PATH).Introspect(
        dbus_interface="org.freedesktop.DBus.Introspectable")))
    assert exported[INTERFACE] == DECLARED  # compared as dicts: the binding lists members sorted by name
    # Besides: the metrics, an interface of their own (test_metrics.py).
    assert set(exported) - {INTERFACE} <= {f"org.freedesktop.DBus.{name}" for name in (
        "Introspectable", "Peer", "Properties")} | {f"{INTERFACE}.Metrics"}


def test_every_method_answers_and_none_is_unbuilt(running):
    after = cursor()
    outs = {name: "".join(t for _, t, d in args if d == "out") for (_, name), args in DECLARED.items()}
    for name, signature, zeros in zero_calls():
        if name != "busServiceShutdown":
            assert running.call(name, signature, *zeros).get_signature() == outs[name], name
    assert not [e for e in running.barrier(after) if re.fullmatch(r"\w+: not implemented", e["MESSAGE"])]


def test_only_members_may_call_and_hear(running, make_user):
    users = [make_user("e2e-plain"), make_user("e2e-member", groups=["vexa"]),
             make_user("e2e-admin", groups=["vexa-admin"])]
    procs = {u: subprocess.Popen(as_user(u, "/usr/bin/python3", "-c", LISTENER), text=True, stdout=subprocess.PIPE)
             for u in users}
    answers = {u: p.stdout.readline().strip() for u, p in procs.items()}
    running.call("busServiceShutdown")
    heard = {u: p.communicate(timeout=10)[0].strip() for u, p in procs.items()}
    assert answers == {"e2e-plain": "org.freedesktop.DBus.Error.AccessDenied",
                       "e2e-member": str(API_VERSION), "e2e-admin": str(API_VERSION)}
    assert heard == {"e2e-plain": "", "e2e-member": "signalVexaStopped", "e2e-admin": "signalVexaStopped"}


def test_debug_level_decides_what_reaches_the_journal(running):
    after = cursor()
    running.call("vexaStatus")  # at debug level, and the installed configuration says "info"
    assert running.value("vexaTest") == VERSION
    running.call("busSetDebugLevel", "s", "debug")
    running.call("vexaStatus")
    running.call("busSetDebugLevel", "s", "Debug")  # unknown: logged, the level kept
    running.call("vexaStatus")
    expected = {"vexaTest send ping version success": "info", "vexaStatus": "debug",
                "setDebugLevel: unknown level: Debug": "error"}
    lines = [e for e in running.barrier(after) if e["MESSAGE"] in expected]
    assert [e["MESSAGE"] for e in lines] == [*expected, "vexaStatus"]
    for entry in lines:
        assert_level(entry, expected[entry["MESSAGE"]])
