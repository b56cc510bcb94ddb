"""Fixtures of the system tier: the real vexa.service under the container's systemd."""

import json
import os
import pathlib
import subprocess
import time
import uuid

import dbus
import dbus.lowlevel
import pytest
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

DBusGMainLoop(set_as_default=True)

SRC_DIR = pathlib.Path(os.environ.get("E2E_SRC_DIR", pathlib.Path(__file__).resolve().parents[2]))
# the test tool built beside the daemon (tests/system/probe)
PROBE = pathlib.Path(os.environ.get("E2E_BUILD_DIR", SRC_DIR / "build")) / "tests/system/probe/vexa_probe"
UNIT = "vexa.service"
UNIT_PATH = "/org/freedesktop/systemd1/unit/vexa_2eservice"
SYSTEMD = "org.freedesktop.systemd1"
INTERFACE = BUS_NAME = "ru.kelvo.vexa"
OBJECT_PATH = "/ru/kelvo/vexa"
DAEMON = "/usr/sbin/vexa_service"
CONFIG = "/etc/vexa/vexa_service.json"
LIMITS = "/etc/vexa/limits.json"
PID_FILE = "/run/vexa/vexa_service.pid"
VERSION = "VEXA SERVICE v.2.1.5 build(202507220750)"
API_VERSION = 20240620
# the daemon's levels, at their syslog priorities
LEVELS = ["emerg", "alert", "crit", "error", "warning", "notice", "info", "debug"]


def pump():
    """Dispatches the D-Bus signals received so far."""
    while GLib.MainContext.default().iteration(False):
        pass


def wait_for(predicate, timeout=10.0, what="condition"):
    end = time.monotonic() + timeout
    while True:
        pump()
        if value := predicate():
            return value
        assert time.monotonic() < end, f"timed out after {timeout} s waiting for {what}"
        time.sleep(0.05)


def run(argv, check=True, **kw):
    proc = subprocess.run(argv, capture_output=True, text=True, timeout=60, **kw)
    assert not check or proc.returncode == 0, f"{argv} exited {proc.returncode}: {proc.stderr}"
    return proc


def as_user(user, *argv):
    return ["setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups", *argv]


def cursor():
    return json.loads(run(["journalctl", "-q", "-o", "json", "-n", "1"]).stdout)["__CURSOR"]


def journal(after, pid=None, message=None, idents=("vexa_service",)):
    """The entries of the daemon (or of `idents`) after a cursor, optionally of one process and with one exact
    text (filtered here: journalctl finds nothing after a cursor whose entry fails its filter)."""
    run(["journalctl", "--sync"])
    out = run(["journalctl", "-q", "-o", "json", f"--after-cursor={after}"]).stdout
    return [e for e in map(json.loads, out.splitlines())
            if e.get("SYSLOG_IDENTIFIER") in idents and pid in (None, int(e["_PID"]))
            and message in (None, e.get("MESSAGE"))]


def wait_line(after, message, pid=None):
    return wait_for(lambda: journal(after, pid, message), what=f"journal line {message!r}")


def assert_level(entry, level):
    """Logged through the daemon's logger (whose functions are named after the levels) at that level."""
    fields = [entry.get(k) for k in ("PRIORITY", "CODE_FILE", "CODE_FUNC")]
    assert fields == [str(LEVELS.index(level)), "src/common/logger.h", level], entry["MESSAGE"]


class Service:
    """vexa.service under systemd, and a root client of the daemon."""

    def __init__(self, bus):
        self.bus, self.pid, self.cursor = bus, None, None

    def prop(self, name, iface="Unit"):
        return self.bus.get_object(SYSTEMD, UNIT_PATH).Get(
            f"{SYSTEMD}.{iface}", name, dbus_interface="org.freedesktop.DBus.Properties")

    def start(self):
        self.cursor = cursor()
        run(["systemctl", "start", UNIT])
        self.pid = int(self.prop("MainPID", "Service"))

    def stop(self):
        run(["systemctl", "stop", UNIT], check=False)

    def call(self, method, signature="", *args):
        """Calls with an explicit signature; returns the reply (raises DBusException on error)."""
        msg = dbus.lowlevel.MethodCallMessage(BUS_NAME, OBJECT_PATH, INTERFACE, method)
        if signature:
            msg.append(*args, signature=signature)
        return self.bus.send_message_with_reply_and_block(msg, 30)

    def value(self, method, signature="", *args):
        return self.call(method, signature, *args).get_args_list()[0]

    def barrier(self, after):
        """The daemon's entries after a cursor, up to a marker logged at error level (written at
        every level): once it is in the journal, so is everything logged before it."""
        token = "barrier-" + uuid.uuid4().hex[:8]
        self.call("busSetDebugLevel", "s", token)
        wait_line(after, f"setDebugLevel: unknown level: {token}", self.pid)
        return [e for e in journal(after, self.pid) if token not in e["MESSAGE"]]


class Files:
    """Writes files (text, bytes or JSON), each with a modification time of its own; puts back what was there."""

    def __init__(self):
        self.saved, self.mtime = {}, int(time.time())

    def write(self, path, content):
        path = pathlib.Path(path)
        self.saved.setdefault(path, path.read_bytes() if path.exists() else None)
        tmp = path.with_name(path.name + ".new")
        tmp.write_bytes(content if isinstance(content, bytes) else
                        (content if isinstance(content, str) else json.dumps(content)).encode())
        self.mtime += 10
        os.utime(tmp, (self.mtime, self.mtime))
        os.rename(tmp, path)  # so the watcher never sees new content with an old time

    def restore(self):
        for path, data in self.saved.items():
            path.unlink() if data is None else path.write_bytes(data)


@pytest.fixture(scope="session")
def bus():
    conn = dbus.SystemBus()
    # systemd announces unit changes only to subscribers
    conn.call_blocking(SYSTEMD, "/org/freedesktop/systemd1", f"{SYSTEMD}.Manager", "Subscribe", "", [])
    return conn


@pytest.fixture
def unit_states(bus):
    """The unit's ActiveState as systemd announces it, each once in a row (read after pump())."""
    states = []

    def changed(_iface, props, _invalidated):
        if "ActiveState" in props and states[-1:] != [props["ActiveState"]]:
            states.append(str(props["ActiveState"]))

    match = bus.add_signal_receiver(changed, "PropertiesChanged", "org.freedesktop.DBus.Properties", path=UNIT_PATH)
    yield states
    match.remove()


@pytest.fixture
def files():
    keeper = Files()
    yield keeper
    keeper.restore()


@pytest.fixture
def service(bus, files):
    """A stopped vexa.service for the test to start; stopped again before the files go back."""
    svc = Service(bus)
    svc.stop()
    yield svc
    svc.stop()


@pytest.fixture
def running(service):
    service.start()
    return service


@pytest.fixture
def make_user():
    """Real accounts (password, optionally a home and groups) for one test, removed afterwards."""
    made = []

    def make(name, password="Secret-123", home=True, groups=()):
        args = ["useradd", "--user-group", "--shell", "/bin/bash"]
        args += ["--create-home"] if home else ["--no-create-home", "--home-dir", f"/nonexistent/{name}"]
        run([*args, *(["-G", ",".join(groups)] if groups else []), name])
        run(["chpasswd"], input=f"{name}:{password}")
        made.append(name)
        return name

    yield make
    for name in made:
        run(["userdel", "--remove", name], check=False)
