"""Fixtures of the system tier: the real vexa.service under the container's systemd."""

import contextlib
import json
import os
import pathlib
import pwd
import signal
import subprocess
import time
import uuid

import dbus
import dbus.bus
import dbus.lowlevel
import pytest
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

import journal_secrets

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
XVFB = {"xvfb:path": "/usr/bin/Xvfb",
        "xvfb:args": [":%{display}", "-nolisten", "tcp", "-auth", "%{authfile}",
                      "-screen", "0", "%{width}x%{height}x%{depth}", "-I"]}
PASSWORD = "Vexa-e2e-S3ss-4kq9"
WRONG = "Wrong-e2e-9x"
# E2E_TRACE=1 (run-container --trace): every daemon of the tier logs at trace level, and when the tier ends its
# journal is scanned for every secret the tests handed the daemon or the daemon made (LEDGER).
TRACE = os.environ.get("E2E_TRACE") == "1"
LEVEL = "trace" if TRACE else "debug"
LEDGER = journal_secrets.Ledger(PASSWORD, WRONG)
PROGRAM = {"session:path": "/usr/bin/sleep", "session:args": ["4242"]}

# A process of the test that writes "SIGTERM <pid>" when it gets one and ends; without arguments it writes
# "ready <pid>". A transport (arguments: session id, the process to register: "self", "child" for a child it forks,
# which keeps the handler, or a pid; the address) registers over the system bus as the RDP transports do, then
# writes "answered <pid> <own bus name>". Every line is one write: a transport and its child share the file.
TRANSPORT = r"""
import os, signal, sys
def say(*words):
    os.write(1, " ".join(map(str, words)).encode() + b"\n")
def stop(*_):
    say("SIGTERM", os.getpid())
    os._exit(0)
signal.signal(signal.SIGTERM, stop)
if len(sys.argv) == 1:
    say("ready", os.getpid())
elif pid := os.getpid() if sys.argv[2] == "self" else os.fork() if sys.argv[2] == "child" else int(sys.argv[2]):
    import dbus
    bus = dbus.SystemBus()
    bus.call_blocking("ru.kelvo.vexa", "/ru/kelvo/vexa", "ru.kelvo.vexa", "proxySessionConnected", "uus",
                      (int(sys.argv[1]), pid, sys.argv[3]))
    say("answered", pid, bus.get_unique_name())
while True:
    signal.pause()
"""


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


def dispatch(predicate, timeout, what):
    """Runs the main loop until `predicate` holds, handling each message as soon as it arrives."""
    end, wake = time.monotonic() + timeout, GLib.timeout_add(100, lambda: True)  # looks again without messages
    try:
        while not predicate():
            assert time.monotonic() < end, f"timed out after {timeout} s waiting for {what}"
            GLib.MainContext.default().iteration(True)
    finally:
        GLib.source_remove(wake)


def wait_line(after, message, pid=None):
    return wait_for(lambda: journal(after, pid, message), what=f"journal line {message!r}")


def assert_level(entry, level):
    """Logged through the daemon's logger (whose functions are named after the levels) at that level."""
    fields = [entry.get(k) for k in ("PRIORITY", "CODE_FILE", "CODE_FUNC")]
    assert fields == [str(LEVELS.index(level)), "src/common/logger.h", level], entry["MESSAGE"]


def processes(uid=None, name=None):
    """{pid: argv} of the live processes, optionally of one owner and one program name. The user's
    systemd manager (user@UID.service) is not a process of any session: logind stops it on its own,
    some seconds after the user's last session."""
    found = {}
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        try:
            argv = (entry / "cmdline").read_bytes().split(b"\0")[:-1]
            state = (entry / "stat").read_text().rsplit(") ", 1)[1][0]
            owner = entry.stat().st_uid
            cgroup = (entry / "cgroup").read_text()
        except (FileNotFoundError, ProcessLookupError, IndexError):
            continue
        if state == "Z" or not argv or "/user@" in cgroup:
            continue
        if uid in (None, owner) and name in (None, os.path.basename(argv[0].decode())):
            found[int(entry.name)] = [a.decode() for a in argv]
    return found


def x_servers(display):
    return {pid: argv for pid, argv in processes(0).items()
            if os.path.basename(argv[0]) in ("Xvfb", "Xorg") and f":{display}" in argv}


def connects(info):
    """(address, pid) of the transports in a session's report."""
    return [(c["remoteaddr"], c["pid"]) for c in info["remote:connects"]]


def ended(uid, display):
    return not processes(uid) and not x_servers(display)


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


class Sessions:
    """The running daemon, its signals and the sessions a test asked for."""

    def __init__(self, svc, bus):
        self.svc, self.signals = svc, []
        # from this daemon only: those of the one before may still wait to be dispatched
        self.matches = [bus.add_signal_receiver(
            lambda *args, member=None: self.signals.append((str(member), [int(a) if isinstance(a, int) else str(a)
                                                                           for a in args])),
            None, INTERFACE, bus.get_name_owner(BUS_NAME), member_keyword="member")]

    def request(self, **params):
        return int(self.svc.value("vexaSessionRequest", "s", json.dumps(params)))

    def new_session(self, new_user, name, **params):
        """A session of a new user (`params`, else PROGRAM): (user, uid, session id, report)."""
        user, uid = new_user(name)
        sid = self.request(username=user, password=PASSWORD, **(params or PROGRAM))
        assert sid > 0
        return user, uid, sid, self.info(sid)

    def signal(self, name, *args):
        return wait_for(lambda: [s for s in self.signals if s[0] == name and s[1][:len(args)] == list(args)],
                        timeout=15, what=f"{name}{args}")

    def info(self, sid):
        return json.loads(str(self.svc.value("vexaSessionInfoJson", "u", sid)))

    def listed(self):
        return {(str(user), int(sid)) for user, sid in self.svc.value("vexaSessions")}


class Calls:
    """Asynchronous calls of the daemon on one connection: the replies (or D-Bus errors) by name, their order of
    arrival, and the ms from the first call to each."""

    def __init__(self, bus):
        self.bus, self.replies, self.order, self.ms, self.begin = bus, {}, [], {}, None

    def call(self, name, method, signature, *args):
        def done(value=None):
            self.replies[name], self.ms[name] = value, (time.monotonic() - self.begin) * 1000
            self.order.append(name)

        self.begin = self.begin or time.monotonic()
        self.bus.call_async(BUS_NAME, OBJECT_PATH, INTERFACE, method, signature, args, done, done, timeout=300)

    def request(self, name, **params):
        self.call(name, "vexaSessionRequest", "s", json.dumps(params))

    def wait(self, *names, timeout=60):
        dispatch(lambda: all(n in self.replies for n in names), timeout, f"replies of {names}")
        return [self.replies[n] for n in names]


class Proc:
    """A process of the test; what it writes goes to a file of its own."""

    def __init__(self, argv, log, **kw):
        self.log = log
        with open(log, "wb") as out:
            self.popen = subprocess.Popen(argv, stdout=out, stderr=subprocess.STDOUT, start_new_session=True, **kw)
        self.pid = self.popen.pid

    def lines(self):
        """Its whole lines so far, split into words."""
        self.popen.poll()  # reaps it once it has ended: a zombie still counts as running
        text = self.log.read_text()
        return [line.split() for line in text[:text.rfind("\n") + 1].splitlines()]

    def wait(self, predicate, what):
        try:
            return wait_for(predicate, 15, f"{what} from process {self.pid}")
        except AssertionError as e:
            raise AssertionError(f"{e}; it wrote: {self.log.read_text()!r}") from None

    def said(self, word):
        """The words after `word` on the first line that begins with it, once there is one."""
        return self.wait(lambda: next((line[1:] for line in self.lines() if line[:1] == [word]), None), repr(word))

    def terminated(self):
        """The pids (its own, or its child's) for which it wrote down a SIGTERM."""
        return [int(line[1]) for line in self.lines() if line[:1] == ["SIGTERM"]]

    def wait_terminated(self, pid=None):
        """Waits for the SIGTERM of itself, or of the child `pid`."""
        self.wait(lambda: (pid or self.pid) in self.terminated(), f"SIGTERM to {pid or self.pid}")

    def kill(self):
        """Kills it from outside and reaps it, so that its pid is free at once."""
        os.kill(self.pid, signal.SIGKILL)
        self.popen.wait()


class Procs:
    """Processes of one test, with their logs in `directory`; stop() kills them and what they started."""

    def __init__(self, directory):
        self.directory, self.started = pathlib.Path(directory), []

    def start(self, argv, user=None, **kw):
        self.started.append(Proc(as_user(user, *argv) if user else argv, self.directory / f"{len(self.started)}.log",
                                 **kw))
        return self.started[-1]

    def recorder(self, user=None):
        proc = self.start(["/usr/bin/python3", "-c", TRANSPORT], user)
        proc.said("ready")
        return proc

    def transport(self, sid, addr, target="self", user=None):
        """A transport that has made its call; `registered` is the pid it named."""
        proc = self.start(["/usr/bin/python3", "-c", TRANSPORT, str(sid), target, addr], user)
        proc.addr = addr
        pid, proc.bus_name = proc.said("answered")
        proc.registered = int(pid)
        return proc

    def stop(self):
        for proc in self.started:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(proc.pid, signal.SIGKILL)
            proc.popen.wait()


def system_bus():
    """A connection of its own to the system bus, subscribed to systemd's unit changes (it announces them only to
    subscribers)."""
    conn = dbus.bus.BusConnection(dbus.bus.BusConnection.TYPE_SYSTEM)
    conn.set_exit_on_disconnect(False)  # a test that restarts the bus goes on with a new connection
    conn.call_blocking(SYSTEMD, "/org/freedesktop/systemd1", f"{SYSTEMD}.Manager", "Subscribe", "", [])
    return conn


BUS = []


@pytest.fixture
def bus():
    """The tests' connection, made again when a test restarted the bus."""
    if not BUS or not BUS[0].get_is_connected():
        BUS[:] = [system_bus()]
    return BUS[0]


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
        LEDGER.account(name, password)
        made.append(name)
        return name

    yield make
    for name in made:
        run(["userdel", "--remove", name], check=False)


@pytest.fixture
def new_user(make_user):
    """(name, uid) of a fresh account with the test password."""
    return lambda name: (name, pwd.getpwnam(make_user(name, PASSWORD)).pw_uid)


@pytest.fixture
def daemon(service, bus, files):
    """daemon(**keys) starts the service with Xvfb sessions and the given configuration keys."""
    started = []

    def start(**keys):
        files.write(CONFIG, {**json.loads(pathlib.Path(CONFIG).read_text()), **XVFB, "debug:level": LEVEL, **keys})
        service.start()
        started.append(Sessions(service, bus))
        return started[-1]

    yield start
    for keeper in started:
        for match in keeper.matches:
            match.remove()


@pytest.fixture
def sessions(daemon):
    return daemon()


@pytest.fixture
def procs(service, tmp_path):
    """Processes of one test; killed before the daemon stops."""
    keeper = Procs(tmp_path)
    yield keeper
    keeper.stop()


def pytest_sessionstart(session):
    if TRACE:
        LEDGER.watch()


def pytest_sessionfinish(session):
    if not TRACE:
        return
    LEDGER.stop()
    secrets = LEDGER.secrets()
    entries = [json.loads(line) for line in
               run(["journalctl", "-q", "-b", "-o", "json", "--output-fields=MESSAGE,SYSLOG_IDENTIFIER"]).stdout.splitlines()]
    found = journal_secrets.leaks(secrets, entries)
    counts = {kind: sum(k == kind for k, _ in secrets) for kind in sorted({k for k, _ in secrets})}
    session.config.secret_scan = [f"secret scan: {len(entries)} journal entries at trace level, secrets: " +
                                  ", ".join(f"{n} {kind}" for kind, n in counts.items())]
    session.config.secret_scan += [f"LEAK {kind} {secret} by {ident}: {message}" for kind, secret, ident, message in found]
    if found or not counts.get("cookie"):
        session.config.secret_scan += [] if found else ["the scan saw no X cookie: the tier started no session"]
        session.exitstatus = 1


def pytest_terminal_summary(terminalreporter, config):
    for line in getattr(config, "secret_scan", []):
        terminalreporter.write_line(line)
