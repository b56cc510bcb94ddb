#!/usr/bin/python3
"""Session starts and the daemon's own costs, measured against the real vexa.service: start times split into
phases, concurrent and wrong-password starts, vexaStatus latency under load, idle wakeups, threads and memory
with many live sessions and over many start/stop cycles. Prints tables and a summary; asserts nothing.

    bench_session.py [--only SECTION,...] [-n N] [--many N] [--cycles N] [--idle-seconds S]
                     [--disconnects N] [--xserver xvfb,xorg] [--hold S]

Runs as root beside a running system bus and logind (the container of run-container). For each X server
configuration it writes /etc/vexa/vexa_service.json (the installed file, "debug:level": "debug" and the X
server keys), restarts vexa.service once and runs the sections in this order against that one daemon:

  sequential  N sessions of one user, one after the other, each held --hold seconds: ms from the call to each
              milestone in the journal (__REALTIME_TIMESTAMP, the clock of time.time()) and of each phase
  concurrent  six users request a session at the same moment (asynchronous calls): wall time, each reply;
              twice, the second time while the users' systemd managers (started by the first) still run
  status      vexaStatus called every 10 ms by a process of its own during the concurrent starts (which it
              runs too): latency percentiles
  wrongpass   a correct start alone, then one sent right behind three wrong passwords of other users
  disconnect  --disconnects transports of one session, each registered, kept a random part of 750 ms and
              killed (SIGKILL): ms from the kill to the arrival of signalSessionDisconnected
  idle        context switches of the daemon's threads over --idle-seconds with no session
  many        --many sessions of as many users started one after the other, kept alive, then ended: start
              times per tenth of the run, threads and VmRSS before and with all live
  cycles      --cycles start/stop cycles of one user's session: VmRSS every 20 cycles

Every session runs /usr/bin/sleep 600 at 1024x768; the users vexa-bench-001... are made when missing.
"""

import argparse
import json
import multiprocessing
import pathlib
import random
import re
import statistics
import subprocess
import sys
import time

import dbus
from gi.repository import GLib

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from conftest import BUS_NAME, CONFIG, INTERFACE, OBJECT_PATH, Service, cursor, run, wait_for  # noqa: E402

XSERVERS = {
    "xorg": {},  # the installed default: Xorg with the dummy driver, the built-in arguments
    "xvfb": {"xvfb:path": "/usr/bin/Xvfb",
             "xvfb:args": [":%{display}", "-nolisten", "tcp", "-auth", "%{authfile}",
                           "-screen", "0", "%{width}x%{height}x%{depth}", "-I"]},
}
SECTIONS = ["sequential", "concurrent", "status", "wrongpass", "disconnect", "idle", "many", "cycles"]
PASSWORD = "Vexa-bench-P4ss"
CONCURRENT, WRONG = 6, 3
CALL_TIMEOUT = 300  # s; a request waits behind every request queued before it
# A transport as the RDP transports are: registers itself with the daemon, says so, and waits.
TRANSPORT = """
import os, signal, sys
import dbus
dbus.SystemBus().call_blocking("ru.kelvo.vexa", "/ru/kelvo/vexa", "ru.kelvo.vexa", "proxySessionConnected", "uus",
                               (int(sys.argv[1]), os.getpid(), sys.argv[2]))
print("registered", flush=True)
while True:
    signal.pause()
"""
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
    return json.dumps({"username": name, "password": password, "width": 1024, "height": 768,
                       "session:path": "/usr/bin/sleep", "session:args": ["600"]})


def pct(values, p):
    """The p-th percentile, linear between the closest ranks."""
    ranked = sorted(values)
    k = (len(ranked) - 1) * p / 100
    i = int(k)
    return ranked[i] + (ranked[min(i + 1, len(ranked) - 1)] - ranked[i]) * (k - i)


def p50_p90_max(values):
    return f"{pct(values, 50):8.1f} {pct(values, 90):8.1f} {max(values):8.1f}"


def start(svc, name):
    """Starts a session and waits for the reply: (session id, ms)."""
    begin = time.monotonic()
    sid = int(svc.bus.call_blocking(BUS_NAME, OBJECT_PATH, INTERFACE, "vexaSessionRequest", "s", (request(name),),
                                    timeout=CALL_TIMEOUT))
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
    """Sends [(user, password)] as asynchronous calls one right after the other and runs the main loop until
    every reply is in: {user: (ms from the first call, reply)}; an error reply is its D-Bus error name."""
    loop, replies = GLib.MainLoop(), {}

    def answer(name, value):
        replies[name] = ((time.monotonic() - begin) * 1000, value)
        if len(replies) == len(requests):
            loop.quit()

    begin = time.monotonic()
    for name, password in requests:
        svc.bus.call_async(BUS_NAME, OBJECT_PATH, INTERFACE, "vexaSessionRequest", "s", (request(name, password),),
                           lambda sid, name=name: answer(name, int(sid)),
                           lambda err, name=name: answer(name, err.get_dbus_name()), timeout=CALL_TIMEOUT)
    loop.run()
    return replies


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
    """{milestone: journal time (s)} of the entries after a cursor."""
    run(["journalctl", "--sync"])
    found = {}
    entries = run(["journalctl", "-q", "-o", "json", f"--after-cursor={after}"]).stdout.splitlines()
    for entry in map(json.loads, entries):
        for name, (ident, pattern) in MILESTONES.items():
            if name not in found and entry.get("SYSLOG_IDENTIFIER") == ident and re.match(pattern, entry["MESSAGE"]):
                found[name] = int(entry["__REALTIME_TIMESTAMP"]) / 1e6
    return found


def session_ids(replies):
    """The session ids among the replies of at_once()."""
    return [value for _, value in replies if isinstance(value, int) and value > 0]


def sample_status(stop, pipe):
    """In a process of its own: calls vexaStatus every 10 ms (at once when a call took longer) on its own
    connection until `stop` is set; sends None after the first call, then [(monotonic start, ms)]."""
    bus, samples = dbus.SystemBus(), []
    while not stop.is_set():
        begin = time.monotonic()
        bus.call_blocking(BUS_NAME, OBJECT_PATH, INTERFACE, "vexaStatus", "", (), timeout=CALL_TIMEOUT)
        samples.append((begin, (time.monotonic() - begin) * 1000))
        if len(samples) == 1:
            pipe.send(None)
        time.sleep(max(0.0, begin + 0.010 - time.monotonic()))
    pipe.send(samples)


class StatusSampler:
    """vexaStatus called every 10 ms by a process of its own with a connection of its own (blocking calls of
    dbus-python from threads of this process are not reliable)."""

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


class Bench:
    """The sections against one running daemon; each prints its tables and adds a line to the summary."""

    def __init__(self, svc, args, label):
        self.svc, self.args, self.label, self.summary, self.took = svc, args, label, [], {}

    def note(self, text):
        self.summary.append(text)

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
        print(f"\nsequential: {len(results)} sessions of {user(1)}, ms (p50, p90, max)")
        print(f"  {'milestone':18} {'from the call':>26}   {'phase (since the line above)':>26}")
        # The milestones in the order they happen (the daemon's logind and X waits overlap).
        at = {name: [r[name] for r in results if name in r] for name in [*MILESTONES, "reply"]}
        order = ["call", *sorted((name for name in at if at[name]), key=lambda name: pct(at[name], 50))]
        phase_p50 = []
        for previous, name in zip(order, order[1:]):
            spans = [r[name] - r[previous] for r in results if name in r and previous in r]
            print(f"  {name:18} {p50_p90_max(at[name])}   {p50_p90_max(spans)}")
            phase_p50.append(f"{name} {pct(spans, 50):.0f}")
        replies = [r["reply"] for r in results]
        self.note(f"sequential n={len(results)}: reply p50 {pct(replies, 50):.1f} p90 {pct(replies, 90):.1f} "
                  f"max {max(replies):.1f} ms; phase p50 ms: {', '.join(phase_p50)}")

    def concurrent(self):
        # Twice: first while the users' systemd managers still have to start (a user's first session waits for
        # its manager), then again while they run.
        for label in ("first sessions", "again"):
            self.concurrent_round(label)

    def concurrent_round(self, label):
        names = [user(i) for i in range(1, CONCURRENT + 1)]
        sampler = StatusSampler() if "status" in self.args.only else None
        begin = time.monotonic()
        replies = at_once(self.svc, [(name, PASSWORD) for name in names])
        wall = (time.monotonic() - begin) * 1000
        samples = sampler.samples() if sampler else []
        sids = session_ids(replies.values())
        ended = end(self.svc, sids, timeout=120)
        print(f"\nconcurrent ({label}): {len(names)} users request a session at the same moment; "
              f"wall time {wall:.1f} ms")
        print(f"  {'user':16} {'reply ms':>9}  reply")
        for name in names:
            ms, value = replies[name]
            print(f"  {name:16} {ms:9.1f}  {value}")
        print(f"  all ended {ended:.1f} ms after the shutdown requests")
        self.note(f"concurrent {len(names)} ({label}): wall {wall:.1f} ms; replies ms "
                  + " ".join(f"{ms:.0f}" for ms, _ in sorted(replies.values(), key=lambda r: r[0]))
                  + f"; {len(sids)} sessions")
        if sampler:
            # the calls that were in flight at some time between the first request and the last reply
            during = [ms for at, ms in samples if at <= begin + wall / 1000 and at + ms / 1000 >= begin]
            print(f"\nstatus ({label}): vexaStatus every 10 ms from a process of its own, the calls in flight during "
                  f"the {wall:.0f} ms of the concurrent starts: {len(during)} samples (all {len(samples)})")
            print(f"  {'p50 ms':>8} {'p99 ms':>8} {'max ms':>8}")
            print(f"  {pct(during, 50):8.1f} {pct(during, 99):8.1f} {max(during):8.1f}")
            self.note(f"status during concurrent ({label}): {len(during)} samples, p50 {pct(during, 50):.1f} "
                      f"p99 {pct(during, 99):.1f} max {max(during):.1f} ms")

    def wrongpass(self):
        alone, = at_once(self.svc, [(user(1), PASSWORD)]).values()
        end(self.svc, session_ids([alone]))
        wrong = [user(i) for i in range(2, WRONG + 2)]
        replies = at_once(self.svc, [*((name, "wrong-" + PASSWORD) for name in wrong), (user(1), PASSWORD)])
        behind = replies[user(1)]
        end(self.svc, session_ids(replies.values()))
        print(f"\nwrongpass: a correct start alone, then one sent right behind {WRONG} wrong passwords; "
              f"ms from the first call")
        print(f"  {'request':28} {'user':16} {'reply ms':>9}  reply")
        print(f"  {'correct, alone':28} {user(1):16} {alone[0]:9.1f}  {alone[1]}")
        for name in wrong:
            print(f"  {'wrong password':28} {name:16} {replies[name][0]:9.1f}  {replies[name][1]}")
        print(f"  {'correct, behind the wrong':28} {user(1):16} {behind[0]:9.1f}  {behind[1]}")
        self.note(f"wrongpass: correct alone {alone[0]:.1f} ms, behind {WRONG} wrong {behind[0]:.1f} ms; wrong ms "
                  + " ".join(f"{replies[name][0]:.0f} ({replies[name][1]})" for name in wrong))

    def disconnect(self):
        count = self.args.disconnects
        sid, _ = start(self.svc, user(1))
        arrived = {}

        def heard(session, pid, _addr):
            if int(session) == sid:
                arrived[int(pid)] = time.monotonic()

        match = self.svc.bus.add_signal_receiver(heard, "signalSessionDisconnected", INTERFACE)
        wake = GLib.timeout_add(100, lambda: True)  # so that a signal that never comes cannot block the wait
        # The daemon looks for dead transports every 750 ms. A kill right after the previous signal would come at
        # the same point of that period every time; a pause of a random part of it spreads the kills over it.
        pauses, delays = random.Random(750), []
        try:
            for n in range(count):
                transport = subprocess.Popen(["/usr/bin/python3", "-c", TRANSPORT, str(sid), f"198.51.100.{n + 1}"],
                                             stdout=subprocess.PIPE, text=True)
                if transport.stdout.readline().strip() != "registered":
                    raise RuntimeError(f"disconnect: transport {n + 1} did not register")
                time.sleep(pauses.uniform(0, 0.75))
                killed = time.monotonic()
                transport.kill()
                transport.wait()  # reaped at once: the pid of a zombie still answers kill(pid, 0)
                # the signal is timed when it is dispatched, which a blocking iteration does as soon as it arrives
                while transport.pid not in arrived and time.monotonic() < killed + 10:
                    GLib.MainContext.default().iteration(True)
                if transport.pid not in arrived:
                    raise RuntimeError(f"disconnect: no signalSessionDisconnected for transport {n + 1} "
                                       f"(pid {transport.pid}) within 10 s")
                delays.append((arrived[transport.pid] - killed) * 1000)
        finally:
            GLib.source_remove(wake)
            match.remove()
        end(self.svc, [sid])
        print(f"\ndisconnect: {count} transports of one session, each registered and then killed (SIGKILL); "
              f"ms from the kill to signalSessionDisconnected")
        print(f"  {'median':>8} {'min':>8} {'max':>8}")
        print(f"  {statistics.median(delays):8.1f} {min(delays):8.1f} {max(delays):8.1f}")
        print("  each: " + " ".join(f"{ms:.0f}" for ms in delays))
        self.note(f"disconnect n={count}: kill to signalSessionDisconnected median {statistics.median(delays):.1f} "
                  f"min {min(delays):.1f} max {max(delays):.1f} ms")

    def idle(self):
        if self.svc.value("vexaSessions"):
            raise RuntimeError("idle: sessions are still listed")
        time.sleep(2)  # the workers of sessions that ended before finish their tear-down
        pid, seconds = self.svc.pid, self.args.idle_seconds
        first = switches(pid)
        seen, begin = dict(first), time.monotonic()
        # Read every second, so that a thread that ends counts up to its last reading.
        while (left := begin + seconds - time.monotonic()) > 0:
            time.sleep(min(1.0, left))
            last = switches(pid)
            seen.update(last)
        elapsed = time.monotonic() - begin
        print(f"\nidle: {elapsed:.1f} s with no session, pid {pid}, {len(first)} threads at the start, "
              f"{len(last)} at the end; context switches per second")
        print(f"  {'tid':>7} {'name':16} {'voluntary':>10} {'involuntary':>12}")
        total = [0, 0]
        for tid, (name, voluntary, involuntary) in sorted(seen.items()):
            _, voluntary0, involuntary0 = first.get(tid, (name, 0, 0))
            rates = [(voluntary - voluntary0) / elapsed, (involuntary - involuntary0) / elapsed]
            total = [a + b for a, b in zip(total, rates)]
            state = "" if tid in first and tid in last else "  (ended)" if tid in first else "  (new)"
            print(f"  {tid:7} {name:16} {rates[0]:10.2f} {rates[1]:12.2f}{state}")
        print(f"  {'all':>7} {'':16} {total[0]:10.2f} {total[1]:12.2f}   = {sum(total):.2f} wakeups/s")
        self.note(f"idle {elapsed:.0f} s: {sum(total):.2f} wakeups/s ({total[0]:.2f} voluntary, "
                  f"{total[1]:.2f} involuntary), threads {len(first)} -> {len(last)}")

    def many(self):
        count, pid = self.args.many, self.svc.pid
        before = footprint(pid)
        sids, times = zip(*(start(self.svc, user(i)) for i in range(1, count + 1)))
        live, listed = footprint(pid), len(self.svc.value("vexaSessions"))
        ended = end(self.svc, sids, timeout=600)
        after = footprint(pid)
        print(f"\nmany: {count} sessions of {count} users started one after the other; ms per tenth of the run")
        print(f"  {'starts':>9} {'mean':>8} {'median':>8}")
        tenths = []
        for k in range(10):
            chunk = times[k * count // 10:(k + 1) * count // 10]
            if chunk:
                first = k * count // 10 + 1
                print(f"  {f'{first}-{first + len(chunk) - 1}':>9} {statistics.mean(chunk):8.1f} "
                      f"{statistics.median(chunk):8.1f}")
                tenths.append(statistics.mean(chunk))
        growth = (live[1] - before[1]) / count
        print(f"  {'daemon':24} {'threads':>8} {'VmRSS kB':>10}")
        for label, (threads, rss) in [("before", before), (f"{count} live ({listed} listed)", live),
                                      ("all ended", after)]:
            print(f"  {label:24} {threads:8} {rss:10}")
        print(f"  VmRSS growth per live session {growth:.1f} kB; all ended {ended / 1000:.1f} s after the "
              f"shutdown requests")
        self.note(f"many {count}: start mean ms per tenth " + " ".join(f"{ms:.0f}" for ms in tenths)
                  + f"; threads {before[0]} -> {live[0]} -> {after[0]}; VmRSS kB {before[1]} -> {live[1]} -> "
                  f"{after[1]} ({growth:.1f} kB/session); ended in {ended / 1000:.1f} s")

    def cycles(self):
        count, pid, step = self.args.cycles, self.svc.pid, 20
        rows, times = [(0, *footprint(pid), None)], []
        for cycle in range(1, count + 1):
            sid, ms = start(self.svc, user(1))
            end(self.svc, [sid])
            times.append(ms)
            if cycle % step == 0 or cycle == count:
                rows.append((cycle, *footprint(pid), statistics.median(times[rows[-1][0]:])))
        print(f"\ncycles: {count} start/stop cycles of {user(1)}'s session")
        print(f"  {'cycles':>6} {'threads':>8} {'VmRSS kB':>10} {'start median ms':>16}")
        for cycle, threads, rss, median in rows:
            print(f"  {cycle:6} {threads:8} {rss:10}" + ("" if median is None else f" {median:16.1f}"))
        rss = {cycle: kb for cycle, _, kb, _ in rows}
        growth = f"{(rss[count] - rss[0]) / count:.2f} kB/cycle over all {count}"
        if count > step:
            growth += f", {(rss[count] - rss[step]) / (count - step):.2f} kB/cycle after the first {step}"
        print(f"  VmRSS growth: {growth}")
        self.note(f"cycles {count}: VmRSS kB {rss[0]} -> {rss[count]}; {growth}")

    def run(self):
        # The status samples are taken during the concurrent starts: either name runs those.
        methods = dict.fromkeys({"status": "concurrent"}.get(section, section)
                                for section in SECTIONS if section in self.args.only)
        for section in methods:
            began = time.monotonic()
            getattr(self, section)()
            self.took[section] = time.monotonic() - began
            print(f"  ({section} took {self.took[section]:.1f} s)")
            if int(self.svc.prop("MainPID", "Service")) != self.svc.pid:
                raise RuntimeError(f"vexa.service is not the daemon the bench started (pid {self.svc.pid}) "
                                   f"after {section}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--only", default=",".join(SECTIONS), help="sections, of: " + ",".join(SECTIONS))
    parser.add_argument("-n", "--sessions", type=int, default=20, help="sequential: sessions (default 20)")
    parser.add_argument("--hold", type=float, default=0.5, help="sequential: seconds a session runs after the reply")
    parser.add_argument("--idle-seconds", type=float, default=30, help="idle: seconds measured (default 30)")
    parser.add_argument("--many", type=int, default=100, help="many: live sessions of as many users (default 100)")
    parser.add_argument("--cycles", type=int, default=200, help="cycles: start/stop cycles (default 200)")
    parser.add_argument("--disconnects", type=int, default=10,
                        help="disconnect: transports killed one after the other (default 10)")
    parser.add_argument("--xserver", default="xvfb", help="configurations, of: " + ",".join(XSERVERS))
    parser.add_argument("--out", help="ignored; results go to standard output")
    args = parser.parse_args()
    args.only = args.only.split(",")
    if unknown := (set(args.only) - set(SECTIONS)) | (set(args.xserver.split(",")) - set(XSERVERS)):
        parser.error(f"unknown: {', '.join(sorted(unknown))}")

    users = {"concurrent": CONCURRENT, "status": CONCURRENT, "wrongpass": WRONG + 1, "many": args.many}
    needed = max([1, *(users[section] for section in args.only if section in users)])
    for number in range(1, needed + 1):
        run(["useradd", "--create-home", user(number)], check=False)
    run(["chpasswd"], input="".join(f"{user(number)}:{PASSWORD}\n" for number in range(1, needed + 1)))

    installed = json.loads(pathlib.Path(CONFIG).read_text())
    svc = Service(dbus.SystemBus())
    benches = []
    try:
        for name in args.xserver.split(","):
            pathlib.Path(CONFIG).write_text(json.dumps({**installed, **XSERVERS[name], "debug:level": "debug"}))
            svc.stop()
            svc.start()
            print(f"\n==== {name}: vexa.service pid {svc.pid}")
            benches.append(Bench(svc, args, name))
            benches[-1].run()
    finally:
        pathlib.Path(CONFIG).write_text(json.dumps(installed))
        svc.stop()
        for bench in benches:
            print(f"\n==== summary ({bench.label})", *bench.summary, sep="\n")
            print("took: " + ", ".join(f"{section} {took:.0f} s" for section, took in bench.took.items()))
    return 0


if __name__ == "__main__":
    sys.exit(main())
