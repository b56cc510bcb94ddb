#!/usr/bin/python3
"""Session starts and the daemon's own costs, measured against the real vexa.service in the container of
run-container: tables for each X server configuration and section (README.md beside this file); asserts nothing."""

import argparse
import json
import multiprocessing
import os
import pathlib
import random
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time

import dbus

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests" / "system"))
from conftest import (BUS_NAME, CONFIG, INTERFACE, OBJECT_PATH, XVFB, Calls, Procs, Service, cursor,  # noqa: E402
                      dispatch, journal, run, wait_for)

XSERVERS = {"xorg": {}, "xvfb": XVFB}  # xorg: the installed default, Xorg with the dummy driver
SECTIONS = ["sequential", "concurrent", "status", "wrongpass", "disconnect", "resize", "idle", "many", "cycles",
            "restart"]
PASSWORD = "Vexa-bench-P4ss"
CONCURRENT, WRONG = 6, 3
# milestone: (SYSLOG_IDENTIFIER, pattern of MESSAGE); the first match after the call counts
MILESTONES = {
    "request received": ("vexa_service", r"vexaSessionRequest: "),
    "PAM done": ("vexa_session_manager", r"runXorgDisplay: display: "),
    "logind known": ("vexa_service", r"startSession: session id: \d+, display: \d+$"),
    "X server ready": ("vexa_session_manager", r"runSessionManager: display: \d+, username: "),
    "session bus up": ("vexa_service", r"startSession: session id: \d+, display: \d+, dbus address: "),
}


def user(number):
    return f"vexa-bench-{number:03d}"


def request(name, password=PASSWORD):
    return {"username": name, "password": password, "width": 1024, "height": 768,
            "session:path": "/usr/bin/sleep", "session:args": ["600"]}


def pct(values, p):
    """The p-th percentile, linear between the closest ranks."""
    ranked = sorted(values)
    k = (len(ranked) - 1) * p / 100
    i = int(k)
    return ranked[i] + (ranked[min(i + 1, len(ranked) - 1)] - ranked[i]) * (k - i)


def table(title, columns, rows):
    """Prints a title and a table, each column as wide as its widest cell; floats with one decimal."""
    cells = [[f"{v:.1f}" if isinstance(v, float) else str(v) for v in row] for row in [columns, *rows]]
    widths = [max(len(row[i]) for row in cells) for i in range(len(columns))]
    print(f"\n{title}", *("  " + "  ".join(c.rjust(w) for c, w in zip(row, widths)) for row in cells), sep="\n")


def start(svc, name):
    """Starts a session and waits for the reply: (session id, ms)."""
    begin = time.monotonic()
    sid = int(svc.value("vexaSessionRequest", "s", json.dumps(request(name))))
    if sid <= 0:
        raise RuntimeError(f"vexaSessionRequest for {name} answered {sid}")
    return sid, (time.monotonic() - begin) * 1000


def end(svc, sids, timeout=60):
    """Ends sessions and waits until none is listed: ms from the first shutdown request."""
    begin = time.monotonic()
    for sid in sids:
        svc.call("vexaSessionShutdown", "u", sid)
    wait_for(lambda: not svc.value("vexaSessions"), timeout=timeout, what=f"sessions {sorted(sids)} to end")
    return (time.monotonic() - begin) * 1000


def at_once(svc, requests):
    """Sends [(user, password)] as asynchronous calls one right after the other and waits for every reply:
    {user: (ms from the first call, reply)}; an error reply is its D-Bus error name."""
    calls = Calls(svc.bus)
    for name, password in requests:
        calls.request(name, **request(name, password))
    replies = calls.wait(*(name for name, _ in requests), timeout=300)
    return {name: (calls.ms[name], int(value) if isinstance(value, int) else value.get_dbus_name())
            for (name, _), value in zip(requests, replies)}


def session_ids(replies):
    return [value for _, value in replies if isinstance(value, int) and value > 0]


def proc_status(path):
    """The fields of a /proc status file: {name: text}."""
    return {key: value.strip() for key, _, value in
            (line.partition(":") for line in pathlib.Path(path).read_text().splitlines())}


def footprint(pid):
    """(threads, VmRSS in kB) of a process."""
    fields = proc_status(f"/proc/{pid}/status")
    return int(fields["Threads"]), int(fields["VmRSS"].split()[0])


def switches(pid):
    """{tid: (name, voluntary, nonvoluntary)} of a process's threads; a thread that ends while read is left out."""
    found = {}
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        try:
            fields = proc_status(task / "status")
        except OSError:
            continue
        found[int(task.name)] = (fields["Name"], int(fields["voluntary_ctxt_switches"]),
                                 int(fields["nonvoluntary_ctxt_switches"]))
    return found


def milestones(after):
    """{milestone: journal time (s)} of the entries after a cursor (__REALTIME_TIMESTAMP, time.time()'s clock)."""
    found = {}
    for entry in journal(after, idents=("vexa_service", "vexa_session_manager")):
        for name, (ident, pattern) in MILESTONES.items():
            if name not in found and entry["SYSLOG_IDENTIFIER"] == ident and re.match(pattern, entry["MESSAGE"]):
                found[name] = int(entry["__REALTIME_TIMESTAMP"]) / 1e6
    return found


def sample_status(stop, pipe):
    """In a process of its own (blocking calls of dbus-python from threads are not reliable): calls vexaStatus
    every 10 ms (at once when a call took longer) on its own connection until `stop` is set; sends None after the
    first call, then [(monotonic start, ms)]."""
    bus, samples = dbus.SystemBus(), []
    while not stop.is_set():
        begin = time.monotonic()
        bus.call_blocking(BUS_NAME, OBJECT_PATH, INTERFACE, "vexaStatus", "", (), timeout=300)
        samples.append((begin, (time.monotonic() - begin) * 1000))
        if len(samples) == 1:
            pipe.send(None)
        time.sleep(max(0.0, begin + 0.010 - time.monotonic()))
    pipe.send(samples)


class Bench:
    """The sections against one running daemon; each prints its tables."""

    def __init__(self, svc, args):
        self.svc, self.args, self.took = svc, args, {}

    def sequential(self):
        results = []
        for _ in range(self.args.sessions):
            after, called = cursor(), time.time()
            sid, _ = start(self.svc, user(1))
            replied = time.time()
            time.sleep(self.args.hold)
            end(self.svc, [sid])
            points = {name: (at - called) * 1000 for name, at in milestones(after).items()}
            results.append({"call": 0.0, **points, "reply": (replied - called) * 1000})
        # The milestones in the order they happen (the daemon's logind and X waits overlap).
        at = {name: [r[name] for r in results if name in r] for name in [*MILESTONES, "reply"]}
        order = ["call", *sorted((name for name in at if at[name]), key=lambda name: pct(at[name], 50))]
        rows = []
        for previous, name in zip(order, order[1:]):
            spans = [r[name] - r[previous] for r in results if name in r and previous in r]
            rows.append([name, *(f for values in (at[name], spans) for f in (pct(values, 50), pct(values, 90),
                                                                              max(values)))])
        table(f"sequential: {len(results)} sessions of {user(1)}, ms from the call and of the phase since the "
              "milestone above", ["milestone", "p50", "p90", "max", "phase p50", "phase p90", "phase max"], rows)

    def concurrent(self):
        # Twice: first while the users' systemd managers still have to start (a user's first session waits for
        # its manager), then again while they run.
        for label in ("first sessions", "again"):
            names = [user(i) for i in range(1, CONCURRENT + 1)]
            sampler = StatusSampler() if "status" in self.args.only else None
            begin = time.monotonic()
            replies = at_once(self.svc, [(name, PASSWORD) for name in names])
            wall = (time.monotonic() - begin) * 1000
            samples = sampler.samples() if sampler else []
            ended = end(self.svc, session_ids(replies.values()), timeout=120)
            table(f"concurrent ({label}): {len(names)} users request a session at the same moment; wall time "
                  f"{wall:.1f} ms, all ended {ended:.1f} ms after the shutdown requests",
                  ["user", "reply ms", "reply"], [[name, *replies[name]] for name in names])
            if sampler:
                # the calls that were in flight at some time between the first request and the last reply
                during = [ms for at, ms in samples if at <= begin + wall / 1000 and at + ms / 1000 >= begin]
                table(f"status ({label}): vexaStatus every 10 ms from a process of its own, the calls in flight "
                      f"during the {wall:.0f} ms of the concurrent starts: {len(during)} samples (all {len(samples)})",
                      ["p50 ms", "p99 ms", "max ms"], [[pct(during, 50), pct(during, 99), max(during)]])

    def wrongpass(self):
        alone, = at_once(self.svc, [(user(1), PASSWORD)]).values()
        end(self.svc, session_ids([alone]))
        wrong = [user(i) for i in range(2, WRONG + 2)]
        replies = at_once(self.svc, [*((name, "wrong-" + PASSWORD) for name in wrong), (user(1), PASSWORD)])
        end(self.svc, session_ids(replies.values()))
        table(f"wrongpass: a correct start alone, then one sent right behind {WRONG} wrong passwords; ms from the "
              "first call", ["request", "user", "reply ms", "reply"],
              [["correct, alone", user(1), *alone], *(["wrong password", name, *replies[name]] for name in wrong),
               ["correct, behind the wrong", user(1), *replies[user(1)]]])

    def disconnect(self):
        sid, _ = start(self.svc, user(1))
        arrived, procs = {}, Procs(tempfile.mkdtemp(prefix="bench-transports-"))

        def heard(session, pid, _addr):
            if int(session) == sid:
                arrived[int(pid)] = time.monotonic()

        match = self.svc.bus.add_signal_receiver(heard, "signalSessionDisconnected", INTERFACE)
        # The daemon looks for dead transports every 750 ms. A kill right after the previous signal would come at
        # the same point of that period every time; a pause of a random part of it spreads the kills over it.
        pauses, delays = random.Random(750), []
        try:
            for n in range(self.args.disconnects):
                transport = procs.transport(sid, f"198.51.100.{n + 1}")
                time.sleep(pauses.uniform(0, 0.75))
                killed = time.monotonic()
                transport.kill()  # and reaped at once
                dispatch(lambda: transport.pid in arrived, 10, f"signalSessionDisconnected of transport {n + 1}")
                delays.append((arrived[transport.pid] - killed) * 1000)
        finally:
            match.remove()
            procs.stop()
        end(self.svc, [sid])
        table(f"disconnect: {len(delays)} transports of one session, each registered and then killed (SIGKILL); "
              "ms from the kill to signalSessionDisconnected; each: " + " ".join(f"{ms:.0f}" for ms in delays),
              ["median", "min", "max"], [[statistics.median(delays), min(delays), max(delays)]])

    def resize(self):
        # Sizes within the session's 1024x768, so that Xvfb (which cannot grow) takes them too: sizes the server has
        # a mode for after the first use, and sizes that need a new mode from cvt every time.
        sid, _ = start(self.svc, user(1))
        display = int(json.loads(str(self.svc.value("vexaSessionInfoJson", "u", sid)))["display"])
        rows = []
        for kind, sizes in (("known mode", [(800, 600), (1024, 768)] * self.args.resizes),
                            ("new mode", [(1000 - 8 * n, 700 - 4 * n) for n in range(self.args.resizes)])):
            spans = []
            for width, height in sizes[:self.args.resizes]:
                called = time.monotonic()
                if not self.svc.value("vexaDisplayResize", "uqq", display, width, height):
                    raise RuntimeError(f"resize: {width}x{height} refused")
                spans.append((time.monotonic() - called) * 1000)
            rows.append([kind, len(spans), statistics.median(spans), min(spans), max(spans)])
        end(self.svc, [sid])
        table("resize: vexaDisplayResize of one session's display, ms from the call to the reply (sent once the X "
              "server reports the new size)", ["sizes", "calls", "median", "min", "max"], rows)

    def idle(self):
        if self.svc.value("vexaSessions"):
            raise RuntimeError("idle: sessions are still listed")
        time.sleep(2)  # the workers of sessions that ended before finish their tear-down
        pid = self.svc.pid
        first = switches(pid)
        seen, begin = dict(first), time.monotonic()
        # Read every second, so that a thread that ends counts up to its last reading.
        while (left := begin + self.args.idle_seconds - time.monotonic()) > 0:
            time.sleep(min(1.0, left))
            last = switches(pid)
            seen.update(last)
        elapsed, rows, total = time.monotonic() - begin, [], [0.0, 0.0]
        for tid, (name, voluntary, involuntary) in sorted(seen.items()):
            _, voluntary0, involuntary0 = first.get(tid, (name, 0, 0))
            rates = [(voluntary - voluntary0) / elapsed, (involuntary - involuntary0) / elapsed]
            total = [a + b for a, b in zip(total, rates)]
            rows.append([tid, name, *(f"{rate:.2f}" for rate in rates),
                         "" if tid in first and tid in last else "ended" if tid in first else "new"])
        table(f"idle: {elapsed:.1f} s with no session, pid {pid}, {len(first)} threads at the start, {len(last)} at "
              f"the end; context switches per second, in all {sum(total):.2f} wakeups/s",
              ["tid", "name", "voluntary", "involuntary", ""], [*rows, ["all", "", *(f"{t:.2f}" for t in total), ""]])

    def many(self):
        count, pid = self.args.many, self.svc.pid
        before = footprint(pid)
        sids, times = zip(*(start(self.svc, user(i)) for i in range(1, count + 1)))
        live, listed = footprint(pid), len(self.svc.value("vexaSessions"))
        ended = end(self.svc, sids, timeout=600)
        tenths = [(k * count // 10 + 1, times[k * count // 10:(k + 1) * count // 10]) for k in range(10)]
        table(f"many: {count} sessions of {count} users started one after the other; ms per tenth of the run",
              ["starts", "mean", "median"], [[f"{first}-{first + len(chunk) - 1}", statistics.mean(chunk),
                                              statistics.median(chunk)] for first, chunk in tenths if chunk])
        table(f"many: the daemon; VmRSS growth per live session {(live[1] - before[1]) / count:.1f} kB; all ended "
              f"{ended / 1000:.1f} s after the shutdown requests", ["daemon", "threads", "VmRSS kB"],
              [["before", *before], [f"{count} live ({listed} listed)", *live], ["all ended", *footprint(pid)]])

    def cycles(self):
        count, pid, step = self.args.cycles, self.svc.pid, 20
        rows, times = [[0, *footprint(pid), ""]], []
        for cycle in range(1, count + 1):
            sid, ms = start(self.svc, user(1))
            end(self.svc, [sid])
            times.append(ms)
            if cycle % step == 0 or cycle == count:
                rows.append([cycle, *footprint(pid), statistics.median(times[rows[-1][0]:])])
        rss = {cycle: kb for cycle, _, kb, _ in rows}
        growth = f"{(rss[count] - rss[0]) / count:.2f} kB/cycle over all {count}"
        if count > step:
            growth += f", {(rss[count] - rss[step]) / (count - step):.2f} kB/cycle after the first {step}"
        table(f"cycles: {count} start/stop cycles of {user(1)}'s session; VmRSS growth: {growth}",
              ["cycles", "threads", "VmRSS kB", "start median ms"], rows)

    def restart(self):
        """--many live sessions; the daemon restarted under them (systemctl restart, then SIGKILL and systemd's
        restart): until the new daemon lists them all, what the bus answers meanwhile, and what changed for them."""
        count = self.args.many
        sids = [start(self.svc, user(i))[0] for i in range(1, count + 1)]
        listed = sorted(int(sid) for _, sid in self.svc.value("vexaSessions"))
        managers = sorted(json.loads(str(self.svc.value("vexaSessionInfoJson", "u", sid)))["pid2"] for sid in sids)
        rows = []
        for how in ("systemctl restart", "SIGKILL"):
            old, after = self.svc.pid, cursor()
            began = time.monotonic()
            if how == "SIGKILL":
                os.kill(old, signal.SIGKILL)
                restarter = None
            else:
                restarter = subprocess.Popen(["systemctl", "restart", "vexa.service"])
            refused, first_refused, answered, errors = 0, None, None, set()
            while answered is None:
                try:
                    got = sorted(int(sid) for _, sid in self.svc.value("vexaSessions"))
                    pid = int(self.svc.prop("MainPID", "Service"))
                except dbus.exceptions.DBusException as e:
                    refused += 1
                    errors.add(e.get_dbus_name().rsplit(".", 1)[-1])
                    first_refused = first_refused or time.monotonic()
                    got = pid = None
                if got == listed and pid not in (None, 0, old):
                    answered = time.monotonic()
                elif time.monotonic() - began > 120:
                    raise RuntimeError(f"{how}: the sessions were not listed again within 120 s")
                else:
                    time.sleep(0.005)
            if restarter:
                restarter.wait()
            self.svc.pid = int(self.svc.prop("MainPID", "Service"))
            lines = journal(after, self.svc.pid)
            stamp = lambda e: int(e["__REALTIME_TIMESTAMP"]) / 1e6  # noqa: E731
            adopted = [stamp(e) for e in lines if e["MESSAGE"].startswith("adoptSessions: session adopted")]
            ready = next(stamp(e) for e in lines if e["MESSAGE"].startswith("start: started"))
            # the start time counts clock ticks since boot: its age on the boot clock, set against the wall clock
            ticks = int(pathlib.Path(f"/proc/{self.svc.pid}/stat").read_text().rsplit(")", 1)[1].split()[19])
            exec_at = time.time() - (time.clock_gettime(time.CLOCK_BOOTTIME) - ticks / os.sysconf("SC_CLK_TCK"))
            now = sorted(json.loads(str(self.svc.value("vexaSessionInfoJson", "u", sid)))["pid2"] for sid in sids)
            rows.append([how, (answered - began) * 1000, (ready - exec_at) * 1000,
                         (adopted[-1] - adopted[0]) * 1000 if adopted else 0.0, len(adopted),
                         (answered - first_refused) * 1000 if first_refused else 0.0, refused,
                         ",".join(sorted(errors)) or "-", "same" if now == managers else "CHANGED"])
        table(f"restart: {count} live sessions; ms from the restart (or the kill) until vexaSessions lists all again; "
              "the new daemon's process start to its \"started\" line (start-up with the records read and checked, "
              "exec at clock-tick resolution); first to last \"session adopted\" line; ms from the first refused call "
              "to the full answer, calls refused meanwhile (every 5 ms) and their errors, session managers",
              ["how", "until listed", "exec to started", "adoption", "adopted", "refused window", "refused",
               "errors", "managers"], rows)
        end(self.svc, sids, timeout=600)

    def run(self):
        # The status samples are taken during the concurrent starts: either name runs those.
        for section in dict.fromkeys({"status": "concurrent"}.get(s, s) for s in SECTIONS if s in self.args.only):
            began = time.monotonic()
            getattr(self, section)()
            self.took[section] = time.monotonic() - began
            print(f"  ({section} took {self.took[section]:.1f} s)")
            if section != "restart" and int(self.svc.prop("MainPID", "Service")) != self.svc.pid:
                raise RuntimeError(f"vexa.service is not the daemon the bench started (pid {self.svc.pid}) "
                                   f"after {section}")


class StatusSampler:
    """sample_status() in a process of its own, from its first call until samples()."""

    def __init__(self):
        context = multiprocessing.get_context("spawn")
        self.stop, (self.pipe, theirs) = context.Event(), context.Pipe()
        self.process = context.Process(target=sample_status, args=(self.stop, theirs))
        self.process.start()
        theirs.close()  # so that a sampler that died makes recv() fail rather than wait
        self.pipe.recv()

    def samples(self):
        self.stop.set()
        samples = self.pipe.recv()
        self.process.join()
        return samples


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--only", default=",".join(SECTIONS), help="sections, of: " + ",".join(SECTIONS))
    for flags, kind, default, text in [
            (["-n", "--sessions"], int, 20, "sequential: sessions"),
            (["--hold"], float, 0.5, "sequential: seconds a session runs after the reply"),
            (["--idle-seconds"], float, 30, "idle: seconds measured"),
            (["--many"], int, 100, "many, restart: live sessions of as many users"),
            (["--cycles"], int, 200, "cycles: start/stop cycles"),
            (["--disconnects"], int, 10, "disconnect: transports killed one after the other"),
            (["--resizes"], int, 10, "resize: resizes of each kind")]:
        parser.add_argument(*flags, type=kind, default=default, help=f"{text} (default {default})")
    parser.add_argument("--xserver", default="xvfb", help="configurations, of: " + ",".join(XSERVERS))
    parser.add_argument("--out", help="ignored; results go to standard output")
    args = parser.parse_args()
    args.only = args.only.split(",")
    if unknown := (set(args.only) - set(SECTIONS)) | (set(args.xserver.split(",")) - set(XSERVERS)):
        parser.error(f"unknown: {', '.join(sorted(unknown))}")

    users = {"concurrent": CONCURRENT, "status": CONCURRENT, "wrongpass": WRONG + 1, "many": args.many,
             "restart": args.many}
    needed = max([1, *(users[section] for section in args.only if section in users)])
    for number in range(1, needed + 1):
        run(["useradd", "--create-home", user(number)], check=False)
    run(["chpasswd"], input="".join(f"{user(number)}:{PASSWORD}\n" for number in range(1, needed + 1)))

    installed = json.loads(pathlib.Path(CONFIG).read_text())
    svc = Service(dbus.SystemBus())
    took = {}
    try:
        for name in args.xserver.split(","):
            pathlib.Path(CONFIG).write_text(json.dumps({**installed, **XSERVERS[name], "debug:level": "debug"}))
            svc.stop()
            svc.start()
            print(f"\n==== {name}: vexa.service pid {svc.pid}")
            bench = Bench(svc, args)
            took[name] = bench.took
            bench.run()
    finally:
        pathlib.Path(CONFIG).write_text(json.dumps(installed))
        svc.stop()
        for name, sections in took.items():
            print(f"\n==== {name} took: " + ", ".join(f"{section} {s:.0f} s" for section, s in sections.items()))
    return 0


if __name__ == "__main__":
    sys.exit(main())
