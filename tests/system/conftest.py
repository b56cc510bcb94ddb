"""Fixtures of the system tier: the real vexa.service under the container's systemd, driven over
the real system bus by python-dbus, observed through the journal and systemd's own view of the
unit.

Everything here runs as root inside the throwaway container made by run-container; the daemon's
files (/etc/vexa, /run/vexa, users, groups) may be changed freely, but each fixture puts back what
it changed so that tests do not depend on their order.
"""

import contextlib
import json
import os
import pathlib
import re
import select
import signal
import subprocess
import time
import uuid
import xml.etree.ElementTree as ET

import dbus
import dbus.lowlevel
import pytest
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

SRC_DIR = pathlib.Path(os.environ.get("E2E_SRC_DIR", pathlib.Path(__file__).resolve().parents[2]))
INTERFACE_XML = SRC_DIR / "src" / "dbus" / "ru.kelvo.vexa.xml"

UNIT = "vexa.service"
UNIT_PATH = "/org/freedesktop/systemd1/unit/vexa_2eservice"
BUS_NAME = "ru.kelvo.vexa"
OBJECT_PATH = "/ru/kelvo/vexa"
INTERFACE = "ru.kelvo.vexa"
DAEMON = "/usr/sbin/vexa_service"
CONFIG = "/etc/vexa/vexa_service.json"
LIMITS = "/etc/vexa/limits.json"
RUNTIME_DIR = "/run/vexa"
STORE_DIR = "/var/lib/vexa/sessions"
PID_FILE = "/run/vexa/vexa_service.pid"
VERSION = "VEXA SERVICE v.2.1.5 build(202507220750)"
API_VERSION = 20240620
IDENT = "vexa_service"

LOGGER_FILE = "src/common/logger.h"
# Journal fields every daemon line carries, per level: PRIORITY, CODE_LINE, CODE_FUNC.
LEVEL_FIELDS = {
    "error": ("3", "124", "error"),
    "warning": ("4", "107", "warning"),
    "notice": ("5", "90", "notice"),
    "info": ("6", "69", "info"),
    "debug": ("7", "53", "debug"),
}

# Users made for access and privilege tests, with their supplementary groups.
TEST_USERS = {
    "e2e-plain": [],
    "e2e-member": ["vexa"],
    "e2e-admin": ["vexa-admin"],
}

DBusGMainLoop(set_as_default=True)


# ----------------------------------------------------------------------------------------------
# Waiting

def pump(seconds=0.0):
    """Dispatches pending D-Bus traffic (signals) for at least `seconds`."""
    ctx = GLib.MainContext.default()
    end = time.monotonic() + seconds
    while True:
        while ctx.iteration(False):
            pass
        left = end - time.monotonic()
        if left <= 0:
            return
        time.sleep(min(0.01, left))


def wait_for(predicate, timeout=10.0, interval=0.02, what="condition"):
    """Polls `predicate` (dispatching D-Bus signals meanwhile) until it returns a true value."""
    end = time.monotonic() + timeout
    while True:
        pump()
        value = predicate()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(interval)


def run(argv, check=True, **kw):
    kw.setdefault("capture_output", True)
    kw.setdefault("text", True)
    kw.setdefault("timeout", 60)
    proc = subprocess.run(argv, **kw)
    if check and proc.returncode != 0:
        raise AssertionError(f"{argv} exited {proc.returncode}: {proc.stderr.strip()}")
    return proc


# ----------------------------------------------------------------------------------------------
# The interface as written in the source tree

def split_types(signature):
    """Splits a D-Bus signature into its complete types: "a(su)is" -> ["a(su)", "i", "s"]."""
    types, i = [], 0
    while i < len(signature):
        start = i
        while signature[i] == "a":
            i += 1
        if signature[i] in "({":
            depth = 0
            while True:
                if signature[i] in "({":
                    depth += 1
                elif signature[i] in ")}":
                    depth -= 1
                i += 1
                if depth == 0:
                    break
        else:
            i += 1
        types.append(signature[start:i])
    return types


def zero_value(sig):
    """The zero or empty value of one complete D-Bus type."""
    if sig.startswith("a"):
        return []
    if sig.startswith("("):
        return tuple(zero_value(t) for t in split_types(sig[1:-1]))
    return {"s": "", "o": "/", "g": "", "b": False, "d": 0.0}.get(sig, 0)


def parse_interface(xml_text, name=INTERFACE):
    """Methods, signals and properties of one interface of an introspection document, in order:
    ({method: [(arg name, type, direction)]}, {signal: [(arg name, type)]}, [property names])."""
    root = ET.fromstring(xml_text)
    for iface in root.findall("interface"):
        if iface.get("name") != name:
            continue
        methods = {
            m.get("name"): [(a.get("name"), a.get("type"), a.get("direction", "in"))
                            for a in m.findall("arg")]
            for m in iface.findall("method")
        }
        signals = {
            s.get("name"): [(a.get("name"), a.get("type")) for a in s.findall("arg")]
            for s in iface.findall("signal")
        }
        props = [p.get("name") for p in iface.findall("property")]
        return methods, signals, props
    raise AssertionError(f"interface {name} not found")


@pytest.fixture(scope="session")
def interface():
    methods, signals, props = parse_interface(INTERFACE_XML.read_text())
    return {"methods": methods, "signals": signals, "properties": props}


# ----------------------------------------------------------------------------------------------
# Journal

def _text(value):
    if isinstance(value, list):  # journald writes non-UTF-8 values as byte arrays
        return bytes(value).decode("utf-8", "replace")
    return value


class Journal:
    """Reads the daemon's own journal entries (SYSLOG_IDENTIFIER=vexa_service)."""

    def cursor(self):
        out = run(["journalctl", "-q", "-o", "json", "-n", "1", "--no-pager"]).stdout
        return json.loads(out.splitlines()[-1])["__CURSOR"]

    def entries(self, cursor, pid=None):
        run(["journalctl", "--sync"])
        # Filtered here: journalctl 252 finds nothing after a cursor whose own entry does not
        # match a field filter given on its command line.
        out = run(["journalctl", "-q", "-o", "json", "--no-pager",
                   f"--after-cursor={cursor}"]).stdout
        entries = []
        for line in out.splitlines():
            entry = {k: _text(v) for k, v in json.loads(line).items()}
            if entry.get("SYSLOG_IDENTIFIER") != IDENT:
                continue
            if pid is None or entry.get("_PID") == str(pid):
                entries.append(entry)
        return entries

    def messages(self, cursor, pid=None):
        return [e.get("MESSAGE", "") for e in self.entries(cursor, pid)]

    def wait(self, cursor, message, pid=None, timeout=10.0, count=1):
        """Waits until `message` (exact text) was logged `count` times; returns those entries."""
        found = []

        def seen():
            found[:] = [e for e in self.entries(cursor, pid) if e.get("MESSAGE") == message]
            return len(found) >= count

        wait_for(seen, timeout=timeout, interval=0.05, what=f"journal line {message!r}")
        return found


@pytest.fixture(scope="session")
def journal():
    return Journal()


def assert_level_fields(entry, level):
    priority, line, func = LEVEL_FIELDS[level]
    got = {k: entry.get(k) for k in ("PRIORITY", "CODE_FILE", "CODE_LINE", "CODE_FUNC")}
    assert got == {"PRIORITY": priority, "CODE_FILE": LOGGER_FILE, "CODE_LINE": line,
                   "CODE_FUNC": func}, entry.get("MESSAGE")


# ----------------------------------------------------------------------------------------------
# Bus clients

class Client:
    """A root client of the daemon on the system bus."""

    def __init__(self, bus):
        self.bus = bus

    def call(self, method, signature="", *args, timeout=30.0):
        """Calls a method with an explicit signature; returns the reply message (raises
        dbus.exceptions.DBusException for an error reply)."""
        msg = dbus.lowlevel.MethodCallMessage(BUS_NAME, OBJECT_PATH, INTERFACE, method)
        if signature:
            msg.append(*args, signature=signature)
        return self.bus.send_message_with_reply_and_block(msg, timeout)

    def value(self, method, signature="", *args):
        """The single out value of a method (None for methods without out arguments)."""
        values = self.call(method, signature, *args).get_args_list()
        return values[0] if values else None

    def barrier(self, journal, cursor, pid=None):
        """Returns the daemon's entries up to a marker line that is logged at error level and
        so is written at every level the tests use; everything the daemon's D-Bus thread logged
        before it is in the journal when it is."""
        token = "e2e-barrier-" + uuid.uuid4().hex[:8]
        self.call("busSetDebugLevel", "s", token)
        journal.wait(cursor, f"setDebugLevel: unknown level: {token}", pid=pid)
        entries = journal.entries(cursor, pid)
        # Drop the marker's own lines.
        return [e for e in entries if token not in e.get("MESSAGE", "")]


class UnitStates:
    """Records the unit's ActiveState as systemd announces it (PropertiesChanged)."""

    def __init__(self, bus):
        self.bus = bus
        self.seen = []
        manager = bus.get_object("org.freedesktop.systemd1", "/org/freedesktop/systemd1")
        try:
            # systemd announces unit changes only while somebody is subscribed.
            dbus.Interface(manager, "org.freedesktop.systemd1.Manager").Subscribe()
        except dbus.exceptions.DBusException as e:
            if e.get_dbus_name() != "org.freedesktop.systemd1.AlreadySubscribed":
                raise
        self._match = bus.add_signal_receiver(
            self._changed, signal_name="PropertiesChanged",
            dbus_interface="org.freedesktop.DBus.Properties", path=UNIT_PATH,
            arg0="org.freedesktop.systemd1.Unit")
        # A round trip so that the match is in force before the caller acts.
        bus.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                          "GetId", "", [])

    def _changed(self, _iface, changed, _invalidated):
        if "ActiveState" in changed:
            self.seen.append((time.monotonic(), str(changed["ActiveState"])))

    def states(self):
        """The states in order, each once: systemd repeats ActiveState whenever any other
        property of the unit changes."""
        pump()
        states = []
        for _, state in self.seen:
            if not states or states[-1] != state:
                states.append(state)
        return states

    def close(self):
        self._match.remove()


class SignalLog:
    """Records the daemon's signals of one name received by a client."""

    def __init__(self, bus, name):
        self.seen = []
        self._match = bus.add_signal_receiver(
            lambda *args: self.seen.append((time.monotonic(), args)),
            signal_name=name, dbus_interface=INTERFACE, path=OBJECT_PATH)
        bus.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                          "GetId", "", [])

    def close(self):
        self._match.remove()


@pytest.fixture(scope="session")
def bus():
    conn = dbus.SystemBus(private=True)
    yield conn
    conn.close()


@pytest.fixture
def unit_states(bus):
    states = UnitStates(bus)
    yield states
    states.close()


@pytest.fixture
def signals(bus):
    logs = []

    def subscribe(name):
        log = SignalLog(bus, name)
        logs.append(log)
        return log

    yield subscribe
    for log in logs:
        log.close()


# ----------------------------------------------------------------------------------------------
# The unit

def unit_property(bus, name):
    obj = bus.get_object("org.freedesktop.systemd1", UNIT_PATH)
    iface = "org.freedesktop.systemd1.Service" if name in SERVICE_PROPERTIES else \
        "org.freedesktop.systemd1.Unit"
    return obj.Get(iface, name, dbus_interface="org.freedesktop.DBus.Properties")


SERVICE_PROPERTIES = {"MainPID", "Result", "ExecMainPID", "ExecMainStatus", "ExecMainCode",
                      "ExecMainStartTimestamp", "NRestarts", "Type", "NotifyAccess",
                      "StatusErrno"}


class Service:
    """vexa.service under the container's systemd."""

    def __init__(self, bus, journal):
        self.bus = bus
        self.journal = journal
        self.client = Client(bus)
        self.pid = None
        self.start_cursor = None
        # Keeps systemd from unloading the unit once it is inactive, which would reset the
        # outcome (Result, ExecMainCode, ExecMainStatus) the tests read after a stop.
        obj = bus.get_object("org.freedesktop.systemd1", UNIT_PATH)
        obj.Ref(dbus_interface="org.freedesktop.systemd1.Unit")

    def prop(self, name):
        return unit_property(self.bus, name)

    def state(self):
        return str(self.prop("ActiveState"))

    def start(self, check=True):
        self.start_cursor = self.journal.cursor()
        proc = run(["systemctl", "start", UNIT], check=False)
        if check:
            assert proc.returncode == 0, f"systemctl start {UNIT}: {proc.stderr.strip()}"
            self.pid = int(self.prop("MainPID"))
            assert self.pid > 0
        return proc

    def stop(self):
        run(["systemctl", "stop", UNIT], check=False)
        run(["systemctl", "reset-failed", UNIT], check=False)

    def active_since(self):
        """CLOCK_MONOTONIC seconds at which the unit last became active."""
        return int(self.prop("ActiveEnterTimestampMonotonic")) / 1e6

    def entries(self):
        return self.journal.entries(self.start_cursor, self.pid)

    def barrier(self, cursor=None):
        return self.client.barrier(self.journal, cursor or self.start_cursor, self.pid)

    def wait_inactive(self, timeout=15.0):
        wait_for(lambda: self.state() in ("inactive", "failed"), timeout=timeout,
                 what=f"{UNIT} to stop")

    def wait_first_config_check(self):
        """The watcher's first pass, a little over 3 s after start, only records the
        configuration's modification time; a change before it goes unnoticed."""
        delay = self.active_since() + 3.4 - time.monotonic()
        if delay > 0:
            time.sleep(delay)


def observe_levels(service):
    """Calls one operation that logs at debug and one that logs at info; returns which of the two
    lines reached the journal (and the entries themselves)."""
    cursor = service.journal.cursor()
    service.client.call("vexaStatus")
    service.client.call("vexaTest")
    entries = service.barrier(cursor)
    debug = [e for e in entries if re.fullmatch(r"vexaStatus(: .*)?", e["MESSAGE"])]
    info = [e for e in entries if e["MESSAGE"] == "vexaTest send ping version success"]
    for e in debug:
        assert_level_fields(e, "debug")
    for e in info:
        assert_level_fields(e, "info")
    return bool(debug), bool(info), entries


# level -> (debug lines written, info lines written)
WRITES = {
    None: (False, True),  # no "debug:level" in the configuration: "info"
    "info": (False, True),
    "debug": (True, True),
    "trace": (True, True),
    "none": (False, False),
}


class FileKeeper:
    """Writes the daemon's files for a test and restores them afterwards."""

    def __init__(self):
        self.saved = {}
        self._mtime = None

    def _remember(self, path):
        if path not in self.saved:
            p = pathlib.Path(path)
            self.saved[path] = (p.read_bytes(), p.stat()) if p.exists() else None

    def write(self, path, content, mtime=None):
        """Writes text (a dict is written as JSON) and gives the file a modification time that
        differs from every earlier one in whole seconds (or `mtime`)."""
        self._remember(path)
        text = json.dumps(content, indent=2) if isinstance(content, dict) else content
        # Written beside the file, dated, then renamed over it: the watcher must never see the
        # new content with an intermediate modification time (that would be two changes).
        tmp = pathlib.Path(path).with_name(f".{pathlib.Path(path).name}.e2e")
        tmp.write_text(text)
        saved = self.saved[path]
        os.chmod(tmp, (saved[1].st_mode & 0o7777) if saved else 0o644)
        self._date(tmp, mtime)
        os.rename(tmp, path)

    def remove(self, path):
        self._remember(path)
        pathlib.Path(path).unlink(missing_ok=True)

    def touch(self, path, mtime=None):
        """Changes only the modification time."""
        self._remember(path)
        return self._date(path, mtime)

    def _date(self, path, mtime):
        if mtime is None:
            base = int(time.time()) if self._mtime is None else self._mtime
            mtime = base + 10
        self._mtime = int(mtime)
        os.utime(path, (self._mtime, self._mtime))
        return self._mtime

    def restore(self):
        for path, saved in self.saved.items():
            p = pathlib.Path(path)
            if saved is None:
                p.unlink(missing_ok=True)
            else:
                data, st = saved
                p.write_bytes(data)
                os.chmod(path, st.st_mode & 0o7777)
                os.utime(path, ns=(st.st_atime_ns, st.st_mtime_ns))


@pytest.fixture
def files():
    keeper = FileKeeper()
    yield keeper
    keeper.restore()


@pytest.fixture
def service(bus, journal, files):
    """A stopped vexa.service; the test starts it (after writing its files if it wants to).
    Stopped again afterwards, before the files are put back."""
    svc = Service(bus, journal)
    svc.stop()
    yield svc
    svc.stop()


@pytest.fixture
def running(service):
    """A freshly started vexa.service with the installed configuration."""
    service.start()
    return service


@pytest.fixture(scope="module")
def _module_service(bus, journal):
    svc = Service(bus, journal)
    yield svc
    svc.stop()


@pytest.fixture
def shared_service(_module_service):
    """One vexa.service shared by the tests of a module that change nothing lasting in it;
    started again when a test of its own made a fresh one in between."""
    svc = _module_service
    if svc.pid is None or svc.state() != "active" or int(svc.prop("MainPID")) != svc.pid:
        svc.stop()
        svc.start()
    return svc


# ----------------------------------------------------------------------------------------------
# Other users

@pytest.fixture(scope="session")
def users():
    for group in ("vexa", "vexa-admin"):
        assert run(["getent", "group", group], check=False).returncode == 0, \
            f"group {group} missing: the package's sysusers.d entry was not applied at boot"
    made = []
    try:
        for name, groups in TEST_USERS.items():
            argv = ["useradd", "--no-create-home", "--no-user-group", "--shell", "/bin/sh", name]
            if groups:
                argv[1:1] = ["--groups", ",".join(groups)]
            run(argv)
            made.append(name)
        yield list(TEST_USERS)
    finally:
        for name in made:
            run(["userdel", name], check=False)


def run_as(user, argv, **kw):
    return run(["runuser", "-u", user, "--", *argv], check=False, **kw)


CALL_AS_USER = r"""
import json, sys, dbus
bus = dbus.SystemBus()
what, args = sys.argv[1], sys.argv[2:]
try:
    if what == "call":
        msg = dbus.lowlevel.MethodCallMessage("ru.kelvo.vexa", "/ru/kelvo/vexa", "ru.kelvo.vexa",
                                              args[0])
        reply = bus.send_message_with_reply_and_block(msg, 10.0)
        print(json.dumps({"reply": [int(v) for v in reply.get_args_list()]}))
    elif what == "own":
        print(json.dumps({"reply": [int(bus.request_name(args[0]))]}))
except dbus.exceptions.DBusException as e:
    print(json.dumps({"error": e.get_dbus_name()}))
"""


def bus_as(user, what, *args):
    """Calls a method without arguments or requests a name as another user; returns
    {"reply": [...]} or {"error": name}."""
    proc = run_as(user, ["/usr/bin/python3", "-c", "import dbus.lowlevel\n" + CALL_AS_USER,
                         what, *args])
    assert proc.returncode == 0, proc.stderr
    return json.loads(proc.stdout)


SUBSCRIBE_AS_USER = r"""
import sys, dbus
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib
bus = dbus.SystemBus(mainloop=DBusGMainLoop())
loop = GLib.MainLoop()
def got(*args, member=None):
    print("signal", member, flush=True)
bus.add_signal_receiver(got, dbus_interface="ru.kelvo.vexa", member_keyword="member")
bus.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                  "GetId", "", [])
print("ready", flush=True)
GLib.timeout_add_seconds(int(sys.argv[1]), loop.quit)
loop.run()
"""


@contextlib.contextmanager
def subscribers_as(user_names, seconds=20):
    """Runs one signal listener per user, each listening to every signal of the interface;
    yields {user: Popen} once all of them are subscribed."""
    procs = {}
    try:
        for name in user_names:
            procs[name] = subprocess.Popen(
                ["runuser", "-u", name, "--", "/usr/bin/python3", "-c", SUBSCRIBE_AS_USER,
                 str(seconds)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        for name, proc in procs.items():
            ready, _, _ = select.select([proc.stdout], [], [], 10)
            assert ready and proc.stdout.readline().strip() == "ready", \
                f"listener of {name} did not start: {proc.stderr.read() if proc.poll() else ''}"
        yield procs
    finally:
        for proc in procs.values():
            end_listener(proc)


def end_listener(proc):
    """Ends a listener started through runuser by signalling the client itself: runuser answers
    a SIGTERM of its own with a 2 s grace period."""
    if proc.poll() is None:
        try:
            with open(f"/proc/{proc.pid}/task/{proc.pid}/children") as f:
                children = [int(p) for p in f.read().split()]
        except FileNotFoundError:
            children = []
        for child in children:
            with contextlib.suppress(ProcessLookupError):
                os.kill(child, signal.SIGTERM)
        if not children:
            proc.terminate()
    return proc.communicate(timeout=10)
