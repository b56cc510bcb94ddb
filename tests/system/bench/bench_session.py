#!/usr/bin/python3
"""Bench of whole sessions: how long vexaSessionRequest takes from the call to its reply, and where the
time goes, taken from the journal entries of the daemon and its session manager.

    bench_session.py [-n N] [--xserver xorg,xvfb] [--users same|fresh] [--hold S] [--pause S] [--out DIR]

Runs as root next to a running system bus and logind (the throwaway container of run-container; see
README.md here). For every X server configuration named it writes /etc/vexa/vexa_service.json (the
installed file plus "debug:level": "debug" and the X server keys), restarts vexa.service, then makes N
sessions one after the other: each is asked for with vexaSessionRequest, ended with vexaSessionShutdown,
and signalSessionShutdown is awaited before the next, so no session is ever reused.

Milestones of one request (journal __REALTIME_TIMESTAMP, microseconds, same clock as time.time()):

  call             the client's wall clock right before the call
  request          the daemon's first "vexaSessionRequest..." line after the call
  PAM done         the session manager's "runXorgDisplay: display: ..." (the PAM session is open)
  X ready          the session manager's "runSessionManager: display: N, username: U, cmd: ..."
                   (the X socket appeared, the session script was started)
  logind known     the daemon's "startSession: session id: <logind id>, display: N"
  bus up           the daemon's "startSession: session id: <sid>, display: N, dbus address: `...'"
  reply            the client's wall clock right after the reply

The total is client-side time.monotonic() around the call. When the session manager's two lines are
missing from the journal (it logs at info level only when it is told to), process start times stand in,
marked with "*" (/proc/PID/stat, 10 ms ticks: +-5 ms): for PAM done the X server's, which the session
manager starts right after that line, for X ready the session script's, started right before it.

Each session is held --hold seconds after the reply before vexaSessionShutdown (default 0.5): a shutdown
within a few milliseconds of the reply can reach the session script while it starts the program, and the
signal may then be lost (the session does not end; the bench stops that configuration and prints the
processes left). --hold 0 shows it.

Other events, read while the session runs or from the journal: the session manager's start, pam_unix's
"session opened", logind's "New session", logind's own creation time of the session (its Timestamp
property), systemd's "Started session-N.scope" (and "Started user@UID.service" for a user whose manager
was not running), the modification times of the X socket and of the bus address file (file system time
stamps: a few milliseconds of granularity).

Prints one table per configuration and writes the raw figures to OUT/bench-<config>.json.
"""

import argparse
import json
import os
import pathlib
import platform
import pwd
import re
import statistics
import subprocess
import sys
import time

import dbus
import dbus.lowlevel
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

BUS_NAME = INTERFACE = "ru.kelvo.vexa"
OBJECT_PATH = "/ru/kelvo/vexa"
UNIT = "vexa.service"
CONFIG = pathlib.Path("/etc/vexa/vexa_service.json")
LOGIN1 = "org.freedesktop.login1"
IDENTS = ("vexa_service", "vexa_session_manager")
PASSWORD = "Vexa-bench-S3ss-7qz4"
PROGRAM = {"session:path": "/usr/bin/sleep", "session:args": ["600"]}
XSESSION = "/usr/libexec/vexa/xsession.sh"
GEOMETRY = {"width": 1024, "height": 768, "depth": 24}

# The daemon's built-in Xorg arguments (used when "xvfb:args" is []), for the variant with the
# console options appended.
XORG_BUILTIN = [":%{display}", "-nolisten", "tcp", "-auth", "%{authfile}", "-config", "vexa.conf",
                "-depth", "%{depth}", "+extension", "DAMAGE", "+extension", "MIT-SHM", "+extension", "RANDR",
                "+extension", "XFIXES", "+extension", "XTEST"]
XSERVERS = {
    # the installed default: whatever the packaged file says (Xorg, dummy driver, built-in list)
    "xorg": {},
    "xorg-sharevts": {"xvfb:path": "/usr/bin/Xorg",
                      "xvfb:args": XORG_BUILTIN + ["-sharevts", "-novtswitch", "-keeptty"]},
    "xvfb": {"xvfb:path": "/usr/bin/Xvfb",
             "xvfb:args": [":%{display}", "-nolisten", "tcp", "-auth", "%{authfile}",
                           "-screen", "0", "%{width}x%{height}x%{depth}", "-I"]},
}

PHASES = [("call", "request"), ("request", "pam"), ("pam", "xready"), ("xready", "logind"),
          ("logind", "bus"), ("bus", "reply")]
LABELS = {"call": "call", "request": "request received", "pam": "PAM done", "xready": "X server ready",
          "logind": "logind known", "bus": "session bus up", "reply": "reply",
          "logind_created": "logind created the session", "xsocket": "X socket created",
          "busfile": "bus address file written", "manager_start": "session manager process started",
          "pam_unix": "pam_unix: session opened", "logind_new": "logind: New session",
          "scope_started": "systemd: Started session-N.scope", "user_manager_started": "systemd: Started user@",
          "xserver_start": "X server process started", "script_start": "session script process started"}
EVENTS = ["manager_start", "pam_unix", "logind_new", "logind_created", "scope_started", "user_manager_started",
          "xserver_start", "xsocket", "script_start", "busfile"]
# informational: an event and the line that reports it
LAGS = [("logind_created", "logind"), ("xsocket", "xready"), ("busfile", "bus")]


def log(text):
    print(text, file=sys.stderr, flush=True)


def run(argv, check=True, **kw):
    proc = subprocess.run(argv, capture_output=True, text=True, timeout=120, **kw)
    if check and proc.returncode != 0:
        raise RuntimeError(f"{argv} exited {proc.returncode}: {proc.stderr.strip()}")
    return proc


def pump():
    while GLib.MainContext.default().iteration(False):
        pass


def wait_for(predicate, timeout, what):
    end = time.monotonic() + timeout
    while True:
        pump()
        value = predicate()
        if value:
            return value
        if time.monotonic() > end:
            raise TimeoutError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.02)


def cursor():
    last = run(["journalctl", "-q", "-o", "json", "-n", "1"]).stdout.strip()
    return json.loads(last)["__CURSOR"]


def entries_after(after):
    run(["journalctl", "--sync"])
    out = run(["journalctl", "-q", "-o", "json", f"--after-cursor={after}"]).stdout
    return [json.loads(line) for line in out.splitlines() if line.strip()]


def stamp(entry):
    """Seconds (float) of the entry's __REALTIME_TIMESTAMP."""
    return int(entry["__REALTIME_TIMESTAMP"]) / 1e6


def first(entries, ident, pattern):
    regex = re.compile(pattern)
    for entry in entries:
        message = entry.get("MESSAGE")
        if entry.get("SYSLOG_IDENTIFIER") == ident and isinstance(message, str) and regex.search(message):
            return entry
    return None


class Bench:
    def __init__(self, args):
        self.args = args
        DBusGMainLoop(set_as_default=True)
        self.bus = dbus.SystemBus()
        self.shutdowns = []
        self.bus.add_signal_receiver(lambda sid: self.shutdowns.append(int(sid)), "signalSessionShutdown",
                                     INTERFACE, None, OBJECT_PATH)
        self.installed = CONFIG.read_text()
        self.users = []

    # -- the daemon ------------------------------------------------------------------------------------
    def call(self, method, signature="", *values, timeout=120):
        msg = dbus.lowlevel.MethodCallMessage(BUS_NAME, OBJECT_PATH, INTERFACE, method)
        if signature:
            msg.append(*values, signature=signature)
        return self.bus.send_message_with_reply_and_block(msg, timeout).get_args_list()[0]

    def configure(self, name):
        config = {**json.loads(self.installed), "debug:level": "debug", **XSERVERS[name]}
        tmp = CONFIG.with_name(CONFIG.name + ".bench")
        tmp.write_text(json.dumps(config, indent=4) + "\n")
        os.rename(tmp, CONFIG)
        run(["systemctl", "restart", UNIT])
        wait_for(lambda: run(["systemctl", "is-active", UNIT], check=False).stdout.strip() == "active", 30,
                 "vexa.service to be active")
        # the unit is Type=notify; the name is on the bus once it is active, but make sure
        wait_for(lambda: self.bus.name_has_owner(BUS_NAME), 30, f"{BUS_NAME} on the bus")
        return config

    def restore(self):
        CONFIG.write_text(self.installed)

    # -- users -----------------------------------------------------------------------------------------
    def make_user(self, name):
        run(["useradd", "--user-group", "--create-home", "--shell", "/bin/bash", name])
        run(["chpasswd"], input=f"{name}:{PASSWORD}")
        self.users.append(name)
        return name

    def remove_users(self):
        for name in self.users:
            run(["userdel", "--remove", "--force", name], check=False)
        self.users = []

    # -- informational events, read while the session runs -------------------------------------------
    def logind_created(self, logind_id):
        try:
            path = self.bus.call_blocking(LOGIN1, "/org/freedesktop/login1", f"{LOGIN1}.Manager", "GetSession",
                                          "s", [logind_id])
            usec = self.bus.call_blocking(LOGIN1, path, "org.freedesktop.DBus.Properties", "Get", "ss",
                                          [f"{LOGIN1}.Session", "Timestamp"])
            return int(usec) / 1e6
        except dbus.DBusException:
            return None

    @staticmethod
    def processes():
        """[(pid, ppid, uid, argv, start)] of the live processes; start is the wall clock of the process's
        start (/proc/PID/stat starttime: whole clock ticks of CLOCK_BOOTTIME, 10 ms, truncated; half a tick
        is added so that the figure is off by at most 5 ms either way)."""
        offset = time.time() - time.clock_gettime(time.CLOCK_BOOTTIME)
        tick = os.sysconf("SC_CLK_TCK")
        found = []
        for entry in pathlib.Path("/proc").iterdir():
            if not entry.name.isdigit():
                continue
            try:
                argv = [a.decode(errors="replace") for a in (entry / "cmdline").read_bytes().split(b"\0")[:-1]]
                fields = (entry / "stat").read_text().rsplit(") ", 1)[1].split()
                uid = entry.stat().st_uid
            except (OSError, IndexError):
                continue
            # fields[0] is the state (field 3 of stat); starttime is field 22
            found.append((int(entry.name), int(fields[1]), uid, argv, offset + (int(fields[19]) + 0.5) / tick))
        return found

    def tree(self, root):
        """The state of a process and its descendants, for a session that did not end."""
        procs = {p[0]: p for p in self.processes()}
        todo, seen = [root], []
        while todo:
            pid = todo.pop()
            seen.append(pid)
            todo += [p[0] for p in procs.values() if p[1] == pid]
        out = []
        for pid in seen:
            base = pathlib.Path(f"/proc/{pid}")
            try:
                lines = (base / "status").read_text().splitlines()
                status = dict(line.split(":", 1) for line in lines if ":" in line)
                out.append({"pid": pid, "argv": procs.get(pid, (0, 0, 0, []))[3],
                            "wchan": (base / "wchan").read_text(),
                            "syscall": (base / "syscall").read_text().split()[:1],
                            **{k: status.get(k, "").strip()
                               for k in ("State", "SigPnd", "ShdPnd", "SigBlk", "SigIgn", "SigCgt")}})
            except OSError:
                continue
        return out

    @staticmethod
    def mtime(path):
        try:
            return os.stat(path).st_mtime_ns / 1e9
        except OSError:
            return None

    # -- one session -----------------------------------------------------------------------------------
    def session(self, user, index):
        uid = pwd.getpwnam(user).pw_uid
        user_bus_before = pathlib.Path(f"/run/user/{uid}/bus").is_socket()
        after = cursor()
        params = json.dumps({"username": user, "password": PASSWORD, **GEOMETRY, **PROGRAM})
        wall0, mono0 = time.time(), time.monotonic()
        try:
            reply = int(self.call("vexaSessionRequest", "s", params))
        except dbus.DBusException as err:
            reply, error = None, str(err)
        else:
            error = None
        mono1, wall1 = time.monotonic(), time.time()
        record = {"index": index, "user": user, "reply": reply, "error": error, "user_bus_before": user_bus_before,
                  "total": mono1 - mono0, "t": {"call": wall0, "reply": wall1}}

        if reply is not None and reply > 0:
            sid = reply
            # events of the live session; the entries are read after it has ended
            info = json.loads(str(self.call("vexaSessionInfoJson", "u", sid)))
            record["display"] = display = int(info.get("display", 0))
            record["logind_id"] = logind_id = str(info.get("systemd:sid", ""))
            record["dbus_address"] = info.get("dbus:address", "")
            record["t"]["logind_created"] = self.logind_created(logind_id) if logind_id else None
            record["t"]["xsocket"] = self.mtime(f"/tmp/.X11-unix/X{display}")
            record["t"]["busfile"] = self.mtime(f"/run/user/{uid}/vexa/dbus_session_{sid}")
            procs = self.processes()
            xservers = [p for p in procs if p[3] and os.path.basename(p[3][0]) in ("Xorg", "Xvfb")
                        and f":{display}" in p[3]]
            scripts = [p for p in procs if p[2] == uid and XSESSION in p[3]]
            if xservers:
                record["xserver_argv"] = xservers[0][3]
                record["xserver_pid"] = xservers[0][0]
                record["t"]["xserver_start"] = xservers[0][4]
                managers = [p for p in procs if p[0] == xservers[0][1]]
                if managers:
                    record["t"]["manager_start"] = managers[0][4]
            if scripts:
                record["t"]["script_start"] = scripts[0][4]

            # the X server answers a client (checked after the reply: not part of the figures; not with
            # --hold 0, whose point is a shutdown right after the reply)
            probe = None if self.args.hold <= 0 else run(["xdpyinfo", "-display", f":{display}"], check=False,
                        env={**os.environ, "XAUTHORITY": str(info.get("xauthfile", ""))})
            if probe:
                dims = re.search(r"dimensions:\s+(\S+) pixels", probe.stdout)
                record["x_answers"] = probe.returncode == 0
                record["x_dimensions"] = dims.group(1) if dims else (probe.stderr.strip()[:200] or None)
            # a shutdown right after the reply can meet the session script while it starts the program
            time.sleep(max(0.0, self.args.hold - (time.monotonic() - mono1)))
            self.shutdowns.clear()
            manager = [p[1] for p in procs if p[0] == record.get("xserver_pid")]
            if not self.call("vexaSessionShutdown", "u", sid):
                record["error"] = "vexaSessionShutdown answered false"
            try:
                wait_for(lambda: sid in self.shutdowns, self.args.shutdown_timeout, f"signalSessionShutdown({sid})")
            except TimeoutError as err:
                record["error"] = str(err)
                record["hung"] = self.tree(manager[0]) if manager else []

        entries = entries_after(after)
        record["problems"] = [(e.get("SYSLOG_IDENTIFIER", "?"), int(e.get("PRIORITY", 6)), e.get("MESSAGE"))
                              for e in entries if int(e.get("PRIORITY", 6)) <= 4]
        self.milestones(record, entries, user)
        return record

    @staticmethod
    def milestones(record, entries, user):
        t = record["t"]
        found = {}
        found["request"] = first(entries, "vexa_service", r"^vexaSessionRequest")
        found["pam"] = first(entries, "vexa_session_manager", r"^runXorgDisplay: display: \d+,")
        display = record.get("display")
        if display is None and found["pam"]:
            display = int(re.search(r"display: (\d+)", found["pam"]["MESSAGE"]).group(1))
        if display is not None:
            found["xready"] = first(entries, "vexa_session_manager",
                                    rf"^runSessionManager: display: {display}, username: {re.escape(user)}, cmd: ")
            found["logind"] = first(entries, "vexa_service", rf"^startSession: session id: \d+, display: {display}$")
            if record["reply"] and record["reply"] > 0:
                found["bus"] = first(entries, "vexa_service",
                                     rf"^startSession: session id: {record['reply']}, display: {display}, "
                                     r"dbus address: `")
        logind_id = record.get("logind_id")
        if logind_id:
            found["pam_unix"] = first(entries, "vexa_session_manager", r"^pam_unix\([^)]*\): session opened for user ")
            found["logind_new"] = first(entries, "systemd-logind", rf"^New session {logind_id} of user ")
            found["scope_started"] = first(entries, "systemd", rf"^Started session-{logind_id}\.scope")
            found["user_manager_started"] = first(entries, "systemd", r"^Started user@\d+\.service")
        lag = []
        for key, entry in found.items():
            t[key] = stamp(entry) if entry else None
            if entry and "_SOURCE_REALTIME_TIMESTAMP" in entry:
                lag.append(int(entry["__REALTIME_TIMESTAMP"]) - int(entry["_SOURCE_REALTIME_TIMESTAMP"]))
        # how far journald's reception time lags behind the kernel's time of the datagram
        record["journald_lag_us"] = max(lag) if lag else None
        # the session manager logs "runXorgDisplay" right before it starts the X server and the
        # "runSessionManager: display" line right after it has started the session script
        record["proxy"] = []
        if t.get("pam") is None and t.get("xserver_start") is not None:
            t["pam"] = t["xserver_start"]
            record["proxy"].append("pam")
        if t.get("xready") is None and t.get("script_start") is not None:
            t["xready"] = t["script_start"]
            record["proxy"].append("xready")
        if found.get("bus"):
            record["bus_line"] = found["bus"]["MESSAGE"]

    # -- one configuration ----------------------------------------------------------------------------
    def configuration(self, name):
        log(f"== {name}: configuring and restarting {UNIT}")
        config = self.configure(name)
        start = cursor()
        records, failures_in_a_row = [], 0
        fixed = None if self.args.users == "fresh" else self.make_user(f"bench-{name[:6]}-u")
        for index in range(self.args.sessions):
            user = fixed or self.make_user(f"bench-{name[:6]}-{index:02d}")
            record = self.session(user, index)
            records.append(record)
            ok = record["reply"] is not None and record["reply"] > 0 and not record["error"]
            log(f"   {name} #{index + 1}: reply {record['reply']}, {record['total'] * 1000:.1f} ms"
                + ("" if ok else f"  FAILED {record['error'] or ''}"))
            for ident, prio, message in record["problems"]:
                log(f"      [{ident} prio {prio}] {message}")
            for proc in record.get("hung", []):
                log(f"      still there: {json.dumps(proc)}")
            if record.get("hung") is not None:
                log(f"   {name}: session {record['reply']} did not end; the next request would reuse it, stopping here")
                break
            failures_in_a_row = 0 if ok else failures_in_a_row + 1
            if failures_in_a_row >= 3:
                log(f"   {name}: three failures in a row, giving up on this configuration")
                break
            time.sleep(self.args.pause)
        window = entries_after(start)
        run(["systemctl", "stop", UNIT], check=False)
        return {"name": name, "config": {k: config.get(k) for k in ("xvfb:path", "xvfb:args", "xvfb:sock",
                                                                      "debug:level", "start:timeout",
                                                                      "display:start", "pam:service")},
                "records": records, "problems": problems_of(window)}


def problems_of(entries):
    """Warnings and errors (PRIORITY <= 4) of the whole window, grouped by source and text (numbers
    folded), with counts."""
    groups = {}
    for e in entries:
        prio = int(e.get("PRIORITY", 6))
        message = e.get("MESSAGE")
        if prio > 4 or not isinstance(message, str):
            continue
        ident = e.get("SYSLOG_IDENTIFIER") or e.get("_COMM") or "?"
        key = (ident, prio, re.sub(r"\d+", "#", message))
        groups.setdefault(key, [0, message])[0] += 1
    return [{"ident": k[0], "priority": k[1], "count": v[0], "example": v[1]} for k, v in groups.items()]


# -- the report ---------------------------------------------------------------------------------------
def ms(value):
    return f"{value * 1000:8.1f}" if value is not None else "       -"


def stats(values):
    values = [v for v in values if v is not None]
    if not values:
        return None, None, None, 0
    return statistics.median(values), min(values), max(values), len(values)


def row(label, values):
    med, lo, hi, n = stats(values)
    return f"  {label:<44} {ms(med)} {ms(lo)} {ms(hi)}   {n:>3}"


def report(result, args):
    records = result["records"]
    good = [r for r in records if r["reply"] is not None and r["reply"] > 0 and not r["error"]
            and all(r["t"].get(k) is not None for k in ("request", "pam", "xready", "logind", "bus"))]
    failed = [r for r in records if r not in good]
    lines = [f"== X server configuration: {result['name']}"]
    for key, value in result["config"].items():
        lines.append(f"   {key:<14} {json.dumps(value)}")
    lines.append(f"   session        {json.dumps(PROGRAM)}  geometry {GEOMETRY['width']}x{GEOMETRY['height']}"
                 f"x{GEOMETRY['depth']}")
    lines.append(f"   users          {args.users}; session held {args.hold} s after the reply, "
                 f"pause between sessions {args.pause} s")
    lines.append(f"   N              {len(good)} measured, {len(failed)} failed or incomplete, "
                 f"{len(records)} requested")
    if not good:
        for r in failed:
            lines.append(f"   #{r['index'] + 1}: reply {r['reply']} {r['error'] or ''}")
        return "\n".join(lines)

    proxied = {k for r in good for k in r.get("proxy", [])}
    star = {k: (" *" if k in proxied else "") for k in LABELS}
    lines.append(f"  {'phase (ms)':<44} {'median':>8} {'min':>8} {'max':>8}   {'n':>3}")
    for a, b in PHASES:
        lines.append(row(f"{LABELS[a]}{star[a]} -> {LABELS[b]}{star[b]}", [r["t"][b] - r["t"][a] for r in good]))
    lines.append(row("total (client, monotonic)", [r["total"] for r in good]))
    lines.append("  milestones, from the call (ms)")
    for key in ("request", "pam", "xready", "logind", "bus", "reply"):
        lines.append(row(f"  {LABELS[key]}{star[key]}", [r["t"][key] - r["t"]["call"] for r in good]))
    lines.append("  other events, from the call (ms)")
    for key in EVENTS:
        values = [r["t"][key] - r["t"]["call"] if r["t"].get(key) else None for r in good]
        if any(v is not None for v in values):
            lines.append(row(f"  {LABELS[key]}", values))
    lines.append("  event -> the line that reports it (ms)")
    for event, line in LAGS:
        lines.append(row(f"  {LABELS[event]} -> {LABELS[line]}{star[line]}",
                         [r["t"][line] - r["t"][event] if r["t"].get(event) else None for r in good]))
    if proxied:
        lines.append("   * not in the journal: the session manager wrote no line for it; stands in:")
        if "pam" in proxied:
            lines.append("     PAM done = start of the X server process (the line comes right before it), "
                         "10 ms ticks, +-5 ms")
        if "xready" in proxied:
            lines.append("     X server ready = start of the session script process (the line comes right after it), "
                         "10 ms ticks, +-5 ms")
    answered = [r for r in good if r.get("x_answers")]
    if any("x_answers" in r for r in good):
        lines.append(f"   X server answered xdpyinfo after the reply: {len(answered)} of {len(good)}; screens: "
                     f"{', '.join(sorted({str(r.get('x_dimensions')) for r in good}))}")
    argvs = {json.dumps(r.get("xserver_argv")) for r in good if r.get("xserver_argv")}
    for argv in argvs:
        lines.append(f"   X server as run: {' '.join(json.loads(argv))}")
    own = sum(1 for r in good if "/run/user/" in r.get("dbus_address", "") and r["dbus_address"].endswith("/bus"))
    lines.append(f"   session bus: the user manager's bus {own}, a dbus-daemon of the session {len(good) - own}; "
                 f"user bus present before the call: {sum(r['user_bus_before'] for r in good)}")
    order = {}
    for r in good:
        seq = " < ".join(k for k, _ in sorted(((k, r["t"][k]) for k in ("pam", "xready", "logind", "bus")),
                                             key=lambda kv: kv[1]))
        order[seq] = order.get(seq, 0) + 1
    for seq, count in order.items():
        lines.append(f"   journal order {seq}: {count}")
    lags = [r["journald_lag_us"] for r in good if r["journald_lag_us"] is not None]
    if lags:
        lines.append(f"   journald reception lag (__REALTIME - _SOURCE_REALTIME): max {max(lags)} us")
    sums = [abs((r["t"]["reply"] - r["t"]["call"]) - r["total"]) for r in good]
    lines.append(f"   wall clock vs monotonic total: max difference {max(sums) * 1e6:.0f} us")
    for r in failed:
        lines.append(f"   #{r['index'] + 1} not measured: reply {r['reply']} {r['error'] or ''}")
        for proc in r.get("hung", []):
            lines.append(f"     still there: pid {proc['pid']} {proc['State']} wchan {proc['wchan']} "
                         f"syscall {' '.join(proc['syscall'])} SigPnd {proc['SigPnd']} ShdPnd {proc['ShdPnd']} "
                         f"SigCgt {proc['SigCgt']}: {' '.join(proc['argv'])}")
    lines.append("   warnings and errors in the journal during the runs (PRIORITY <= 4):")
    if not result["problems"]:
        lines.append("     none")
    for p in sorted(result["problems"], key=lambda p: (p["ident"], -p["count"])):
        lines.append(f"     {p['count']:>3} x [{p['ident']} prio {p['priority']}] {p['example']}")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("-n", "--sessions", type=int, default=12, help="sessions per configuration (default 12)")
    parser.add_argument("--xserver", default="xorg,xvfb",
                        help=f"comma-separated configurations among {', '.join(XSERVERS)} (default xorg,xvfb)")
    parser.add_argument("--users", choices=("same", "fresh"), default="same",
                        help="one test user for all sessions of a configuration, or a new one per session")
    parser.add_argument("--pause", type=float, default=0.5, help="seconds between a shutdown and the next request")
    parser.add_argument("--hold", type=float, default=0.5,
                        help="seconds from the reply to vexaSessionShutdown (default 0.5; 0 ends the session at once "
                             "and skips the xdpyinfo check of the X server)")
    parser.add_argument("--shutdown-timeout", type=float, default=30,
                        help="seconds to wait for signalSessionShutdown (default 30)")
    parser.add_argument("--out", default="/e2e/out", help="directory of the raw figures (bench-<config>.json)")
    args = parser.parse_args()
    names = [n for n in args.xserver.split(",") if n]
    unknown = [n for n in names if n not in XSERVERS]
    if unknown or not names:
        parser.error(f"unknown X server configuration: {', '.join(unknown) or '(none)'}")
    if args.sessions < 1:
        parser.error("-n wants at least 1")

    bench = Bench(args)
    results = []
    try:
        for name in names:
            result = bench.configuration(name)
            results.append(result)
            out = pathlib.Path(args.out)
            if out.is_dir():
                (out / f"bench-{name}.json").write_text(json.dumps(result, indent=1))
    finally:
        bench.remove_users()
        bench.restore()

    print(f"vexa_service session bench: kernel {platform.release()}, {os.cpu_count()} CPUs, "
          f"{run(['systemctl', '--version']).stdout.splitlines()[0]}")
    print("times: journal __REALTIME_TIMESTAMP of the lines, client wall clock for call and reply\n")
    for result in results:
        print(report(result, args))
        print()
    measured = all(any(r["reply"] and r["reply"] > 0 and not r["error"] for r in res["records"]) for res in results)
    return 0 if measured else 1


if __name__ == "__main__":
    sys.exit(main())
