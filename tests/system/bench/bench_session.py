#!/usr/bin/python3
"""How long vexaSessionRequest takes from the call to its reply, over N whole sessions, and where the time
goes, from the journal entries of the daemon and its session manager (__REALTIME_TIMESTAMP, the same clock
as time.time()). Prints median, min and max per phase in milliseconds; asserts nothing.

    bench_session.py [-n N] [--xserver xorg,xvfb] [--hold S]

Runs as root beside a running system bus and logind (the container of run-container). For each X server
configuration it writes /etc/vexa/vexa_service.json (the installed file, "debug:level": "debug" and the X
server keys), restarts vexa.service and makes N sessions of one test user, one after the other: each is
held --hold seconds after the reply, ended with vexaSessionShutdown and awaited before the next request.
"""

import argparse
import json
import pathlib
import re
import statistics
import sys
import time

import dbus

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from conftest import CONFIG, Service, cursor, run, wait_for  # noqa: E402

XSERVERS = {
    "xorg": {},  # the installed default: Xorg with the dummy driver, the built-in arguments
    "xvfb": {"xvfb:path": "/usr/bin/Xvfb",
             "xvfb:args": [":%{display}", "-nolisten", "tcp", "-auth", "%{authfile}",
                           "-screen", "0", "%{width}x%{height}x%{depth}", "-I"]},
}
USER, PASSWORD = "vexa-bench", "Vexa-bench-P4ss"
# milestone: (SYSLOG_IDENTIFIER, pattern of MESSAGE); the first match after the call counts
MILESTONES = {
    "request received": ("vexa_service", r"vexaSessionRequest: "),
    "PAM done": ("vexa_session_manager", r"runXorgDisplay: display: "),
    "X server ready": ("vexa_session_manager", r"runSessionManager: display: \d+, username: "),
    "logind known": ("vexa_service", r"startSession: session id: \d+, display: \d+$"),
    "session bus up": ("vexa_service", r"startSession: session id: \d+, display: \d+, dbus address: "),
}


def milestones(after):
    """{milestone: journal time (s)} of the entries after a cursor."""
    run(["journalctl", "--sync"])
    found = {}
    for entry in map(json.loads, run(["journalctl", "-q", "-o", "json", f"--after-cursor={after}"]).stdout.splitlines()):
        for name, (ident, pattern) in MILESTONES.items():
            if name not in found and entry.get("SYSLOG_IDENTIFIER") == ident and re.match(pattern, entry["MESSAGE"]):
                found[name] = int(entry["__REALTIME_TIMESTAMP"]) / 1e6
    return found


def session(svc, size, hold):
    """The milestones of one session, in ms from the call, and the client's total."""
    after = cursor()
    params = {"username": USER, "password": PASSWORD, "width": size[0], "height": size[1],
              "session:path": "/usr/bin/sleep", "session:args": ["600"]}
    called, begin = time.time(), time.monotonic()
    sid = int(svc.value("vexaSessionRequest", "s", json.dumps(params)))
    total, replied = time.monotonic() - begin, time.time()
    if sid <= 0:
        raise RuntimeError(f"vexaSessionRequest answered {sid}")
    time.sleep(hold)
    svc.call("vexaSessionShutdown", "u", sid)
    wait_for(lambda: not svc.value("vexaSessions"), timeout=30, what=f"session {sid} to end")
    points = {name: (at - called) * 1000 for name, at in milestones(after).items()}
    points["reply"] = (replied - called) * 1000
    return points, total * 1000


def report(name, results):
    print(f"\n{name}: {len(results)} sessions, ms from the call (median, min, max)")
    for milestone in [*MILESTONES, "reply"]:
        values = [points[milestone] for points, _ in results if milestone in points]
        if values:
            print(f"  {milestone:20} {statistics.median(values):8.1f} {min(values):8.1f} {max(values):8.1f}")
    totals = [total for _, total in results]
    print(f"  {'total (monotonic)':20} {statistics.median(totals):8.1f} {min(totals):8.1f} {max(totals):8.1f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("-n", "--sessions", type=int, default=12)
    parser.add_argument("--xserver", default="xorg,xvfb", help="configurations: " + ",".join(XSERVERS))
    parser.add_argument("--hold", type=float, default=0.5, help="seconds a session runs after the reply")
    parser.add_argument("--out", help="ignored; results go to standard output")
    args = parser.parse_args()

    run(["useradd", "--create-home", USER], check=False)
    run(["chpasswd"], input=f"{USER}:{PASSWORD}")
    installed = json.loads(pathlib.Path(CONFIG).read_text())
    svc = Service(dbus.SystemBus())
    try:
        for name in args.xserver.split(","):
            pathlib.Path(CONFIG).write_text(json.dumps({**installed, **XSERVERS[name], "debug:level": "debug"}))
            svc.stop()
            svc.start()
            report(name, [session(svc, (1024, 768), args.hold) for _ in range(args.sessions)])
    finally:
        pathlib.Path(CONFIG).write_text(json.dumps(installed))
        svc.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
